// Report events over std::shared_mutex: many tell at once, a change of listener waits for them.
#include <atomic>
#include <mutex>
#include <shared_mutex>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/exception_barrier.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/report_events.h"

QUENOR_NAMESPACE_BEGIN
namespace {

struct State {
  explicit State(State* parents)
      : listener(parents != nullptr ? parents->listener.load() : nullptr) {}

  std::shared_mutex in_call;  // Shared while the listener is called, exclusive to replace it.
  // Borrowed; may be null; guarded by `in_call`. Atomic for a child that is forked meanwhile.
  std::atomic<ReportEventListener*> listener;
  // A listener that is told of one event after another would keep a change waiting for ever,
  // because the shared mutex lets readers pass a waiting writer. So a change shuts this gate first;
  // only those already inside go on.
  std::mutex gate;
  std::atomic<bool> gate_shut{false};
};

State& GetState() {
  static base::OnePerProcess<State> state;
  return state.Get();
}

// Set while this thread is inside the listener and so holds `in_call`. A listener that calls the
// channel is told of that on the same thread; taking `in_call` again there would deadlock with a
// change of listener that waits in between.
thread_local bool in_listener = false;

void Call(ReportEventListener* listener, const ReportEvent& event) {
  base::EndOnException("the host's report event listener", [&] { listener->OnReportEvent(event); });
}

}  // namespace

void ReportEvents::SetListener(ReportEventListener* listener) {
  if (in_listener) {
    LocalLog(2, "services/report_events_std", __LINE__,
             "report_events: SetListener is ignored: it was called by the listener, which it would "
             "have to wait for; call it from outside OnReportEvent");
    return;
  }
  State& state = GetState();
  std::lock_guard<std::mutex> shut(state.gate);
  // relaxed, both: only a hint to queue up at the gate; `in_call` orders the listener itself.
  state.gate_shut.store(true, std::memory_order_relaxed);
  {
    std::unique_lock<std::shared_mutex> alone(state.in_call);
    state.listener = listener;
    // relaxed: pairs with the hint in HasListener().
    has_listener_.store(listener != nullptr, std::memory_order_relaxed);
  }
  state.gate_shut.store(false, std::memory_order_relaxed);
}

void ReportEvents::Tell(const ReportEvent& event) {
  State& state = GetState();
  if (in_listener) {
    Call(state.listener.load(), event);
    return;
  }
  // relaxed: see SetListener.
  if (state.gate_shut.load(std::memory_order_relaxed)) {
    std::lock_guard<std::mutex> wait(state.gate);
  }
  std::shared_lock<std::shared_mutex> inside(state.in_call);
  ReportEventListener* const listener = state.listener.load();
  if (listener == nullptr) return;
  in_listener = true;
  Call(listener, event);
  in_listener = false;
}

const char* ReportEvents::ImplementationName() { return "std"; }

QUENOR_NAMESPACE_END
