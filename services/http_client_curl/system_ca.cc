#include "services/http_client_curl/system_ca.h"

#include <atomic>
#include <utility>

#include "quenor_base/platform/local_log.h"
#include "services/http_client_curl/engine.h"

QUENOR_NAMESPACE_BEGIN

SystemCa& SystemCa::Get() {
  static std::atomic<SystemCa*> ca{nullptr};
  return *base::FindOrMake(&ca, [] { return new SystemCa; });
}

void SystemCa::SetRoot(const std::string& root) {
  base::AutoLock hold(lock_);
  root_ = root;
  is_missed_ = false;
  is_current_ = false;
}

const http_system_store::Store* SystemCa::Find(const char* bundle, const char* folder) {
  {
    base::AutoLock hold(lock_);
    if (is_current_ &&
        (!stores_.back().pem.empty() || http_system_store::IsBundle(stores_.back().bundle))) {
      return &stores_.back();
    }
    http_system_store::Store found{root_ + (bundle != nullptr ? bundle : ""), std::string()};
    const bool is_libcurls = bundle != nullptr && http_system_store::IsBundle(found.bundle);
    if (!is_libcurls) found = http_system_store::Find(root_);
    is_current_ = found.is_found();
    if (is_current_) {
      stores_.push_back(std::move(found));
      return &stores_.back();
    }
    const bool has_folder = folder != nullptr && http_system_store::IsHashedFolder(root_ + folder);
    if (has_folder || std::exchange(is_missed_, true)) return nullptr;
  }
  LocalLog(http_engine::kLogError, "services/http_client_curl/system_ca", __LINE__,
           "http: this system's CA certificates are in none of the places known; install them "
           "(ca-certificates), or set HttpDefaults::ca_file or ca_pem");
  return nullptr;
}

QUENOR_NAMESPACE_END
