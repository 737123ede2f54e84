// The simulator's clock on the tests' virtual time: the same events, by another engine.
#include <map>
#include <utility>

#include "fleet/engine/clock.h"
#include "quenor_base/platform/base/check.h"
#include "tests/support/fakes/virtual_time.h"

namespace quenor::fleet {
namespace {

Clock* g_current = nullptr;

}  // namespace

struct Clock::State {
  test::VirtualTime time;
  std::map<Event*, uint64_t> posts;  // Which post of each waits; another has been cancelled.
  uint64_t last_post = 0;
  uint64_t events_run = 0;

  // An event that waits has itself as its next one.
  static void SetWaits(Event* event, bool waits) { event->next_ = waits ? event : nullptr; }

  void Run(Event* event, uint64_t post) {
    const auto found = posts.find(event);
    if (found == posts.end() || found->second != post) return;
    posts.erase(found);
    SetWaits(event, false);
    ++events_run;
    event->OnDue();
  }
};

Clock::Clock() : state_(new State) { g_current = this; }

Clock::~Clock() {
  while (!state_->posts.empty()) {
    Event* const event = state_->posts.begin()->first;
    Cancel(event);
    event->OnNever();
  }
  delete state_;
  g_current = nullptr;
}

Clock& Clock::Current() { return *g_current; }

int64_t Clock::now_us() const { return state_->time.NowUs(); }

uint64_t Clock::events_run() const { return state_->events_run; }

void Clock::Post(Event* event, int64_t delay_us) {
  QUENOR_CHECK(!event->waits(), "an event is posted twice");
  State::SetWaits(event, true);
  const uint64_t post = ++state_->last_post;
  state_->posts[event] = post;
  state_->time.PostToNetwork([state = state_, event, post] { state->Run(event, post); },
                             base::TimeDelta::FromMicroseconds(delay_us));
}

void Clock::Cancel(Event* event) {
  state_->posts.erase(event);
  State::SetWaits(event, false);
}

void Clock::RunFor(int64_t span_us) {
  state_->time.AdvanceBy(base::TimeDelta::FromMicroseconds(span_us));
}

}  // namespace quenor::fleet
