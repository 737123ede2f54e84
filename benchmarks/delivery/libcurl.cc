// The floor: libcurl's own loop on one thread, with the same options for TLS, HTTP and connections
// as the library's client, and nothing else.
#include <curl/curl.h>

#include <cstring>
#include <string>
#include <vector>

#include "benchmarks/delivery/worker.h"

namespace quenor::bench {
namespace {

class BareLibcurl : public Deliverer {
 public:
  BareLibcurl(std::string url, std::string ca_file)
      : url_(std::move(url)), ca_file_(std::move(ca_file)) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    multi_ = curl_multi_init();
    curl_multi_setopt(multi_, CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_MULTIPLEX));
    headers_ = curl_slist_append(headers_, "Content-Type: application/octet-stream");
    headers_ = curl_slist_append(headers_, "Expect:");
  }
  ~BareLibcurl() override {
    for (const auto& exchange : exchanges_) curl_easy_cleanup(exchange->easy);
    curl_multi_cleanup(multi_);
    curl_slist_free_all(headers_);
  }

  bool Deliver(const Job& job) override {
    Prepare(job);
    int to_start = job.messages - job.in_flight;
    int to_answer = job.messages;
    for (const auto& exchange : exchanges_) curl_multi_add_handle(multi_, exchange->easy);
    while (to_answer > 0) {
      int running = 0;
      curl_multi_perform(multi_, &running);
      int left = 0;
      while (const CURLMsg* message = curl_multi_info_read(multi_, &left)) {
        CURL* const easy = message->easy_handle;
        if (message->data.result != CURLE_OK || !WasAccepted(easy)) return false;
        curl_multi_remove_handle(multi_, easy);
        --to_answer;
        if (to_start > 0) {
          --to_start;
          curl_multi_add_handle(multi_, easy);
        }
      }
      if (to_answer > 0) curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
    }
    return true;
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

  // One easy handle for each message in flight, its options set once.
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

}  // namespace

std::unique_ptr<Deliverer> MakeBareLibcurl(const std::string& url, const std::string& ca_file) {
  return std::make_unique<BareLibcurl>(url, ca_file);
}

}  // namespace quenor::bench
