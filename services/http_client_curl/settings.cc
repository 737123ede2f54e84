#include "services/http_client_curl/settings.h"

#include <utility>

#include "services/http_client_curl/address.h"
#include "services/http_client_curl/easy_options.h"
#include "services/http_client_curl/rules/connect_to.h"

QUENOR_NAMESPACE_BEGIN
namespace {

int64_t NextSerial() {
  static std::atomic<int64_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;  // relaxed: only uniqueness matters.
}

}  // namespace

HttpSets& HttpSets::Get() {
  static std::atomic<HttpSets*> sets{nullptr};
  return *base::FindOrMake(&sets, [] { return new HttpSets; });
}

HttpSets::HttpSets() {
  auto built_in = std::make_shared<HttpSet>();
  built_in->settings = http_settings_check::InForce(HttpSettings());
  defaults_ = std::move(built_in);
}

std::shared_ptr<const HttpSet> HttpSets::Defaults() {
  base::AutoLock hold(lock_);
  return defaults_;
}

// What is replaced goes without the lock: it may hold functions of the host's.
void HttpSets::SetDefaults(std::shared_ptr<const HttpSet> set) {
  base::AutoLock hold(lock_);
  if (!(*defaults_ == *set)) defaults_.swap(set);
}

std::shared_ptr<const HttpSet> HttpSets::OfOrigin(const std::string& origin) {
  base::AutoLock hold(lock_);
  const auto found = of_origins_.find(origin);
  return found == of_origins_.end() ? nullptr : found->second;
}

bool HttpSets::SetOfOrigin(const std::string& origin, std::shared_ptr<const HttpSet> set) {
  base::AutoLock hold(lock_);
  std::shared_ptr<const HttpSet>& place = of_origins_[origin];
  if (place != nullptr && set != nullptr && *place == *set) return true;
  place.swap(set);
  if (place == nullptr) of_origins_.erase(origin);
  generation_.fetch_add(1, std::memory_order_release);
  return set != nullptr;
}

std::shared_ptr<const ClientSettings> ClientSettings::Make(const HttpClient::Config& config,
                                                           std::shared_ptr<const HttpSet> set,
                                                           bool is_encrypted) {
  std::shared_ptr<ClientSettings> made(new ClientSettings);
  if (config.use_socks5) {
    made->proxy.url = http_address::ProxyUrl(config);
    made->proxy.user = config.socks5_user;
    made->proxy.password = config.socks5_password;
  } else {
    const HttpProxy& given = set->settings.proxy;
    made->proxy = given.url.empty() ? set->environment.For(is_encrypted) : given;
    made->proxy.url = http_proxy::AsciiUrl(made->proxy);
    made->proxy_exceptions = http_proxy::Exceptions(made->proxy);
  }
  made->http2 = config.enable_http2 && HasHttp2();
  made->is_encrypted = is_encrypted;
  made->serial = NextSerial();
  const HttpSettings& values = set->settings;
  if (!BuildHeaders(values.headers, true, &made->body_headers) ||
      !BuildHeaders(values.headers, false, &made->plain_headers)) {
    return nullptr;
  }
  for (const std::string& entry : values.connect_to) {
    std::string text;
    if (!http_names::ConnectTo(entry, &text).empty()) continue;  // It would not have been set.
    if (!AppendText(text, &made->connect_to)) return nullptr;
  }
  made->set = std::move(set);
  return made;
}

ClientSettings::~ClientSettings() {
  curl_slist_free_all(body_headers);
  curl_slist_free_all(plain_headers);
  curl_slist_free_all(connect_to);
}

QUENOR_NAMESPACE_END
