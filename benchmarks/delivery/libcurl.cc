// The floors: libcurl with the same options for TLS, HTTP and connections as the library's client,
// and nothing else; on the thread that has the messages, and on a thread of its own.
#include <curl/curl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "benchmarks/delivery/worker.h"

namespace quenor::bench {
namespace {

// A multi handle and one easy handle for each message in flight, its options set once.
class Handles {
 public:
  Handles(std::string url, std::string ca_file)
      : url_(std::move(url)), ca_file_(std::move(ca_file)) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    multi_ = curl_multi_init();
    curl_multi_setopt(multi_, CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_MULTIPLEX));
    headers_ = curl_slist_append(headers_, "Content-Type: application/octet-stream");
    headers_ = curl_slist_append(headers_, "Expect:");
  }
  ~Handles() {
    for (const auto& exchange : exchanges_) curl_easy_cleanup(exchange->easy);
    curl_multi_cleanup(multi_);
    curl_slist_free_all(headers_);
  }
  Handles(const Handles&) = delete;
  Handles& operator=(const Handles&) = delete;

  // While none is under way.
  void Prepare(const Job& job) {
    if (job.http2 == job_.http2 && job.connections == job_.connections &&
        job.in_flight == static_cast<int>(exchanges_.size())) {
      return;
    }
    job_ = job;
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(job.connections));
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 64L);
    for (const auto& exchange : exchanges_) curl_easy_cleanup(exchange->easy);
    exchanges_.clear();
    for (int i = 0; i < job.in_flight; ++i) {
      exchanges_.push_back(std::make_unique<Exchange>());
      Configure(exchanges_.back().get());
    }
  }
  std::vector<CURL*> All() const {
    std::vector<CURL*> all;
    for (const auto& exchange : exchanges_) all.push_back(exchange->easy);
    return all;
  }

  void Start(CURL* easy) { curl_multi_add_handle(multi_, easy); }
  // Lets libcurl work, and appends what has ended to `ended`. False when an exchange has failed.
  bool Perform(std::vector<CURL*>* ended) {
    int running = 0;
    curl_multi_perform(multi_, &running);
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi_, &left)) {
      CURL* const easy = message->easy_handle;
      if (message->data.result != CURLE_OK || !WasAccepted(easy)) return false;
      curl_multi_remove_handle(multi_, easy);
      ended->push_back(easy);
    }
    return true;
  }
  // Behind Perform(), whether to call it once more before Wait(): libcurl may forget to look at who
  // waits for a connection that has become free, and would stand there for a second.
  bool MustLookAgain(const std::vector<CURL*>& ended) const {
    return !ended.empty() && !job_.http2 && job_.in_flight > job_.connections;
  }
  // Sleeps until a socket or `wake_fd`, if there is one, has something.
  void Wait(int wake_fd = -1) {
    curl_waitfd wake = {wake_fd, CURL_WAIT_POLLIN, 0};
    curl_multi_poll(multi_, &wake, wake_fd < 0 ? 0 : 1, 1000, nullptr);
    uint64_t count;
    if (wake.revents != 0) (void)!read(wake_fd, &count, sizeof(count));
  }

 private:
  struct Exchange {
    CURL* easy;
    std::string answer;
  };

  static size_t OnBytes(char* data, size_t, size_t size, void* user) {
    static_cast<Exchange*>(user)->answer.append(data, size);
    return size;
  }

  static bool WasAccepted(CURL* easy) {
    long status = 0;
    Exchange* exchange = nullptr;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &exchange);
    const bool whole = !exchange->answer.empty();
    exchange->answer.clear();
    return status == 200 && whole;
  }

  void Configure(Exchange* exchange) {
    CURL* const easy = exchange->easy = curl_easy_init();
    curl_easy_setopt(easy, CURLOPT_PRIVATE, exchange);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_URL, url_.c_str());
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, message_.data());
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(message_.size()));
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &OnBytes);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, exchange);
    curl_easy_setopt(easy, CURLOPT_PROXY, "");
    curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    curl_easy_setopt(easy, CURLOPT_CAINFO, ca_file_.c_str());
    curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(easy, CURLOPT_PIPEWAIT, job_.http2 ? 1L : 0L);
    curl_easy_setopt(
        easy, CURLOPT_HTTP_VERSION,
        static_cast<long>(job_.http2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
  }

  const std::string url_;
  const std::string ca_file_;
  const std::string message_ = std::string(1024, 'Z');
  curl_slist* headers_ = nullptr;
  CURLM* multi_ = nullptr;
  Job job_;
  std::vector<std::unique_ptr<Exchange>> exchanges_;
};

// One thread, which makes the requests and drives them.
class BareLibcurl : public Deliverer {
 public:
  BareLibcurl(const std::string& url, const std::string& ca_file) : handles_(url, ca_file) {}

  bool Deliver(const Job& job) override {
    handles_.Prepare(job);
    int to_start = job.messages - job.in_flight;
    int to_answer = job.messages;
    for (CURL* const easy : handles_.All()) handles_.Start(easy);
    std::vector<CURL*> ended;
    while (handles_.Perform(&ended)) {
      for (CURL* const easy : ended) {
        if (--to_answer == 0) return true;
        if (to_start-- > 0) handles_.Start(easy);
      }
      if (!handles_.MustLookAgain(ended)) handles_.Wait();
      ended.clear();
    }
    return false;
  }

 private:
  Handles handles_;
};

// One thread makes the requests and takes the answers, another drives libcurl. Each wakes the other
// only when that sleeps, the second once for all answers that it has found.
class TwoThreadLibcurl : public Deliverer {
 public:
  TwoThreadLibcurl(const std::string& url, const std::string& ca_file)
      : handles_(url, ca_file), driver_([this] { Drive(); }) {}
  ~TwoThreadLibcurl() override {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      ends_ = true;
    }
    Wake();
    driver_.join();
    close(wake_fd_);
  }

  bool Deliver(const Job& job) override {
    handles_.Prepare(job);
    int to_start = job.messages - job.in_flight;
    int to_answer = job.messages;
    for (CURL* const easy : handles_.All()) Submit(easy);
    std::vector<CURL*> answered;
    while (to_answer > 0) {
      {
        std::unique_lock<std::mutex> hold(mutex_);
        changed_.wait(hold, [this] { return !answered_.empty() || failed_; });
        if (failed_) return false;
        answered.swap(answered_);
      }
      for (CURL* const easy : answered) {
        --to_answer;
        if (to_start-- > 0) Submit(easy);
      }
      answered.clear();
    }
    return true;
  }

 private:
  void Wake() {
    const uint64_t one = 1;
    (void)!write(wake_fd_, &one, sizeof(one));
  }
  void Submit(CURL* easy) {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      submitted_.push_back(easy);
      if (!std::exchange(sleeps_, false)) return;
    }
    Wake();
  }

  // If there is none, the driver is about to sleep.
  bool HasWork() {
    std::lock_guard<std::mutex> hold(mutex_);
    sleeps_ = !ends_ && submitted_.empty();
    return !sleeps_;
  }
  void Drive() {
    std::vector<CURL*> starting;
    std::vector<CURL*> ended;
    for (;;) {
      {
        std::lock_guard<std::mutex> hold(mutex_);
        if (ends_) return;
        sleeps_ = false;
        starting.swap(submitted_);
      }
      for (CURL* const easy : starting) handles_.Start(easy);
      starting.clear();
      const bool good = handles_.Perform(&ended);
      if (!good || !ended.empty()) {
        {
          std::lock_guard<std::mutex> hold(mutex_);
          answered_.insert(answered_.end(), ended.begin(), ended.end());
          failed_ = !good;
        }
        changed_.notify_one();
      }
      const bool may_sleep = !handles_.MustLookAgain(ended) && !HasWork();
      if (may_sleep) handles_.Wait(wake_fd_);
      ended.clear();
    }
  }

  Handles handles_;  // The driver's, but while nothing is under way.
  const int wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by `mutex_`.
  std::vector<CURL*> submitted_;
  std::vector<CURL*> answered_;
  bool sleeps_ = false;
  bool failed_ = false;
  bool ends_ = false;
  std::thread driver_;
};

}  // namespace

std::unique_ptr<Deliverer> MakeLibcurl(bool two_threads, const std::string& url,
                                       const std::string& ca_file) {
  if (two_threads) return std::make_unique<TwoThreadLibcurl>(url, ca_file);
  return std::make_unique<BareLibcurl>(url, ca_file);
}

}  // namespace quenor::bench
