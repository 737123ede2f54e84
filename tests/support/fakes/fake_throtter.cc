// Throtter on virtual time. Without a VirtualTime its clock stands at 0.
#include <mutex>

#include "quenor_base/platform/throtter.h"
#include "tests/support/fakes/virtual_time.h"

QUENOR_NAMESPACE_BEGIN

struct Throtter::State {
  std::mutex mutex;
  const int64_t period_us;
  bool has_gone = false;
  int64_t last_us = 0;

  explicit State(uint32_t period_ms) : period_us(int64_t{period_ms} * 1000) {}
};

Throtter::Throtter(uint32_t period_ms) : state_(new State(period_ms)) {}

Throtter::~Throtter() { delete state_; }

bool Throtter::ShouldGo() {
  const test::VirtualTime* const time = test::VirtualTime::Current();
  const int64_t now_us = time == nullptr ? 0 : time->NowUs();
  std::lock_guard<std::mutex> hold(state_->mutex);
  if (state_->has_gone && now_us - state_->last_us < state_->period_us) return false;
  state_->has_gone = true;
  state_->last_us = now_us;
  return true;
}

const char* Throtter::ImplementationName() { return "virtual"; }

QUENOR_NAMESPACE_END
