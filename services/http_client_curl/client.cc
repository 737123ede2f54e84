// HttpClient on libcurl: the clients, how they are made, and what the host sets for all of them. A
// client's own thread judges and prepares a request; the engine's I/O thread does the rest.
// See docs/design/http-client.md.
#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/exception_barrier.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/local_log.h"
#include "services/http_client_curl/address.h"
#include "services/http_client_curl/easy_options.h"
#include "services/http_client_curl/engine.h"
#include "services/http_client_curl/rules/defaults_check.h"
#include "services/http_client_curl/rules/syntax.h"
#include "services/http_client_curl/tls_openssl.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using http_engine::Engine;
using http_engine::kInClient;
using http_engine::kLogError;
using http_engine::Transfer;

constexpr char kLogFile[] = "services/http_client_curl/client";

// What all clients of the process have in common, beside the engine.
class InCommon {
 public:
  // Any thread. Never destroyed.
  static InCommon& Get() {
    static std::atomic<InCommon*> common{nullptr};
    return *base::FindOrMake(&common, [] { return new InCommon; });
  }

  // `identity` may be null.
  HttpDefaults GetDefaults(std::shared_ptr<const ClientIdentity>* identity) QUENOR_EXCLUDES(lock_) {
    base::AutoLock hold(lock_);
    if (identity != nullptr) *identity = identity_;
    return defaults_;
  }
  void SetDefaults(HttpDefaults defaults, std::shared_ptr<const ClientIdentity> identity)
      QUENOR_EXCLUDES(lock_) {
    base::AutoLock hold(lock_);
    std::swap(defaults_, defaults);
    std::swap(identity_, identity);
  }
  // True once in the process.
  bool MayWarnOfPlainHttp() QUENOR_EXCLUDES(lock_) {
    base::AutoLock hold(lock_);
    return !std::exchange(warned_of_plain_http_, true);
  }
  int64_t NextSerial() QUENOR_EXCLUDES(lock_) {
    base::AutoLock hold(lock_);
    return ++last_serial_;
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
  HttpDefaults defaults_ QUENOR_GUARDED_BY(lock_);
  std::shared_ptr<const ClientIdentity> identity_ QUENOR_GUARDED_BY(lock_) =
      std::make_shared<const ClientIdentity>();
  bool warned_of_plain_http_ QUENOR_GUARDED_BY(lock_) = false;
  int64_t last_serial_ QUENOR_GUARDED_BY(lock_) = 0;
  std::string good_url_ QUENOR_GUARDED_BY(lock_);
};

class HttpClientCurl final : public HttpClient {
 public:
  explicit HttpClientCurl(std::shared_ptr<ClientSettings> settings)
      : settings_(std::move(settings)) {}
  ~HttpClientCurl() override { Engine::Get()->Close(settings_.get()); }

  int64_t SendRequest(const Request& request, CompletionCallback callback) override;

 private:
  int64_t StartRequest(const Request& request, CompletionCallback callback);
  // Empty when a request can be sent there, else why not and what to do.
  std::string UrlProblem(const std::string& url) QUENOR_EXCLUDES(lock_);

  const std::shared_ptr<ClientSettings> settings_;
  base::Lock lock_;
  std::string good_url_ QUENOR_GUARDED_BY(lock_);  // The last one that was found usable.
};

std::string HttpClientCurl::UrlProblem(const std::string& url) {
  {
    base::AutoLock hold(lock_);
    if (!good_url_.empty() && good_url_ == url) return std::string();
  }
  if (!InCommon::Get().IsGoodUrl(url)) {
    std::string problem = http_address::UrlProblem(url);
    if (!problem.empty()) return problem;
    InCommon::Get().SetGoodUrl(url);
  }
  if (http_address::IsUnencrypted(url)) {
    if (settings_->defaults.require_tls) {
      return "the URL is not encrypted and HttpDefaults::require_tls is set; give "
             "https://HOST[:PORT]/PATH";
    }
    const bool leaves = !settings_->proxy.empty() || !http_address::IsLoopback(url);
    if (leaves && InCommon::Get().MayWarnOfPlainHttp()) {
      LocalLog(kLogError, kLogFile, __LINE__,
               "http: requests to %s go out without encryption; give https://, and set "
               "HttpDefaults::require_tls to have others refused",
               http_address::LoggableUrl(url).c_str());
    }
  }
  base::AutoLock hold(lock_);
  good_url_ = url;
  return std::string();
}

int64_t HttpClientCurl::SendRequest(const Request& request, CompletionCallback callback) {
  int64_t id = 0;
  base::EndOnException(kInClient, [&] { id = StartRequest(request, std::move(callback)); });
  return id;
}

int64_t HttpClientCurl::StartRequest(const Request& request, CompletionCallback callback) {
  Engine* engine = Engine::Get();
  std::string problem = http_syntax::RequestProblem(request);
  if (problem.empty()) problem = UrlProblem(request.url);
  if (!problem.empty()) {
    if (engine->MayLog(problem)) {
      LocalLog(kLogError, kLogFile, __LINE__, "http: cannot send: %s", problem.c_str());
    }
    return 0;
  }
  Transfer* transfer = engine->Acquire();
  if (transfer == nullptr) return 0;
  if (!transfer->Prepare(settings_, request)) {
    engine->GiveBack(transfer);
    if (engine->MayLog("options")) {
      LocalLog(kLogError, kLogFile, __LINE__,
               "http: cannot send: libcurl refused an option; free memory, or use libcurl 7.87 or "
               "newer with TLS");
    }
    return 0;
  }
  const int64_t id = NextRequestId();
  const uint32_t total_ms = settings_->defaults.total_timeout_ms;
  transfer->request.request_id = id;
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
  std::shared_ptr<const ClientIdentity> identity;
  HttpDefaults defaults = http_defaults::InForce(InCommon::Get().GetDefaults(&identity));
  auto settings = std::make_shared<ClientSettings>(config, std::move(defaults));
  settings->identity = std::move(identity);
  settings->serial = InCommon::Get().NextSerial();
  settings->proxy = http_address::ProxyUrl(config);
  settings->http2 = config.enable_http2 && HasHttp2();
  for (const std::string& pin : settings->defaults.pinned_public_keys) {
    settings->pins += (settings->pins.empty() ? "" : ";") + pin;
  }
  if (!BuildHeaders({}, true, &settings->body_headers)) return nullptr;
  return std::make_unique<HttpClientCurl>(std::move(settings));
}

std::string* MakeImplementationName() {
  const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
  std::string text = std::string("libcurl ") + info->version + " (";
  text += info->ssl_version != nullptr ? info->ssl_version : "no TLS";
  if (info->nghttp2_version != nullptr) text += std::string(", nghttp2/") + info->nghttp2_version;
  return new std::string(text + ")");
}

std::string CheckAndSetDefaults(const HttpDefaults& defaults) {
  auto identity = std::make_shared<ClientIdentity>();
  std::string problem = http_defaults::Problem(defaults, &http_tls::IsPair, identity.get());
  if (problem.empty()) {
    InCommon::Get().SetDefaults(http_defaults::InForce(defaults), std::move(identity));
  }
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
  const auto get = [&] { defaults = http_defaults::InForce(InCommon::Get().GetDefaults(nullptr)); };
  base::EndOnException(kInClient, get);
  return defaults;
}

QUENOR_NAMESPACE_END
