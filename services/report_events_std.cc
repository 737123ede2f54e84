// Report events over std::shared_mutex: many tell at once, a change of listener waits for them.
#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <utility>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/exception_barrier.h"
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/report_events.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using Slots = std::array<std::atomic<ReportEventListener*>, 1 + ReportEvents::kMostListeners>;

struct State {
  explicit State(State* parents) {
    for (size_t i = 0; parents != nullptr && i < slots.size(); ++i) {
      slots[i] = parents->slots[i].load();
    }
  }

  std::shared_mutex in_call;  // Shared while listeners are called, exclusive to change them.
  // Borrowed; null where there is none; guarded by `in_call`. The first is SetListener()'s. Atomic
  // for a child that is forked meanwhile.
  Slots slots{};
  // Listeners that are told of one event after another would keep a change waiting for ever,
  // because the shared mutex lets readers pass a waiting writer. So a change shuts this gate first;
  // only those already inside go on.
  std::mutex gate;
  std::atomic<bool> gate_shut{false};
};

State& GetState() {
  static base::OnePerProcess<State> state;
  return state.Get();
}

// Whose `in_call` this thread holds, as it is inside a listener. A listener that calls the channel
// is told of that on the same thread; taking `in_call` again there would deadlock with a change of
// listeners that waits in between. A child that a listener forks is inside its parent's, not its
// own.
thread_local const State* inside = nullptr;

void TellAll(State& state, const ReportEvent& event) {
  for (const std::atomic<ReportEventListener*>& slot : state.slots) {
    ReportEventListener* const listener = slot.load();
    if (listener == nullptr) continue;
    base::EndOnException("the host's report event listener",
                         [&] { listener->OnReportEvent(event); });
  }
}

// Runs `change` while no listener is being called. False inside a listener, where nothing is done.
template <typename Change>
bool ChangeAlone(const char* operation, Change change) {
  State& state = GetState();
  if (inside == &state) {
    LocalLog(2, "services/report_events_std", __LINE__,
             "report_events: %s is ignored: it was called by the listener, which it would "
             "have to wait for; call it from outside OnReportEvent",
             operation);
    return false;
  }
  std::lock_guard<std::mutex> shut(state.gate);
  // relaxed, both: only a hint to queue up at the gate; `in_call` orders the listeners themselves.
  state.gate_shut.store(true, std::memory_order_relaxed);
  {
    std::unique_lock<std::shared_mutex> alone(state.in_call);
    change(state.slots);
  }
  state.gate_shut.store(false, std::memory_order_relaxed);
  return true;
}

// Puts `fresh` where `old` is, behind the first slot. False when it is nowhere.
bool Replace(Slots& slots, ReportEventListener* old, ReportEventListener* fresh) {
  const auto found = std::find(slots.begin() + 1, slots.end(), old);
  if (found == slots.end()) return false;
  *found = fresh;
  return true;
}

bool IsIn(const Slots& slots, ReportEventListener* listener) {
  return std::find(slots.begin() + 1, slots.end(), listener) != slots.end();
}

bool AreAny(const Slots& slots) {
  return std::any_of(slots.begin(), slots.end(),
                     [](const auto& slot) { return slot.load() != nullptr; });
}

}  // namespace

void ReportEvents::SetListener(ReportEventListener* listener) {
  ChangeAlone("SetListener", [listener](Slots& slots) {
    slots[0] = listener;
    // relaxed: pairs with the hint in HasListener().
    has_listener_.store(AreAny(slots), std::memory_order_relaxed);
  });
}

bool ReportEvents::AddListener(ReportEventListener* listener, uint64_t* newest_before) {
  const State& state = GetState();
  // No change, and so nobody who calls or is called is waited for.
  if (listener != nullptr && inside != &state && IsIn(state.slots, listener)) return true;
  bool is_there = false;
  ChangeAlone("AddListener", [&](Slots& slots) {
    if (listener == nullptr) return;
    const bool is_new = !IsIn(slots, listener);
    is_there = !is_new || Replace(slots, nullptr, listener);
    // A message of a higher id is told of behind this change, as its id is given before.
    if (is_new && is_there && newest_before != nullptr) *newest_before = NewestMessage();
    has_listener_.store(AreAny(slots), std::memory_order_relaxed);
  });
  return is_there;
}

void ReportEvents::RemoveListener(ReportEventListener* listener) {
  ChangeAlone("RemoveListener", [listener](Slots& slots) {
    if (listener != nullptr) Replace(slots, listener, nullptr);
    has_listener_.store(AreAny(slots), std::memory_order_relaxed);
  });
}

void ReportEvents::Tell(const ReportEvent& event) {
  State& state = GetState();
  if (inside == &state) return TellAll(state, event);
  // relaxed: see ChangeAlone().
  if (state.gate_shut.load(std::memory_order_relaxed)) {
    std::lock_guard<std::mutex> wait(state.gate);
  }
  std::shared_lock<std::shared_mutex> hold(state.in_call);
  const State* const outer = std::exchange(inside, &state);
  TellAll(state, event);
  inside = outer;
}

const char* ReportEvents::ImplementationName() { return "std"; }

QUENOR_NAMESPACE_END
