// The process-wide SOCKS5 proxy settings, behind one lock. Any thread. Never destroyed.
#include <atomic>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/exception_barrier.h"
#include "quenor_base/platform/socks5_proxy_config.h"

QUENOR_NAMESPACE_BEGIN

struct Socks5ProxyConfigHolder::State {
  base::Lock lock;
  const base::HeldAtFork held_at_fork{&lock};
  Socks5ProxyConfig config QUENOR_GUARDED_BY(lock);
};

Socks5ProxyConfigHolder::Socks5ProxyConfig Socks5ProxyConfigHolder::GetConfig() const {
  Socks5ProxyConfig copy;
  base::EndOnException("quenor's proxy configuration", [&] {
    base::AutoLock hold(state_->lock);
    copy = state_->config;
  });
  return copy;
}

void Socks5ProxyConfigHolder::SetConfig(const Socks5ProxyConfig& config) {
  Socks5ProxyConfig copy = config;
  base::AutoLock hold(state_->lock);
  std::swap(state_->config, copy);
}

const char* Socks5ProxyConfigHolder::ImplementationName() { return "std"; }

Socks5ProxyConfigHolder* GetSocks5ProxyConfigHolder() {
  struct Made {
    Socks5ProxyConfigHolder::State state;
    Socks5ProxyConfigHolder holder{&state};
  };
  static std::atomic<Made*> made{nullptr};
  return &base::FindOrMake(&made, [] { return new Made; })->holder;
}

QUENOR_NAMESPACE_END
