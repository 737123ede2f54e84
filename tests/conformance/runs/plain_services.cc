// The plainest services that keep their contracts: JSON, configuration, events and proxy. The
// suites that accept them accept more than our defaults; whoever writes a service may begin with
// one.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "fuzzers/plain_json.h"
#include "quenor_base/platform/base/json_reader.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/socks5_proxy_config.h"

QUENOR_NAMESPACE_BEGIN

// --- JSON ----------------------------------------------------------------------------------------

namespace base {

struct Value::Rep : fuzz::PlainDocument {};

Value::Type Value::type() const { return rep_->value.type; }

const std::string* Value::FindStringKey(std::string_view key) const {
  const auto found = rep_->members.find(std::string(key));
  if (found == rep_->members.end() || found->second.type != Type::kString) return nullptr;
  return &found->second.string;
}

Optional<int> Value::FindIntKey(std::string_view key) const {
  const auto found = rep_->members.find(std::string(key));
  if (found == rep_->members.end() || found->second.type != Type::kInteger) return nullopt;
  return found->second.integer;
}

Optional<Value> JSONReader::Read(std::string_view text, int options, int max_depth) {
  if (options != 0) LocalLog(2, __FILE__, __LINE__, "json: options %d are unknown", options);
  auto* const rep = new Value::Rep;
  Value value({rep, [](Value::Rep* old) { delete old; }});
  if (options != 0 || max_depth < 0 || !fuzz::ReadPlainJson(std::string(text), max_depth, rep))
    return nullopt;
  return value;
}

const char* JSONReader::ImplementationName() { return "plain"; }

}  // namespace base

// --- Configuration -------------------------------------------------------------------------------

namespace config {

struct ConfigCenterImpl::State {
  std::mutex mutex;
  std::map<std::string, uint64_t> overrides;
  std::set<std::string> complained;
};

const BaseConfigKeys& BaseCfg() {
  static const auto* const keys =
      new BaseConfigKeys{"quenor.report.cache_option", "quenor.report.cache_durability"};
  return *keys;
}

ConfigCenterImpl* ConfigCenterImpl::GetInstance() {
  static auto* const center = new ConfigCenterImpl(new State);
  return center;
}

base::Optional<uint64_t> ConfigCenterImpl::GetValueWithPriority(
    const std::string& key, base::Optional<uint64_t> default_value) {
  std::unique_lock<std::mutex> hold(state_->mutex);
  const auto found = state_->overrides.find(key);
  if (found != state_->overrides.end()) return found->second;
  std::string name = key;
  for (char& c : name) c = c == '.' ? '_' : c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
  const char* const text = std::getenv(name.c_str());
  if (text == nullptr) return default_value;
  errno = 0;
  const uint64_t value = std::strtoull(text, nullptr, 10);
  const std::string digits = text;
  const bool is_number = digits.find_first_not_of("0123456789") == std::string::npos;
  if (!digits.empty() && is_number && errno == 0) return value;
  const bool is_first = state_->complained.insert(key).second;
  hold.unlock();
  if (is_first) LocalLog(2, __FILE__, __LINE__, "%s=%s is no number", name.c_str(), text);
  return default_value;
}

void ConfigCenterImpl::SetHostOverride(const std::string& key, base::Optional<uint64_t> value) {
  std::lock_guard<std::mutex> hold(state_->mutex);
  state_->overrides.erase(key);
  if (value) state_->overrides[key] = *value;
}

const char* ConfigCenterImpl::ImplementationName() { return "plain"; }

}  // namespace config

// --- Events --------------------------------------------------------------------------------------

namespace {

// Read while listeners are called, written to change them; who writes goes before who reads.
pthread_rwlock_t in_call = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
ReportEventListener* host_listener = nullptr;  // Guarded by `in_call`, like the others.
std::vector<ReportEventListener*> more_listeners;
thread_local bool is_inside = false;  // This thread holds `in_call`.

template <typename Change>
bool ChangeListeners(const char* operation, std::atomic<bool>* has_listener, Change change) {
  if (is_inside) {
    LocalLog(2, __FILE__, __LINE__, "%s is called by the listener", operation);
    return false;
  }
  pthread_rwlock_wrlock(&in_call);
  const bool done = change();
  *has_listener = host_listener != nullptr || !more_listeners.empty();
  pthread_rwlock_unlock(&in_call);
  return done;
}

void TellAll(const ReportEvent& event) {
  if (host_listener != nullptr) host_listener->OnReportEvent(event);
  for (ReportEventListener* const listener : more_listeners) listener->OnReportEvent(event);
}

}  // namespace

void ReportEvents::SetListener(ReportEventListener* listener) {
  ChangeListeners("SetListener", &has_listener_, [&] {
    host_listener = listener;
    return true;
  });
}

bool ReportEvents::AddListener(ReportEventListener* listener, uint64_t* newest_before) {
  auto& all = more_listeners;
  const auto is_there = [&] { return std::find(all.begin(), all.end(), listener) != all.end(); };
  if (!is_inside) {
    pthread_rwlock_rdlock(&in_call);
    const bool is_done = is_there();
    pthread_rwlock_unlock(&in_call);
    if (is_done) return true;
  }
  return ChangeListeners("AddListener", &has_listener_, [&] {
    if (listener == nullptr || is_there() || all.size() == kMostListeners) return is_there();
    all.push_back(listener);
    if (newest_before != nullptr) *newest_before = NewestMessage();
    return true;
  });
}

void ReportEvents::RemoveListener(ReportEventListener* listener) {
  ChangeListeners("RemoveListener", &has_listener_, [&] {
    auto& all = more_listeners;
    all.erase(std::remove(all.begin(), all.end(), listener), all.end());
    return true;
  });
}

void ReportEvents::Tell(const ReportEvent& event) {
  if (is_inside) return TellAll(event);
  pthread_rwlock_rdlock(&in_call);
  is_inside = true;
  TellAll(event);
  is_inside = false;
  pthread_rwlock_unlock(&in_call);
}

const char* ReportEvents::ImplementationName() { return "plain"; }

// --- Proxy ---------------------------------------------------------------------------------------

struct Socks5ProxyConfigHolder::State {
  std::mutex mutex;
  Socks5ProxyConfig config;
};

Socks5ProxyConfigHolder::Socks5ProxyConfig Socks5ProxyConfigHolder::GetConfig() const {
  std::lock_guard<std::mutex> hold(state_->mutex);
  return state_->config;
}

void Socks5ProxyConfigHolder::SetConfig(const Socks5ProxyConfig& config) {
  std::lock_guard<std::mutex> hold(state_->mutex);
  state_->config = config;
}

const char* Socks5ProxyConfigHolder::ImplementationName() { return "plain"; }

Socks5ProxyConfigHolder* GetSocks5ProxyConfigHolder() {
  static auto* const holder = new Socks5ProxyConfigHolder(new Socks5ProxyConfigHolder::State);
  return holder;
}

QUENOR_NAMESPACE_END
