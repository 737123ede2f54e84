// The C interface over the settings of the HTTP client. Whatever a program passes is checked here.
#include "c/quenor/network.h"

#include <atomic>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "c/last_error.h"
#include "c/sized.h"
#include "c/transport.h"
#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/thread_annotations.h"
#include "quenor_base/platform/exception_barrier.h"
#include "quenor_base/platform/http_settings.h"
#include "quenor_base/platform/http_thrift.h"
#include "quenor_base/platform/network_change.h"

using quenor::HttpSettings;

using Headers = std::map<std::string, std::string>;

struct quenor_headers {
  Headers all;
};

namespace {

using FreshHeaders = int (*)(void* context, quenor_headers* to);

constexpr char kInC[] = "quenor's C interface";
constexpr size_t kMostPassphraseBytes = 1024;
constexpr char kTransportsOwn[] =
    "of these settings quenor_set_transport()'s stack is only told total_timeout_ms, and the "
    "library keeps max_response_body_bytes and require_tls for it, all for the whole process; "
    "leave the others out, and tell the stack";
constexpr char kClientsOwn[] =
    "it is the library's own HTTP client's, and quenor_set_transport() has replaced it; leave it "
    "out, and tell the transport";

std::string TextOr(const char* text) { return text != nullptr ? text : ""; }

// Withdrawing fresh_headers() ---------------------------------------------------------------------

// The functions of the host's: which settings may call them, and how many calls run.
class HostFunctions {
 public:
  // Never destroyed.
  static HostFunctions& Get() {
    static std::atomic<HostFunctions*> functions{nullptr};
    return *quenor::base::FindOrMake(&functions, [] { return new HostFunctions; });
  }

  // A number for settings that are made now.
  uint64_t NextNumber() QUENOR_EXCLUDES(lock_) {
    quenor::base::AutoLock hold(lock_);
    return ++last_number_;
  }
  // False: it was withdrawn since the settings with this number were made.
  bool Begin(FreshHeaders function, uint64_t number) QUENOR_EXCLUDES(lock_) {
    quenor::base::AutoLock hold(lock_);
    Known& known = known_[function];
    if (number <= known.withdrawn_up_to) return false;
    ++known.running;
    return true;
  }
  void End(FreshHeaders function) QUENOR_EXCLUDES(lock_) {
    quenor::base::AutoLock hold(lock_);
    size_t& running = known_[function].running;
    if (running != 0) --running;  // A call that has forked: the child has counted anew.
  }
  size_t Withdraw(FreshHeaders function) QUENOR_EXCLUDES(lock_) {
    quenor::base::AutoLock hold(lock_);
    Known& known = known_[function];
    known.withdrawn_up_to = last_number_;
    return known.running;
  }

 private:
  struct Known {
    uint64_t withdrawn_up_to = 0;
    size_t running = 0;
  };
  HostFunctions() = default;

  static HostFunctions* From(void* functions) { return static_cast<HostFunctions*>(functions); }
  static void Lock(void* functions) QUENOR_NO_THREAD_SAFETY_ANALYSIS {
    From(functions)->lock_.Acquire();
  }
  static void Unlock(void* functions) QUENOR_NO_THREAD_SAFETY_ANALYSIS {
    From(functions)->lock_.Release();
  }
  static void UnlockInChild(void* functions) QUENOR_NO_THREAD_SAFETY_ANALYSIS {
    for (auto& [function, known] : From(functions)->known_) known.running = 0;
    Unlock(functions);
  }

  quenor::base::Lock lock_;
  quenor::base::HeldAtFork held_{this, &Lock, &Unlock, &UnlockInChild};
  uint64_t last_number_ QUENOR_GUARDED_BY(lock_) = 0;
  std::map<FreshHeaders, Known> known_ QUENOR_GUARDED_BY(lock_);
};

// What the host gives ----------------------------------------------------------------------------

auto FreshOf(const quenor_http& from) {
  return [ask = from.fresh_headers, context = from.context,
          number = HostFunctions::Get().NextNumber()]() -> std::optional<Headers> {
    if (!HostFunctions::Get().Begin(ask, number)) return std::nullopt;
    quenor_headers fresh;
    const bool has_some = ask(context, &fresh) == 0;
    HostFunctions::Get().End(ask);
    if (!has_some) return std::nullopt;
    return std::move(fresh.all);
  };
}

auto PassphraseOf(const quenor_http& from) {
  return [ask = from.key_passphrase, context = from.context] {
    char text[kMostPassphraseBytes] = {};
    int size = -1;
    quenor::base::EndOnException("the host's key_passphrase",
                                 [&] { size = ask(context, text, sizeof text); });
    const bool is_one = size >= 0 && static_cast<size_t>(size) <= sizeof text;
    std::string passphrase(text, is_one ? static_cast<size_t>(size) : 0);
    volatile char* const wiped = text;
    for (size_t i = 0; i < sizeof text; ++i) wiped[i] = '\0';
    return passphrase;
  };
}

// False: a null pointer.
bool TakeTexts(const char* const* from, size_t count, std::vector<std::string>* to) {
  if (from == nullptr && count != 0) return false;
  for (size_t i = 0; i < count; ++i) {
    if (from[i] == nullptr) return false;
    to->push_back(from[i]);
  }
  return true;
}

// Likewise. `*problem`: a name that is there twice.
bool TakeHeaders(const quenor_http& from, Headers* to, std::string* problem) {
  if (from.headers == nullptr && from.header_count != 0) return false;
  for (size_t i = 0; i < from.header_count; ++i) {
    const auto& [name, value] = from.headers[i];
    if (name == nullptr || value == nullptr) return false;
    const bool is_new = to->emplace(name, value).second;
    if (!is_new) *problem = "headers: " + std::string(name) + " is there twice; join the values";
  }
  return true;
}

// As TakeHeaders().
bool TakeSettings(const quenor_http& from, HttpSettings* to, std::string* problem) {
  to->ca_file = TextOr(from.ca_file);
  to->ca_folder = TextOr(from.ca_folder);
  to->ca_pem = TextOr(from.ca_pem);
  to->client_certificate_file = TextOr(from.client_certificate_file);
  to->client_certificate_pem = TextOr(from.client_certificate_pem);
  to->client_key_file = TextOr(from.client_key_file);
  to->client_key_pem = TextOr(from.client_key_pem);
  if (from.key_passphrase != nullptr) to->key_passphrase = PassphraseOf(from);
  to->user_agent = TextOr(from.user_agent);
  to->connect_timeout_ms = from.connect_timeout_ms;
  to->total_timeout_ms = from.total_timeout_ms;
  to->low_speed_bytes_per_second = from.low_speed_bytes_per_second;
  to->low_speed_seconds = from.low_speed_seconds;
  to->max_response_body_bytes = from.max_response_body_bytes;
  to->max_response_header_bytes = from.max_response_header_bytes;
  to->max_connections_per_host = from.max_connections_per_host;
  to->require_tls = from.require_tls != 0;
  to->keep_idle_connections = from.close_idle_connections == 0;
  if (from.fresh_headers != nullptr) to->fresh_headers = FreshOf(from);
  to->proxy.url = TextOr(from.proxy_url);
  to->proxy.user = TextOr(from.proxy_user);
  to->proxy.password = TextOr(from.proxy_password);
  to->proxy.ca_file = TextOr(from.proxy_ca_file);
  to->proxy_from_environment = from.proxy_from_environment != 0;
  return TakeTexts(from.pinned_public_keys, from.pinned_public_key_count,
                   &to->pinned_public_keys) &&
         TakeTexts(from.proxy_except, from.proxy_except_count, &to->proxy.except) &&
         TakeTexts(from.connect_to, from.connect_to_count, &to->connect_to) &&
         TakeHeaders(from, &to->headers, problem);
}

// "proxy.url" is proxy_url here. What stands in quotes is the host's.
std::string InC(const std::string& line) {
  std::string said;
  bool is_quoted = false;
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '\'') is_quoted = !is_quoted;
    bool is_field = false;
    for (const char* const name :
         {"proxy.url", "proxy.user", "proxy.password", "proxy.ca_file", "proxy.except"}) {
      const size_t dot = std::strlen("proxy");
      is_field = is_field || (i >= dot && line.compare(i - dot, std::strlen(name), name) == 0);
    }
    said += is_field && !is_quoted ? '_' : line[i];
  }
  return said;
}

bool IsForTransports(const char* origin, const HttpSettings& settings) {
  HttpSettings heeded;
  heeded.require_tls = settings.require_tls;
  heeded.total_timeout_ms = settings.total_timeout_ms;
  heeded.max_response_body_bytes = settings.max_response_body_bytes;
  // 0, as a C program leaves it.
  heeded.connect_timeout_ms = heeded.low_speed_bytes_per_second = heeded.low_speed_seconds = 0;
  heeded.max_response_header_bytes = heeded.max_connections_per_host = 0;
  return origin == nullptr && settings == heeded;
}

quenor_error Answer(const std::string& problem) {
  if (problem.empty()) return QUENOR_OK;
  LastError() = InC(problem);
  return QUENOR_BAD_OPTION;
}

quenor_error SetHttp(const char* origin, const quenor_http& from) {
  HttpSettings settings;
  std::string problem;
  if (!TakeSettings(from, &settings, &problem)) return QUENOR_BAD_ARGUMENT;
  if (!problem.empty()) return Answer(problem);
  if (host_transport::IsSet() && !IsForTransports(origin, settings)) return Answer(kTransportsOwn);
  return Answer(origin != nullptr ? SetHttpSettings(origin, settings) : SetHttpDefaults(settings));
}

}  // namespace

quenor_error quenor_set_http(const char* origin, const quenor_http* settings) {
  quenor_http taken;
  if (!sized::Take(settings, &taken)) return QUENOR_BAD_ARGUMENT;
  quenor_error answer = QUENOR_OK;
  quenor::base::EndOnException(kInC, [&] { answer = SetHttp(origin, taken); });
  return answer;
}

int quenor_reset_http(const char* origin) {
  bool had_some = false;
  if (origin == nullptr) return had_some;
  quenor::base::EndOnException(kInC, [&] { had_some = quenor::ResetHttpSettings(origin); });
  return had_some;
}

quenor_error quenor_add_header(quenor_headers* to, const char* name, const char* value) {
  if (to == nullptr || name == nullptr || value == nullptr) return QUENOR_BAD_ARGUMENT;
  quenor::base::EndOnException(kInC, [&] { to->all[name] = value; });
  return QUENOR_OK;
}

size_t quenor_withdraw_fresh_headers(int (*fresh_headers)(void*, quenor_headers*)) {
  size_t running = 0;
  quenor::base::EndOnException(kInC,
                               [&] { running = HostFunctions::Get().Withdraw(fresh_headers); });
  return running;
}

void quenor_network_changed() {
  if (!host_transport::IsSet()) quenor::NetworkChanged();
}

quenor_error quenor_watch_network(int on) {
  if (host_transport::IsSet()) return Answer(kClientsOwn);
  return Answer(quenor::WatchNetwork(on != 0));
}

quenor_error quenor_set_thrift(const quenor_thrift* thrift) {
  quenor_thrift taken;
  if (!sized::Take(thrift, &taken)) return QUENOR_BAD_ARGUMENT;
  if (host_transport::IsSet()) return Answer(kClientsOwn);
  return Answer(quenor::SetHttpThrift({taken.bytes_per_second, taken.bytes_per_day}));
}

quenor_error quenor_get_spent(quenor_spent* spent) {
  if (spent == nullptr || spent->size < sizeof spent->size) return QUENOR_BAD_ARGUMENT;
  const quenor::HttpSpent all = quenor::GetHttpSpent();
  sized::Give({sizeof *spent, all.bytes, all.bytes_within_day, all.exchanges, all.connections,
               all.held_back},
              spent);
  return QUENOR_OK;
}
