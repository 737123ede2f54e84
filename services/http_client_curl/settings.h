// What was set, for the process and for origins, and what follows from it for the requests of a
// client. Internal to the HTTP client on libcurl. Threads: any. See docs/design/http-client.md.
#ifndef SERVICES_HTTP_CLIENT_CURL_SETTINGS_H_
#define SERVICES_HTTP_CLIENT_CURL_SETTINGS_H_

#include <curl/curl.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/thread_annotations.h"
#include "quenor_base/platform/http_client.h"
#include "services/http_client_curl/rules/lines.h"
#include "services/http_client_curl/rules/proxy.h"
#include "services/http_client_curl/rules/settings_check.h"

QUENOR_NAMESPACE_BEGIN

// What one call has set: checked, and with what its files held then. It never changes; whoever
// sends by it keeps it, and the connections that were made by it go with the last of those.
struct HttpSet {
  HttpSettings settings;  // In force: no value stands for another.
  ClientIdentity identity;
  http_proxy::OfEnvironment environment;  // Where the host has asked for its proxies.
  std::string pins;                       // As CURLOPT_PINNEDPUBLICKEY wants them.

  // As far as is known before a connection is made.
  bool operator==(const HttpSet& other) const {
    return settings == other.settings && environment == other.environment &&
           identity.certificate == other.identity.certificate && identity.key == other.identity.key;
  }
};

// The sets of the process.
class HttpSets {
 public:
  // Never destroyed.
  static HttpSets& Get();

  // Never null. What is set to what it is already stays the set that it is.
  std::shared_ptr<const HttpSet> Defaults() QUENOR_EXCLUDES(lock_);
  void SetDefaults(std::shared_ptr<const HttpSet> set) QUENOR_EXCLUDES(lock_);
  // Of a normalised origin; null: it has none of its own.
  std::shared_ptr<const HttpSet> OfOrigin(const std::string& origin) QUENOR_EXCLUDES(lock_);
  // A null one takes it away. False: there was none.
  bool SetOfOrigin(const std::string& origin, std::shared_ptr<const HttpSet> set)
      QUENOR_EXCLUDES(lock_);

  // 0 until an origin has had a set of its own; another number whenever one of those changes.
  // acquire and release: who sees the number finds what was set before it.
  uint64_t generation() const { return generation_.load(std::memory_order_acquire); }

 private:
  HttpSets();

  base::Lock lock_;
  base::HeldAtFork held_{&lock_};
  std::shared_ptr<const HttpSet> defaults_ QUENOR_GUARDED_BY(lock_);
  std::map<std::string, std::shared_ptr<const HttpSet>> of_origins_ QUENOR_GUARDED_BY(lock_);
  std::atomic<uint64_t> generation_{0};
};

// What a client's requests share with it; it lives as long as the last of them.
struct ClientState {
  // Guarded by the engine's lock: where requests went, and in which lines they are.
  const void* used_io = nullptr;
  http_lines::ClientLines lines;
  // release in the destructor of the client, acquire on the I/O thread: what the owner did before
  // is seen by the callbacks.
  std::atomic<bool> closed{false};
};

// What a client's configuration and a set come to, for URLs of one scheme. It never changes.
struct ClientSettings {
  // Null without memory.
  static std::shared_ptr<const ClientSettings> Make(const HttpClient::Config& config,
                                                    std::shared_ptr<const HttpSet> set,
                                                    bool is_encrypted);
  ~ClientSettings();
  ClientSettings(const ClientSettings&) = delete;
  ClientSettings& operator=(const ClientSettings&) = delete;

  const HttpSettings& values() const { return set->settings; }

  std::shared_ptr<const HttpSet> set;
  HttpProxy proxy;  // As libcurl wants it: "socks5h://HOST:PORT", ...; without a URL: none.
  std::string proxy_exceptions;
  bool http2 = false;  // Offered, and libcurl has it.
  bool is_encrypted = true;
  int64_t serial = 0;  // Tells settings apart for ever, as an address cannot.
  // Of a request with a body, or without, that has no headers of its own.
  curl_slist* body_headers = nullptr;
  curl_slist* plain_headers = nullptr;
  curl_slist* connect_to = nullptr;

 private:
  ClientSettings() = default;
};

QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_SETTINGS_H_
