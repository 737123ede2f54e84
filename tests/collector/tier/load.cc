// quenor_collector_load: posts numbered reports at a rate, each again until it is answered 200, and
// says which have been.
//
// usage: quenor_collector_load URL CERTIFICATE PER_SECOND CONNECTIONS SIZE
// Its bodies are "r-000000017 xxx...". When its input ends it begins no new report, sends those
// that it has begun to their ends, and prints a line for each report: number, answers before the
// 200, the milliseconds of the request that was answered 200, and the millisecond of that answer
// since the start. Every other answer is a line "answer STATUS MILLISECOND TOOK_MS", status 0 for
// none.
#include <curl/curl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "collector/clock.h"

namespace {

constexpr uint64_t kSizes = 61;    // As reports do, these differ in size.
constexpr int64_t kPauseMs = 100;  // Before a report goes again.
constexpr long kPatienceMs = 50'000;

struct Slot {
  CURL* handle = nullptr;
  uint64_t number = 0;
  int failures = 0;
  int64_t begun_ms = 0;
  std::string body;
  std::string reply;
};

struct Waiting {
  uint64_t number = 0;
  int failures = 0;
  int64_t due_ms = 0;
};

size_t Keep(char* data, size_t size, size_t count, void* reply) {
  static_cast<std::string*>(reply)->append(data, size * count);
  return size * count;
}

class Load {
 public:
  Load(const char* url, const char* certificate, double per_second, size_t connections, size_t size)
      : per_second_(per_second), size_(size), slots_(connections), multi_(curl_multi_init()) {
    headers_ = curl_slist_append(nullptr, "Expect:");
    for (Slot& slot : slots_) {
      slot.handle = curl_easy_init();
      curl_easy_setopt(slot.handle, CURLOPT_URL, url);
      curl_easy_setopt(slot.handle, CURLOPT_CAINFO, certificate);
      curl_easy_setopt(slot.handle, CURLOPT_HTTPHEADER, headers_);
      curl_easy_setopt(slot.handle, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
      curl_easy_setopt(slot.handle, CURLOPT_TIMEOUT_MS, kPatienceMs);
      curl_easy_setopt(slot.handle, CURLOPT_WRITEFUNCTION, &Keep);
      curl_easy_setopt(slot.handle, CURLOPT_WRITEDATA, &slot.reply);
      curl_easy_setopt(slot.handle, CURLOPT_PRIVATE, &slot);
      free_.push_back(&slot);
    }
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, static_cast<long>(connections));
  }

  ~Load() {
    for (Slot& slot : slots_) curl_easy_cleanup(slot.handle);
    curl_multi_cleanup(multi_);
    curl_slist_free_all(headers_);
  }
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  void Run() {
    bool is_enough = false;
    for (;;) {
      is_enough = is_enough || HasInputEnded();
      const int64_t now_ms = NowMs();
      while (!free_.empty() && !waiting_.empty() && waiting_.front().due_ms <= now_ms) {
        const Waiting next = waiting_.front();
        waiting_.pop_front();
        Begin(next.number, next.failures, now_ms);
      }
      // What could not be begun in time is made up for with a burst of a round at most: a fault
      // leaves no mountain behind it.
      const double earned = static_cast<double>(now_ms - earned_ms_) / 1000 * per_second_;
      allowance_ = std::min(allowance_ + earned, static_cast<double>(slots_.size()));
      earned_ms_ = now_ms;
      for (; !is_enough && !free_.empty() && allowance_ >= 1; allowance_ -= 1) {
        Begin(++begun_, 0, now_ms);
      }
      int running = 0;
      curl_multi_perform(multi_, &running);
      Finish();
      if (is_enough && waiting_.empty() && free_.size() == slots_.size()) return;
      curl_multi_poll(multi_, nullptr, 0, 1, nullptr);
    }
  }

 private:
  int64_t NowMs() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(quenor::collector::Now() -
                                                                 started_)
        .count();
  }

  static bool HasInputEnded() {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    char byte = 0;
    return ::poll(&input, 1, 0) > 0 && ::read(STDIN_FILENO, &byte, 1) <= 0;
  }

  void Begin(uint64_t number, int failures, int64_t now_ms) {
    Slot* const slot = free_.back();
    free_.pop_back();
    slot->number = number;
    slot->failures = failures;
    slot->begun_ms = now_ms;
    char name[32];
    std::snprintf(name, sizeof(name), "r-%09llu ", static_cast<unsigned long long>(number));
    slot->body = name;
    slot->body.resize(size_ + number % kSizes, 'x');
    slot->reply.clear();
    curl_easy_setopt(slot->handle, CURLOPT_POSTFIELDS, slot->body.data());
    curl_easy_setopt(slot->handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(slot->body.size()));
    curl_multi_add_handle(multi_, slot->handle);
  }

  void Finish() {
    int left = 0;
    while (CURLMsg* const message = curl_multi_info_read(multi_, &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      CURL* const handle = message->easy_handle;
      long status = 0;
      if (message->data.result == CURLE_OK) {
        curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
      }
      Slot* slot = nullptr;
      curl_easy_getinfo(handle, CURLINFO_PRIVATE, &slot);
      curl_multi_remove_handle(multi_, handle);
      free_.push_back(slot);
      const auto now_ms = static_cast<long long>(NowMs());
      const long long took_ms = now_ms - slot->begun_ms;
      if (status == 200 && slot->reply.find("\"success\"") != std::string::npos) {
        std::printf("r-%09llu %d %lld %lld\n", static_cast<unsigned long long>(slot->number),
                    slot->failures, took_ms, now_ms);
      } else {
        std::printf("answer %ld %lld %lld\n", status, now_ms, took_ms);
        waiting_.push_back({slot->number, slot->failures + 1, now_ms + kPauseMs});
      }
    }
  }

  const double per_second_;
  const size_t size_;
  std::vector<Slot> slots_;
  std::vector<Slot*> free_;
  std::deque<Waiting> waiting_;
  CURLM* const multi_;
  curl_slist* headers_ = nullptr;
  const quenor::collector::Time started_ = quenor::collector::Now();
  uint64_t begun_ = 0;
  double allowance_ = 0;  // Reports that may be begun now.
  int64_t earned_ms_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "usage: %s URL CERTIFICATE PER_SECOND CONNECTIONS SIZE\n", argv[0]);
    return 64;
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  Load(argv[1], argv[2], std::atof(argv[3]), std::strtoul(argv[4], nullptr, 10),
       std::strtoul(argv[5], nullptr, 10))
      .Run();
  curl_global_cleanup();
  return 0;
}
