// HttpClient on libcurl: the clients, how they are made, and what the host sets for all of them. A
// client's own thread judges and prepares a request; the engine's I/O thread does the rest.
// See docs/design/http-client.md.
#include <atomic>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/exception_barrier.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/network_change.h"
#include "services/http_client_curl/address.h"
#include "services/http_client_curl/easy_options.h"
#include "services/http_client_curl/engine.h"
#include "services/http_client_curl/rules/settings_check.h"
#include "services/http_client_curl/rules/syntax.h"
#include "services/http_client_curl/thrift/spending.h"
#include "services/http_client_curl/tls_openssl.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using http_engine::Engine;
using http_engine::kInClient;
using http_engine::kLogError;
using http_engine::Transfer;

constexpr char kLogFile[] = "services/http_client_curl/client";
constexpr int kLogRefusal = 1;

// What all clients of the process have in common, beside the engine.
class InCommon {
 public:
  // Any thread. Never destroyed.
  static InCommon& Get() {
    static std::atomic<InCommon*> common{nullptr};
    return *base::FindOrMake(&common, [] { return new InCommon; });
  }

  // True once in the process.
  bool MayWarnOfPlainHttp() QUENOR_EXCLUDES(lock_) {
    base::AutoLock hold(lock_);
    return !std::exchange(warned_of_plain_http_, true);
  }
  // The last URL that any client found usable: most report to the same server, and libcurl's parser
  // takes 5 KiB of stack, which each of their threads would keep for good.
  bool IsGoodUrl(const std::string& url) QUENOR_EXCLUDES(lock_) {
    base::AutoLock hold(lock_);
    return !good_url_.empty() && good_url_ == url;
  }
  void SetGoodUrl(const std::string& url) QUENOR_EXCLUDES(lock_) {
    base::AutoLock hold(lock_);
    good_url_ = url;
  }

 private:
  InCommon() = default;

  base::Lock lock_;
  base::HeldAtFork held_{&lock_};
  bool warned_of_plain_http_ QUENOR_GUARDED_BY(lock_) = false;
  std::string good_url_ QUENOR_GUARDED_BY(lock_);
};

class HttpClientCurl final : public HttpClient {
 public:
  explicit HttpClientCurl(const Config& config)
      : config_(config),
        defaults_(HttpSets::Get().Defaults()),
        state_(std::make_shared<ClientState>()) {}
  ~HttpClientCurl() override { Engine::Get()->Close(state_.get()); }

  int64_t SendRequest(const Request& request, CompletionCallback callback) override;

 private:
  int64_t StartRequest(const Request& request, CompletionCallback callback);
  // By which settings a request goes to `url`; empty when it can be sent there, else why not and
  // what to do.
  std::string UrlProblem(const std::string& url, std::shared_ptr<const ClientSettings>* settings)
      QUENOR_EXCLUDES(lock_);

  const Config config_;
  const std::shared_ptr<const HttpSet> defaults_;  // When it was made.
  const std::shared_ptr<ClientState> state_;
  base::Lock lock_;
  // The last URL that was found usable, by which settings, and as what was set stood then.
  std::string good_url_ QUENOR_GUARDED_BY(lock_);
  std::shared_ptr<const ClientSettings> settings_ QUENOR_GUARDED_BY(lock_);
  uint64_t generation_ QUENOR_GUARDED_BY(lock_) = 0;
};

std::string HttpClientCurl::UrlProblem(const std::string& url,
                                       std::shared_ptr<const ClientSettings>* settings) {
  const uint64_t generation = HttpSets::Get().generation();
  {
    base::AutoLock hold(lock_);
    *settings = settings_;
    if (!good_url_.empty() && good_url_ == url && generation_ == generation) return std::string();
  }
  if (!InCommon::Get().IsGoodUrl(url)) {
    std::string problem = http_address::UrlProblem(url);
    if (!problem.empty()) return problem;
    InCommon::Get().SetGoodUrl(url);
  }
  const bool is_encrypted = !http_address::IsUnencrypted(url);
  std::shared_ptr<const HttpSet> set;
  if (generation != 0) set = HttpSets::Get().OfOrigin(http_address::OriginOf(url));
  if (set == nullptr) set = defaults_;
  const bool is_as_before =
      *settings != nullptr && (*settings)->set == set && (*settings)->is_encrypted == is_encrypted;
  if (!is_as_before) *settings = ClientSettings::Make(config_, std::move(set), is_encrypted);
  if (*settings == nullptr) return "out of memory; use less of it";
  if (!is_encrypted) {
    if ((*settings)->values().require_tls) {
      return "the URL is not encrypted and HttpDefaults::require_tls is set; give "
             "https://HOST[:PORT]/PATH";
    }
    const bool leaves = !(*settings)->proxy.url.empty() || !http_address::IsLoopback(url);
    if (leaves && InCommon::Get().MayWarnOfPlainHttp()) {
      LocalLog(kLogError, kLogFile, __LINE__,
               "http: requests to %s go out without encryption; give https://, and set "
               "HttpDefaults::require_tls to have others refused",
               http_address::LoggableUrl(url).c_str());
    }
  }
  base::AutoLock hold(lock_);
  good_url_ = url;
  settings_ = *settings;
  generation_ = generation;
  return std::string();
}

// `*headers`: the request's, those of its settings included; not set when it has no others than
// these. Empty, or which the host gave that cannot be sent.
std::string FindHeaders(const HttpClient::Request& request, const HttpSettings& values,
                        std::optional<http_syntax::Headers>* headers) {
  std::string problem;
  if (values.fresh_headers == nullptr && request.headers.empty()) return problem;
  http_syntax::Headers all = values.headers;
  if (values.fresh_headers != nullptr) {
    std::optional<http_syntax::Headers> fresh;
    base::EndOnException("the host's fresh_headers", [&] { fresh = values.fresh_headers(); });
    if (!fresh) return "the host's fresh_headers has none now; see why it does not";
    problem = http_syntax::HeadersProblem(*fresh);
    if (!problem.empty()) return "fresh_" + problem;
    all = http_syntax::Merged(all, *fresh);
  }
  *headers = http_syntax::Merged(all, request.headers);
  return problem;
}

int64_t HttpClientCurl::SendRequest(const Request& request, CompletionCallback callback) {
  int64_t id = 0;
  base::EndOnException(kInClient, [&] { id = StartRequest(request, std::move(callback)); });
  return id;
}

int64_t HttpClientCurl::StartRequest(const Request& request, CompletionCallback callback) {
  Engine* engine = Engine::Get();
  std::shared_ptr<const ClientSettings> settings;
  std::string problem = http_syntax::RequestProblem(request);
  if (problem.empty()) problem = UrlProblem(request.url, &settings);
  HttpCharge charge;
  if (problem.empty() && HttpSpending::IsCapped()) {
    const std::string cap = charge.Take(http_engine::ExpectedBytes(request, settings->values()));
    if (!cap.empty()) {
      if (engine->MayLog(cap)) {
        LocalLog(kLogRefusal, kLogFile, __LINE__, "http: requests are held back: %s", cap.c_str());
      }
      return 0;
    }
  }
  std::optional<http_syntax::Headers> headers;
  if (problem.empty()) problem = FindHeaders(request, settings->values(), &headers);
  if (!problem.empty()) {
    if (engine->MayLog(problem)) {
      LocalLog(kLogError, kLogFile, __LINE__, "http: cannot send: %s", problem.c_str());
    }
    return 0;
  }
  Transfer* transfer = engine->Acquire();
  if (transfer == nullptr) return 0;
  if (!transfer->Prepare(state_, settings, request, headers ? &*headers : nullptr)) {
    engine->GiveBack(transfer);
    if (engine->MayLog("options")) {
      LocalLog(kLogError, kLogFile, __LINE__,
               "http: cannot send: libcurl refused an option; free memory, or use libcurl 7.87 or "
               "newer with TLS");
    }
    return 0;
  }
  const int64_t id = NextRequestId();
  const uint32_t total_ms = settings->values().total_timeout_ms;
  transfer->request.request_id = id;
  transfer->charged_bytes = charge.Release();
  transfer->callback = std::move(callback);
  transfer->started_ms = base::MonotonicMs();
  transfer->deadline_ms =
      transfer->started_ms + (request.timeout_ms > 0 ? request.timeout_ms : total_ms);
  engine->Submit(transfer);
  return id;
}

std::unique_ptr<HttpClient> CreateClient(const HttpClient::Config& config) {
  Engine* engine = Engine::Get();
  const std::string problem = http_address::ProxyProblem(config);
  if (!problem.empty()) {
    if (engine->MayLog(problem)) {
      LocalLog(kLogError, kLogFile, __LINE__, "http: cannot make a client: %s", problem.c_str());
    }
    return nullptr;
  }
  return std::make_unique<HttpClientCurl>(config);
}

std::string* MakeImplementationName() {
  const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
  std::string text = std::string("libcurl ") + info->version + " (";
  text += info->ssl_version != nullptr ? info->ssl_version : "no TLS";
  if (info->nghttp2_version != nullptr) text += std::string(", nghttp2/") + info->nghttp2_version;
  return new std::string(text + ")");
}

// Null, and `*problem`, when they cannot be used.
std::shared_ptr<const HttpSet> MakeSet(const HttpSettings& settings, std::string* problem) {
  auto set = std::make_shared<HttpSet>();
  *problem = http_settings_check::Problem(settings, {&http_tls::IsPair, &http_tls::Decrypt},
                                          &set->identity);
  if (problem->empty() && settings.proxy_from_environment && settings.proxy.url.empty()) {
    const auto lookup = [](const char* name) -> const char* { return std::getenv(name); };
    *problem = http_proxy::ReadEnvironment(lookup, &set->environment);
  }
  if (!problem->empty()) return nullptr;
  set->settings = http_settings_check::InForce(settings);
  for (const std::string& pin : settings.pinned_public_keys) {
    set->pins += (set->pins.empty() ? "" : ";") + pin;
  }
  return set;
}

std::string CheckAndSetDefaults(const HttpDefaults& defaults) {
  std::string problem;
  auto set = MakeSet(defaults, &problem);
  if (!problem.empty()) return "http defaults: " + problem;
  HttpSets::Get().SetDefaults(std::move(set));
  return problem;
}

std::string CheckAndSetSettings(const std::string& origin, const HttpSettings& settings) {
  std::string normal;
  std::string problem = http_address::GivenOrigin(origin, &normal);
  auto set = problem.empty() ? MakeSet(settings, &problem) : nullptr;
  if (!problem.empty()) return "http settings: " + problem;
  HttpSets::Get().SetOfOrigin(normal, std::move(set));
  return problem;
}

}  // namespace

std::unique_ptr<HttpClient> HttpClientFactory::Create(const HttpClient::Config& config) {
  const Maker maker = GetMaker();
  std::unique_ptr<HttpClient> client;
  base::EndOnException(kInClient,
                       [&] { client = maker != nullptr ? maker(config) : CreateClient(config); });
  return client;
}

const char* HttpClientFactory::ImplementationName() {
  static std::atomic<std::string*> name{nullptr};
  return base::FindOrMake(&name, &MakeImplementationName)->c_str();
}

std::string SetHttpDefaults(const HttpDefaults& defaults) {
  std::string problem;
  base::EndOnException(kInClient, [&] { problem = CheckAndSetDefaults(defaults); });
  return problem;
}

HttpDefaults GetHttpDefaults() {
  HttpDefaults defaults;
  base::EndOnException(kInClient, [&] { defaults = HttpSets::Get().Defaults()->settings; });
  return defaults;
}

std::string SetHttpSettings(const std::string& origin, const HttpSettings& settings) {
  std::string problem;
  base::EndOnException(kInClient, [&] { problem = CheckAndSetSettings(origin, settings); });
  return problem;
}

bool ResetHttpSettings(const std::string& origin) {
  bool had_some = false;
  base::EndOnException(kInClient, [&] {
    std::string normal;
    had_some = http_address::GivenOrigin(origin, &normal).empty() &&
               HttpSets::Get().SetOfOrigin(normal, nullptr);
  });
  return had_some;
}

void NetworkChanged() { Engine::Get()->NetworkChanged(); }

std::string WatchNetwork(bool on) {
  std::string problem;
  base::EndOnException(kInClient, [&] { problem = Engine::Get()->WatchNetwork(on); });
  return problem;
}

QUENOR_NAMESPACE_END
