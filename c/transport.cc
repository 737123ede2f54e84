// HttpClient on a network stack of the host's: every exchange of the process in one table, and one
// queue, "quenor-answers", on which time limits pass and callbacks run.
#include "c/transport.h"

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "c/quenor/transport.h"
#include "c/sized.h"
#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/time.h"
#include "quenor_base/platform/dispatch_queue.h"
#include "quenor_base/platform/exception_barrier.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/thread_manager.h"
#include "services/http_client_curl/rules/syntax.h"

using quenor::DispatchQueue;
using quenor::HttpClient;
using quenor::HttpReason;
using quenor::base::TimeDelta;
using quenor::core::BusinessID;
using quenor::core::ThreadManager;

namespace {

using State = HttpClient::State;

constexpr char kWhose[] = "the host's transport";

// What the host has set at some time; kept for good, as another thread may be reading it.
struct SetTransport {
  quenor_transport transport;
  const SetTransport* before;
};

// acquire and release, everywhere: who finds one finds it whole.
std::atomic<const SetTransport*> newest_transport{nullptr};
std::atomic<const quenor_transport*> transport_in_force{nullptr};
std::atomic<bool> is_fixed{false};
std::atomic<bool> is_exiting{false};

// Null: nothing of the host's is to be called.
const quenor_transport* Transport() {
  if (is_exiting.load(std::memory_order_acquire)) return nullptr;
  return transport_in_force.load(std::memory_order_acquire);
}

quenor::base::Location Here(int line) {
  return quenor::base::Location::CreateFromHere("c/transport", line);
}

void GiveUp(int64_t id) {
  const quenor_transport* const transport = Transport();
  if (transport == nullptr || transport->cancel == nullptr) return;
  quenor::base::EndOnException(
      kWhose, [&] { transport->cancel(transport->context, static_cast<uint64_t>(id)); });
}

// An exchange that has begun and not ended.
struct Exchange {
  const void* client;  // Whose it is; null once that one is gone.
  HttpClient::Request request;
  HttpClient::CompletionCallback callback;
  uint64_t time_limit = 0;  // The queue's task.
};

// All of a process. A forked child begins with none: its parent's are the parent's to end.
class Exchanges {
 public:
  explicit Exchanges(Exchanges*) {}
  static Exchanges& OfProcess();

  // False when there is no thread for their ends.
  bool Begin(int64_t id, Exchange exchange, uint32_t time_limit_ms);
  // What could not be begun after all. False when it has ended meanwhile.
  bool Forget(int64_t id);
  // The callback runs on the queue, if the exchange has not ended before.
  void End(int64_t id, State state, std::unique_ptr<HttpClient::Response> response,
           HttpReason reason);
  // Cancels what `client` has begun, and waits while a callback of its own runs elsewhere.
  void Close(const void* client);
  void ReleaseAtExit();

 private:
  std::shared_ptr<DispatchQueue> Queue();
  bool Take(int64_t id, Exchange* exchange);
  // `reason`: the host's, of a failure.
  void Tell(int64_t id, State state, std::unique_ptr<HttpClient::Response> response,
            HttpReason reason = HttpReason::kNone);

  std::mutex mutex_;
  std::condition_variable told_;
  // Guarded by `mutex_`, all of them.
  std::shared_ptr<DispatchQueue> queue_;
  std::map<int64_t, Exchange> exchanges_;
  const void* telling_ = nullptr;  // Whose callback runs.
};

Exchanges& Exchanges::OfProcess() {
  static quenor::base::OnePerProcess<Exchanges> exchanges;
  return exchanges.Get();
}

std::shared_ptr<DispatchQueue> Exchanges::Queue() {
  std::lock_guard<std::mutex> hold(mutex_);
  if (queue_ == nullptr) {
    queue_ = ThreadManager::CreateNewDispatchQueue(BusinessID::kReliableReport, "quenor-answers",
                                                   quenor::base::nullopt);
  }
  return queue_;
}

bool Exchanges::Begin(int64_t id, Exchange exchange, uint32_t time_limit_ms) {
  const auto queue = Queue();
  if (queue == nullptr) return false;
  std::lock_guard<std::mutex> hold(mutex_);
  exchange.time_limit = queue->PostCancelableDelayedTask(
      Here(__LINE__), [this, id] { Tell(id, State::kTimedOut, nullptr); },
      TimeDelta::FromMilliseconds(time_limit_ms));
  exchanges_.emplace(id, std::move(exchange));
  return true;
}

bool Exchanges::Take(int64_t id, Exchange* exchange) {
  const auto found = exchanges_.find(id);
  if (found == exchanges_.end()) return false;
  *exchange = std::move(found->second);
  exchanges_.erase(found);
  queue_->CancelDelayedTask(exchange->time_limit);
  return true;
}

bool Exchanges::Forget(int64_t id) {
  Exchange exchange;
  std::lock_guard<std::mutex> hold(mutex_);
  return Take(id, &exchange);
}

void Exchanges::End(int64_t id, State state, std::unique_ptr<HttpClient::Response> response,
                    HttpReason reason) {
  const auto queue = Queue();
  if (queue == nullptr) return;
  queue->PostTask(Here(__LINE__),
                  [this, id, state, response = std::move(response), reason]() mutable {
                    Tell(id, state, std::move(response), reason);
                  });
}

void Exchanges::Tell(int64_t id, State state, std::unique_ptr<HttpClient::Response> response,
                     HttpReason reason) {
  Exchange exchange;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    if (is_exiting.load(std::memory_order_acquire) || !Take(id, &exchange)) return;
    telling_ = exchange.client;
  }
  // Nobody hears of success after its client's end.
  if (exchange.client == nullptr) state = State::kCancelled;
  const bool is_given_up = state == State::kCancelled || state == State::kTimedOut;
  if (is_given_up) GiveUp(id);
  if (state != State::kCompleted) response.reset();
  const bool is_told = state == State::kFailed && reason != HttpReason::kNone;
  exchange.request.reason = is_told ? reason : HttpClient::ReasonOf(state, response.get());
  if (exchange.callback)
    std::move(exchange.callback).Run(state, exchange.request, std::move(response));
  std::lock_guard<std::mutex> hold(mutex_);
  telling_ = nullptr;
  told_.notify_all();
}

void Exchanges::Close(const void* client) {
  std::unique_lock<std::mutex> hold(mutex_);
  for (auto& [id, exchange] : exchanges_) {
    if (exchange.client != client) continue;
    exchange.client = nullptr;
    queue_->PostTask(Here(__LINE__), [this, id = id] { Tell(id, State::kCancelled, nullptr); });
  }
  // Inside the callback itself there is nothing to wait for.
  if (DispatchQueue::Current() == queue_) return;
  told_.wait(hold, [&] { return telling_ != client || is_exiting; });
}

void Exchanges::ReleaseAtExit() {
  std::lock_guard<std::mutex> hold(mutex_);
  told_.notify_all();
}

// Asking the host --------------------------------------------------------------------------------

class HostClient final : public HttpClient {
 public:
  explicit HostClient(const Config& config)
      : config_(config), defaults_(quenor::GetHttpDefaults()) {}
  ~HostClient() override { Exchanges::OfProcess().Close(this); }

  int64_t SendRequest(const Request& request, CompletionCallback callback) override;

 private:
  // As far as it does not take the host to tell.
  bool IsUsable(const Request& request) const;
  // Whether the host has taken it.
  bool Ask(const quenor_transport& transport, int64_t id, const Request& request,
           uint32_t time_limit_ms) const;

  const Config config_;
  const quenor::HttpDefaults defaults_;
};

bool HostClient::IsUsable(const Request& request) const {
  const auto begins_with = [&](const char* scheme) { return request.url.rfind(scheme, 0) == 0; };
  const bool has_scheme =
      begins_with("https://") || (begins_with("http://") && !defaults_.require_tls);
  return has_scheme && request.url.find('\0') == std::string::npos &&
         quenor::http_syntax::RequestProblem(request).empty();
}

bool HostClient::Ask(const quenor_transport& transport, int64_t id, const Request& request,
                     uint32_t time_limit_ms) const {
  std::vector<quenor_header> headers;
  for (const auto& [name, value] : request.headers)
    headers.push_back({name.c_str(), value.c_str()});
  quenor_request asked;
  QUENOR_INIT(&asked);
  asked.id = static_cast<uint64_t>(id);
  asked.method = request.method.c_str();
  asked.url = request.url.c_str();
  asked.headers = headers.data();
  asked.header_count = headers.size();
  asked.body = request.body.size() != 0 ? request.body.cdata<char>() : nullptr;
  asked.body_size = request.body.size();
  asked.timeout_ms = time_limit_ms;
  asked.http2 = config_.enable_http2;
  if (config_.use_socks5) {
    asked.proxy_host = config_.socks5_host.c_str();
    asked.proxy_port = config_.socks5_port;
    if (!config_.socks5_user.empty()) asked.proxy_user = config_.socks5_user.c_str();
    if (!config_.socks5_user.empty()) asked.proxy_password = config_.socks5_password.c_str();
  }
  int answer = 0;
  quenor::base::EndOnException(kWhose,
                               [&] { answer = transport.start(transport.context, &asked); });
  return answer == 0;
}

int64_t HostClient::SendRequest(const Request& request, CompletionCallback callback) {
  const quenor_transport* const transport = Transport();
  if (transport == nullptr) return 0;
  if (!IsUsable(request)) return 0;
  const int64_t id = NextRequestId();
  const uint32_t time_limit_ms =
      request.timeout_ms != 0 ? request.timeout_ms : defaults_.total_timeout_ms;
  Exchange exchange = {this, request, std::move(callback)};
  exchange.request.request_id = id;
  Exchanges& exchanges = Exchanges::OfProcess();
  // First, as the answer may come before start() returns.
  if (!exchanges.Begin(id, std::move(exchange), time_limit_ms)) return 0;
  if (Ask(*transport, id, request, time_limit_ms)) return id;
  return exchanges.Forget(id) ? 0 : id;
}

// The host's answers -----------------------------------------------------------------------------

std::string LowerCase(std::string text) {
  for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
  return text;
}

// False when it is none.
bool ResponseOf(const quenor_response& from, HttpClient::Response* to) {
  const bool has_arrays = (from.headers != nullptr || from.header_count == 0) &&
                          (from.body != nullptr || from.body_size == 0);
  if (!has_arrays || from.status_code < 100 || from.status_code > 999) return false;
  to->status_code = from.status_code;
  for (size_t i = 0; i < from.header_count; ++i) {
    const quenor_header& header = from.headers[i];
    if (header.name == nullptr || header.value == nullptr) return false;
    const auto [place, is_new] = to->headers.emplace(LowerCase(header.name), header.value);
    if (!is_new) place->second += std::string(", ") + header.value;
  }
  if (from.body_size <= quenor::GetHttpDefaults().max_response_body_bytes) {
    to->body = quenor::CopyOnWriteBuffer(static_cast<const char*>(from.body),
                                         static_cast<uint32_t>(from.body_size));
  }
  return true;
}

HttpReason ReasonOf(const char* name) {
  if (name == nullptr) return HttpReason::kNone;
  for (int32_t i = 1; i < quenor::kHttpReasons; ++i) {
    const auto reason = static_cast<HttpReason>(i);
    const bool is_failure = reason != HttpReason::kHttpStatus && reason != HttpReason::kCancelled;
    if (is_failure && std::strcmp(name, quenor::HttpReasonName(reason)) == 0) return reason;
  }
  return HttpReason::kOther;
}

std::unique_ptr<HttpClient> MakeClient(const HttpClient::Config& config) {
  return std::make_unique<HostClient>(config);
}

void StopAtExit() {
  is_exiting.store(true, std::memory_order_release);
  Exchanges::OfProcess().ReleaseAtExit();
}

}  // namespace

bool host_transport::IsSet() {
  return transport_in_force.load(std::memory_order_acquire) != nullptr;
}
void host_transport::Fix() { is_fixed.store(true, std::memory_order_release); }

quenor_error quenor_set_transport(const quenor_transport* transport) {
  if (is_fixed.load(std::memory_order_acquire)) return QUENOR_STOPPED;
  if (transport == nullptr) {
    quenor::HttpClientFactory::SetMaker(nullptr);
    transport_in_force.store(nullptr, std::memory_order_release);
    return QUENOR_OK;
  }
  quenor_transport taken;
  if (!sized::Take(transport, &taken) || taken.start == nullptr) return QUENOR_BAD_ARGUMENT;
  static const int at_exit = std::atexit(&StopAtExit);
  if (at_exit != 0) return QUENOR_NO_MEMORY;
  quenor::base::EndOnException(kWhose, [&] {
    auto* const set = new SetTransport{taken, newest_transport.load(std::memory_order_acquire)};
    while (!newest_transport.compare_exchange_weak(set->before, set)) {
    }
    transport_in_force.store(&set->transport, std::memory_order_release);
  });
  quenor::HttpClientFactory::SetMaker(&MakeClient);
  return QUENOR_OK;
}

quenor_error quenor_answer(uint64_t id, const quenor_response* response) {
  quenor_response taken;
  if (response != nullptr && !sized::Take(response, &taken)) return QUENOR_BAD_ARGUMENT;
  bool is_one = true;
  quenor::base::EndOnException(kWhose, [&] {
    State state = State::kFailed;
    std::unique_ptr<HttpClient::Response> whole;
    const bool has_failed = response == nullptr || taken.reason != nullptr;
    if (!has_failed) {
      whole = std::make_unique<HttpClient::Response>();
      is_one = ResponseOf(taken, whole.get());
      const bool is_too_large = is_one && whole->body.size() != taken.body_size;
      if (is_one) state = is_too_large ? State::kTooLarge : State::kCompleted;
    }
    const HttpReason reason = response != nullptr ? ReasonOf(taken.reason) : HttpReason::kNone;
    if (!is_one) return;
    Exchanges::OfProcess().End(static_cast<int64_t>(id), state, std::move(whole), reason);
  });
  return is_one ? QUENOR_OK : QUENOR_BAD_ARGUMENT;
}
