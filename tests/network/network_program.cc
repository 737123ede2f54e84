// A host application with report channels that does what its standard input says, a line at a time,
// and answers each with a line: to be looked at from outside while it works, rests and ends.
//   quenor_network_program URL CHANNELS CACHE_FOLDER CA_FILE
// CACHE_FOLDER "-" keeps nothing on disk, CA_FILE "-" trusts the system's. QUENOR_TEST_HTTP2 in the
// environment offers HTTP/2. At the end of its input it terminates its channels and drains them.
#include <curl/curl.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/http_reason.h"
#include "quenor_base/platform/http_settings.h"
#include "quenor_base/platform/network_change.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/socks5_proxy_config.h"
#include "quenor_base/platform/thread_manager.h"
#include "quenor_base/reporter/books.h"

namespace quenor::test {
namespace {

constexpr uint64_t kMostOutstanding = 100;  // For each channel; it removes messages at 200.

// ---- Ways to end --------------------------------------------------------------------------------

void WriteLine(const std::string& line) {
  const std::string text = line + "\n";
  if (write(STDOUT_FILENO, text.data(), text.size()) < 0) _exit(3);  // Nobody listens.
}

// Ends the process. "return" is main's own way.
[[noreturn]] void End(const std::string& way) {
  if (way == "exit") std::exit(0);
  if (way == "quick_exit") std::quick_exit(0);
  _exit(way == "_exit" ? 0 : 64);
}

// What the books say at this moment.
struct Kept {
  uint64_t saved = 0;  // Messages that the last saves wrote.
  uint64_t safe = 0;   // Messages that had been admitted when the last save was complete.
};

// Says what had been saved and when it is.
void AnnounceEnd(const Kept& kept) {
  WriteLine("ending saved=" + std::to_string(kept.saved) + " safe=" + std::to_string(kept.safe) +
            " at_us=" + std::to_string(base::MonotonicNs() / 1000));
}

// ---- What becomes of the messages ---------------------------------------------------------------

class Books : public ReportEventListener {
 public:
  void OnReportEvent(const ReportEvent& event) override {
    library_.Note(event, base::MonotonicNs(), /*is_rejected=*/false);
    std::string end_by;
    Kept kept;
    {
      std::lock_guard<std::mutex> hold(mutex_);
      ++counts_[event.kind];
      switch (event.kind) {
        case ReportEventKind::kSaved:
          saved_[event.channel_name] = event.count;
          safe_ = counts_[ReportEventKind::kAdmitted];
          break;
        case ReportEventKind::kHandedOver:
        case ReportEventKind::kLoaded:
          ++open_[event.channel_name];
          break;
        case ReportEventKind::kAcknowledged:
        case ReportEventKind::kDropped:
        case ReportEventKind::kRefused:
          --open_[event.channel_name];
          break;
        case ReportEventKind::kAdmitted:
          end_by.swap(end_on_queue_);
          break;
        default:
          break;
      }
      kept = {Saved(), safe_};
      changed_.notify_all();
    }
    if (end_by.empty()) return;
    AnnounceEnd(kept);
    End(end_by);
  }

  void WaitFor(ReportEventKind kind, uint64_t count) {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [&] { return counts_[kind] >= count; });
  }
  // Returns once the channel has fewer than the most outstanding.
  void WaitForRoom(const std::string& channel_name) {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [&] { return open_[channel_name] < kMostOutstanding; });
  }
  // Returns once the last saves have this many messages, over all channels.
  void WaitUntilSaved(uint64_t count) {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [&] { return Saved() >= count; });
  }
  Kept NowKept() {
    std::lock_guard<std::mutex> hold(mutex_);
    return {Saved(), safe_};
  }
  // The next message that is admitted ends the process, on the channel's thread.
  void EndOnQueue(const std::string& way) {
    std::lock_guard<std::mutex> hold(mutex_);
    end_on_queue_ = way;
  }
  std::string Text() {
    std::lock_guard<std::mutex> hold(mutex_);
    const auto count = [&](const char* name, ReportEventKind kind) {
      return std::string(name) + "=" + std::to_string(counts_[kind]) + " ";
    };
    return count("handed_over", ReportEventKind::kHandedOver) +
           count("sent", ReportEventKind::kSent) +
           count("acknowledged", ReportEventKind::kAcknowledged) +
           count("failed", ReportEventKind::kFailed) + count("dropped", ReportEventKind::kDropped) +
           count("refused", ReportEventKind::kRefused) + count("kept", ReportEventKind::kKept) +
           count("loaded", ReportEventKind::kLoaded) +
           "closes=" + std::to_string(library_.Read().Closes()) +
           " outstanding=" + std::to_string(library_.Read().Outstanding());
  }

 private:
  uint64_t Saved() const {  // Under `mutex_`, as all fields.
    uint64_t saved = 0;
    for (const auto& [name, count] : saved_) saved += count;
    return saved;
  }

  quenor::Books library_;  // Any thread.
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<ReportEventKind, uint64_t> counts_;
  std::map<std::string, uint64_t> saved_;
  uint64_t safe_ = 0;
  std::map<std::string, uint64_t> open_;
  std::string end_on_queue_;
};

// ---- The host's own use of signals and of libcurl -----------------------------------------------

std::atomic<int> g_signals_here{0};       // relaxed: counts only.
std::atomic<int> g_signals_elsewhere{0};  // relaxed: counts only.

void OnSignal(int) { (getpid() == gettid() ? g_signals_here : g_signals_elsewhere) += 1; }

void SetOwnSignals() {
  struct sigaction action = {};
  action.sa_handler = &OnSignal;
  action.sa_flags = SA_RESTART;
  sigaddset(&action.sa_mask, SIGHUP);
  for (const int number : {SIGUSR1, SIGTERM, SIGCHLD, SIGALRM, SIGURG, SIGIO}) {
    sigaction(number, &action, nullptr);
  }
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR2);
  sigaddset(&mask, SIGWINCH);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

// Every handler with its flags and mask, and this thread's mask.
std::string Signals() {
  std::ostringstream text;
  const auto put = [&](const sigset_t& set) {
    for (int i = 1; i <= SIGRTMAX; ++i) text << (sigismember(&set, i) == 1 ? '1' : '0');
  };
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  put(mask);
  for (int number = 1; number <= SIGRTMAX; ++number) {
    struct sigaction action = {};
    if (sigaction(number, nullptr, &action) != 0) continue;
    text << " " << number << ":" << reinterpret_cast<void*>(action.sa_handler) << ":"
         << action.sa_flags << ":";
    put(action.sa_mask);
  }
  return text.str();
}

size_t Swallow(char*, size_t, size_t size, void*) { return size; }

// A request of the host's own, beside the channels'. Answers the status, 0 without one.
long HostGets(const std::string& url, const std::string& ca_file) {
  CURL* easy = curl_easy_init();
  if (easy == nullptr) return 0;
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Swallow);
  if (ca_file != "-") curl_easy_setopt(easy, CURLOPT_CAINFO, ca_file.c_str());
  long status = 0;
  if (curl_easy_perform(easy) == CURLE_OK) {
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  }
  curl_easy_cleanup(easy);
  return status;
}

// ---- The client's settings, and exchanges of its own beside the channels'
// ------------------------

// The words "KEY=VALUE" of a line, beside `ca_file`, are what holds from the next client on.
// Answers what was found wrong with them.
std::string SetHttp(std::istream& words, const std::string& ca_file) {
  HttpDefaults defaults;
  if (ca_file != "-") defaults.ca_file = ca_file;
  std::string word;
  while (words >> word) {
    const size_t at = word.find('=');
    const std::string key = word.substr(0, at);
    const std::string value = at == std::string::npos ? "" : word.substr(at + 1);
    if (key == "proxy") {
      defaults.proxy.url = value;
    } else if (key == "user") {
      defaults.proxy.user = value;
    } else if (key == "password") {
      defaults.proxy.password = value;
    } else if (key == "proxy-ca") {
      defaults.proxy.ca_file = value;
    } else if (key == "except") {
      defaults.proxy.except.push_back(value);
    } else if (key == "environment") {
      defaults.proxy_from_environment = value == "1";
    } else if (key == "keep") {
      defaults.keep_idle_connections = value != "0";
    } else if (key == "connect-ms") {
      defaults.connect_timeout_ms = static_cast<uint32_t>(std::stoul(value));
    } else {
      return "no such setting: " + word;
    }
  }
  return SetHttpDefaults(defaults);
}

HttpClient::Config ClientConfig(bool http2) {
  HttpClient::Config config;
  config.enable_http2 = http2;
  const auto proxy = GetSocks5ProxyConfigHolder()->GetConfig();
  if (proxy.enabled) config.SetSocks5Proxy(proxy.host, proxy.port, proxy.user, proxy.password);
  return config;
}

// How one exchange ended.
std::string Exchange(HttpClient* client, const std::string& url, const std::string& body) {
  HttpClient::Request request;
  request.url = url;
  request.method = "POST";
  request.body = CopyOnWriteBuffer(reinterpret_cast<const uint8_t*>(body.data()), body.size());
  std::promise<std::string> promise;  // Outlives the callback: it is waited for.
  std::future<std::string> result = promise.get_future();
  const int64_t id = client->SendRequest(
      request, [&promise](HttpClient::State state, const HttpClient::Request& ended,
                          std::unique_ptr<HttpClient::Response> response) {
        constexpr const char* kStates[] = {"failed", "cancelled", "completed", "timed_out",
                                           "too_large"};
        promise.set_value(std::string("state=") + kStates[static_cast<int>(state)] + " status=" +
                          std::to_string(response == nullptr ? 0 : response->status_code) +
                          " reason=" + HttpReasonName(ended.reason));
      });
  return id < 1 ? "state=not_sent" : result.get();
}

// ---- The application ----------------------------------------------------------------------------

class Application {
 public:
  Application(const std::string& url, int channels, const std::string& ca_file)
      : ca_file_(ca_file) {
    ReportEvents::SetListener(&books_);
    for (int i = 0; i < channels; ++i) {
      names_.push_back("app-" + std::to_string(i));
      channels_.push_back(std::make_shared<ReliableReportChannelHttps>(
          names_.back(), url, 0, std::getenv("QUENOR_TEST_HTTP2") != nullptr, false));
    }
    next_number_.resize(names_.size());
  }

  void Start() {
    for (const auto& channel : channels_) {
      channel->Initialize();
      channel->SetMaxResendCount(UINT32_MAX);
      channel->FlushPacket();  // What the load brought is not sent by itself.
    }
  }
  bool Stop() {
    for (const auto& channel : channels_) channel->Terminate();
    return core::ThreadManager::WaitForDrain(base::TimeDelta::FromSeconds(60));
  }

  // False when main is to return at once.
  bool Do(const std::string& line);

 private:
  // The body tells channel and number, and is of a length of its own.
  void Send(size_t channel) {
    const uint64_t number = next_number_[channel]++;
    const std::string body =
        names_[channel] + "/" + std::to_string(number) + "/" + std::string(number % 200, 'x');
    channels_[channel]->SendPacket(reinterpret_cast<const uint8_t*>(body.data()),
                                   static_cast<uint32_t>(body.size()), true, true);
  }
  void SendEvenly(uint64_t count, double seconds) {
    const auto start = base::MonotonicNow();
    for (uint64_t i = 0; i < count; ++i) {
      std::this_thread::sleep_until(start +
                                    std::chrono::duration<double>(seconds * static_cast<double>(i) /
                                                                  static_cast<double>(count)));
      const size_t channel = i % channels_.size();
      books_.WaitForRoom(names_[channel]);
      Send(channel);
    }
  }
  void Wait(const std::string& what, uint64_t count) {
    if (what == "acknowledged") books_.WaitFor(ReportEventKind::kAcknowledged, count);
    if (what == "failed") books_.WaitFor(ReportEventKind::kFailed, count);
    if (what == "sent") books_.WaitFor(ReportEventKind::kSent, count);
    if (what == "saved") books_.WaitUntilSaved(count);
  }
  bool EndFrom(const std::string& where, const std::string& way);

  const std::string ca_file_;
  Books books_;
  std::vector<std::string> names_;
  std::vector<std::shared_ptr<ReliableReportChannelHttps>> channels_;
  std::vector<uint64_t> next_number_;
  std::unique_ptr<HttpClient> client_;
};

bool Application::EndFrom(const std::string& where, const std::string& way) {
  if (where == "queue") {
    books_.EndOnQueue(way);
    Send(0);
    for (;;) pause();
  }
  if (where == "thread") {
    std::thread([this, way] {
      AnnounceEnd(books_.NowKept());
      End(way);
    }).detach();
    for (;;) pause();
  }
  AnnounceEnd(books_.NowKept());
  if (way == "return") return false;
  End(way);
}

bool Application::Do(const std::string& line) {
  std::istringstream words(line);
  std::string command, text, other;
  words >> command;
  if (command == "send") {  // COUNT: that many for each channel
    uint64_t count = 0;
    words >> count;
    for (uint64_t i = 0; i < count * channels_.size(); ++i) Send(i % channels_.size());
  } else if (command == "spread") {  // COUNT SECONDS: over all channels, evenly in that time
    uint64_t count = 0;
    double seconds = 0;
    words >> count >> seconds;
    SendEvenly(count, seconds);
  } else if (command == "wait") {  // WHAT COUNT
    uint64_t count = 0;
    words >> text >> count;
    Wait(text, count);
  } else if (command == "proxy") {  // HOST PORT
    Socks5ProxyConfigHolder::Socks5ProxyConfig proxy;
    words >> proxy.host >> proxy.port;
    proxy.enabled = true;
    GetSocks5ProxyConfigHolder()->SetConfig(proxy);
  } else if (command == "http") {  // KEY=VALUE ...
    text = SetHttp(words, ca_file_);
    WriteLine(text.empty() ? "ok" : "refused: " + text);
    return true;
  } else if (command == "client") {  // VERSION: whom "exchange" asks from now on; 1 or 2
    words >> text;
    client_ = HttpClientFactory::Create(ClientConfig(text == "2"));
  } else if (command == "exchange") {  // URL BODY
    words >> text >> other;
    WriteLine(Exchange(client_.get(), text, other));
    return true;
  } else if (command == "watch") {  // on|off
    words >> text;
    const std::string problem = WatchNetwork(text == "on");
    if (!problem.empty()) WriteLine(problem);
  } else if (command == "changed") {
    NetworkChanged();
  } else if (command == "restart") {
    if (!Stop()) return false;
    Start();
  } else if (command == "own-signals") {
    SetOwnSignals();
  } else if (command == "signals") {
    WriteLine(Signals());
    return true;
  } else if (command == "handled") {
    WriteLine("here=" + std::to_string(g_signals_here) +
              " elsewhere=" + std::to_string(g_signals_elsewhere));
    return true;
  } else if (command == "curl-init") {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return false;
  } else if (command == "curl-cleanup") {
    curl_global_cleanup();
  } else if (command == "curl-get") {  // URL
    words >> text;
    WriteLine("status=" + std::to_string(HostGets(text, ca_file_)));
    return true;
  } else if (command == "interval") {  // Of reports, as the server wants it.
    WriteLine(std::to_string(channels_.front()->GetReportInterval()));
    return true;
  } else if (command == "end") {  // WHERE WAY
    words >> text >> other;
    return EndFrom(text, other);
  } else if (command == "end-busy") {  // WAY MS: another thread ends it so long from now
    int ms = 0;
    words >> text >> ms;
    std::thread([this, text, ms] {
      std::this_thread::sleep_for(std::chrono::milliseconds(ms));
      AnnounceEnd(books_.NowKept());
      End(text);
    }).detach();
    for (;;) SendEvenly(1000, 0);
  } else if (command != "counts") {
    WriteLine("unknown command: " + line);
    return true;
  }
  WriteLine("ok " + books_.Text());
  return true;
}

int Main(int argc, char** argv) {
  if (argc != 5) return 64;
  const std::string cache_folder = argv[3];
  const std::string ca_file = argv[4];
  if (cache_folder == "-") {
    config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                             uint64_t{0});
  } else if (!base::PathService::Override(base::DIR_RELIABLE_REPORT,
                                          base::FilePath(cache_folder))) {
    return 64;
  }
  std::istringstream nothing_else;
  const std::string problem = SetHttp(nothing_else, ca_file);
  if (!problem.empty()) {
    std::cerr << problem << "\n";
    return 64;
  }
  // Never destroyed: the process may end while the channels work.
  auto* const application = new Application(argv[1], std::atoi(argv[2]), ca_file);
  bool started = false;
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "start") {
      application->Start();
      started = true;
      WriteLine("ok");
    } else if (!application->Do(line)) {
      return 0;
    }
  }
  return !started || application->Stop() ? 0 : 2;
}

}  // namespace
}  // namespace quenor::test

int main(int argc, char** argv) { return quenor::test::Main(argc, argv); }
