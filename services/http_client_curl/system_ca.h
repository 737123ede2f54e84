// Where the system's certificates are, as last found. Internal to the HTTP client. Threads: any.
#ifndef SERVICES_HTTP_CLIENT_CURL_SYSTEM_CA_H_
#define SERVICES_HTTP_CLIENT_CURL_SYSTEM_CA_H_

#include <deque>
#include <string>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "services/http_client_curl/rules/system_store.h"

QUENOR_NAMESPACE_BEGIN

class SystemCa {
 public:
  // Never destroyed.
  static SystemCa& Get();

  // Everything is looked for below this folder, libcurl's own places included. Empty but in tests.
  void SetRoot(const std::string& root) QUENOR_EXCLUDES(lock_);

  // `bundle`, `folder`: libcurl's own places, null where it has none. Null: nowhere but, maybe, in
  // that folder. Looks again only when a bundle has gone. What it answers stays for good.
  const http_system_store::Store* Find(const char* bundle, const char* folder)
      QUENOR_EXCLUDES(lock_);

 private:
  SystemCa() = default;

  base::Lock lock_;
  base::HeldAtFork held_{&lock_};
  std::string root_ QUENOR_GUARDED_BY(lock_);
  // The last holds if it is current; those before stay, as handles borrow their text.
  std::deque<http_system_store::Store> stores_ QUENOR_GUARDED_BY(lock_);
  bool is_current_ QUENOR_GUARDED_BY(lock_) = false;
  bool is_missed_ QUENOR_GUARDED_BY(lock_) = false;  // And said so.
};

QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_SYSTEM_CA_H_
