// Throtter over the monotonic clock: one atomic word, no lock.
#include <atomic>
#include <limits>

#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/throtter.h"

QUENOR_NAMESPACE_BEGIN
namespace {

// No call has been let through yet. A reading of its own, not 0: the clock counts from the start of
// the machine on many systems, and a process may start within a period of that.
constexpr int64_t kNever = std::numeric_limits<int64_t>::min();

}  // namespace

struct Throtter::State {
  explicit State(uint32_t period_ms) : period_ns(int64_t{period_ms} * 1000000) {}

  const int64_t period_ns;
  // When a call was last let through. relaxed throughout: no other memory depends on it.
  std::atomic<int64_t> last_go_ns{kNever};
};

Throtter::Throtter(uint32_t period_ms) : state_(new State(period_ms)) {}

Throtter::~Throtter() { delete state_; }

bool Throtter::ShouldGo() {
  if (state_->period_ns == 0) return true;
  const int64_t now_ns = base::MonotonicNs();
  int64_t last_ns = state_->last_go_ns.load(std::memory_order_relaxed);
  // A failed exchange means that another thread was let through meanwhile; `last_ns` is its time.
  while (last_ns == kNever || now_ns - last_ns >= state_->period_ns) {
    if (state_->last_go_ns.compare_exchange_weak(last_ns, now_ns, std::memory_order_relaxed)) {
      return true;
    }
  }
  return false;
}

const char* Throtter::ImplementationName() { return "std"; }

QUENOR_NAMESPACE_END
