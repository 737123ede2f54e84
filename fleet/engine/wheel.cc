// The clock as a hierarchical timer wheel: seven rings of 1024 lists, a microsecond to a list in
// the first ring, the whole first ring to a list in the second, and so on. An event waits in the
// ring of the highest digit in which its time differs from now, and moves inwards when now comes to
// its list. Every list is in the order of posting: what comes later to a time finds what was there
// before it in the same list, or in front of it in one further in.
#include <array>
#include <limits>

#include "fleet/engine/clock.h"
#include "quenor_base/platform/base/check.h"

namespace quenor::fleet {
namespace {

constexpr int kRings = 7;
constexpr int kDigitBits = 10;
constexpr uint32_t kLists = 1u << kDigitBits;
constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

Clock* g_current = nullptr;

uint32_t Digit(int64_t time_us, int ring) {
  return static_cast<uint32_t>(time_us >> (ring * kDigitBits)) & (kLists - 1);
}

// The start of the list in `ring` that time stands in.
int64_t Floor(int64_t time_us, int ring) {
  return time_us >> (ring * kDigitBits) << (ring * kDigitBits);
}

// Which lists of a ring have events.
class Occupied {
 public:
  void Set(uint32_t list) { words_[list / 64] |= Bit(list); }
  void Clear(uint32_t list) { words_[list / 64] &= ~Bit(list); }
  // The first from `list` on; kLists when there is none.
  uint32_t NextFrom(uint32_t list) const {
    if (list >= kLists) return kLists;
    uint64_t word = words_[list / 64] & ~(Bit(list) - 1);
    for (uint32_t i = list / 64;;) {
      if (word != 0) return i * 64 + static_cast<uint32_t>(__builtin_ctzll(word));
      if (++i == words_.size()) return kLists;
      word = words_[i];
    }
  }

 private:
  static uint64_t Bit(uint32_t list) { return uint64_t{1} << (list % 64); }
  std::array<uint64_t, kLists / 64> words_{};
};

}  // namespace

struct Clock::State {
  // A list without its own events: next and previous lead back to it.
  struct Head : Event {
    void OnDue() override {}
  };
  struct Ring {
    std::array<Head, kLists> lists;
    Occupied occupied;
  };

  State() {
    for (Ring& ring : rings) {
      for (Head& head : ring.lists) head.next_ = head.previous_ = &head;
    }
  }

  // The highest digit in which `due_us` differs from now.
  int RingOf(int64_t due_us) const {
    const uint64_t difference = static_cast<uint64_t>(due_us ^ now_us);
    if (difference == 0) return 0;
    return (63 - __builtin_clzll(difference)) / kDigitBits;
  }

  void Insert(Event* event) {
    const int ring = RingOf(event->due_us_);
    const uint32_t list = Digit(event->due_us_, ring);
    Head* const head = &rings[ring].lists[list];
    event->next_ = head;
    event->previous_ = head->previous_;
    head->previous_->next_ = event;
    head->previous_ = event;
    rings[ring].occupied.Set(list);
  }

  static void Unlink(Event* event) {
    event->previous_->next_ = event->next_;
    event->next_->previous_ = event->previous_;
    event->next_ = event->previous_ = nullptr;
  }

  // Where the next occupied list begins, at most at `until_us`; false when there is none. A list
  // that a cancellation has left empty may be found, too.
  bool FindNext(int64_t until_us, int* ring, uint32_t* list) {
    for (int i = 0; i < kRings; ++i) {
      // Of the rings further out, what now stands in has moved inwards already.
      const uint32_t from = Digit(now_us, i) + (i > 0 ? 1 : 0);
      const uint32_t found = rings[i].occupied.NextFrom(from);
      if (found == kLists) continue;
      const int64_t begin_us = i + 1 < kRings
                                   ? Floor(now_us, i + 1) + (int64_t{found} << (i * kDigitBits))
                                   : int64_t{found} << (i * kDigitBits);
      if (begin_us > until_us) return false;
      if (i > 0) {
        now_us = begin_us;
      } else {
        now_us = Floor(now_us, 1) + found;
      }
      *ring = i;
      *list = found;
      return true;
    }
    return false;
  }

  void MoveInwards(int ring, uint32_t list) {
    Head* const head = &rings[ring].lists[list];
    rings[ring].occupied.Clear(list);
    while (head->next_ != head) {
      Event* const event = head->next_;
      Unlink(event);
      Insert(event);
    }
  }

  std::array<Ring, kRings> rings;
  int64_t now_us = 0;
  uint64_t events_run = 0;
};

Clock::Clock() : state_(new State) {
  QUENOR_CHECK(g_current == nullptr, "two clocks at once");
  g_current = this;
}

Clock::~Clock() {
  for (State::Ring& ring : state_->rings) {
    for (State::Head& head : ring.lists) {
      while (head.next_ != &head) {
        Event* const event = head.next_;
        State::Unlink(event);
        event->OnNever();
      }
    }
  }
  g_current = nullptr;
  delete state_;
}

Clock& Clock::Current() {
  QUENOR_CHECK(g_current != nullptr, "no clock");
  return *g_current;
}

int64_t Clock::now_us() const { return state_->now_us; }

uint64_t Clock::events_run() const { return state_->events_run; }

void Clock::Post(Event* event, int64_t delay_us) {
  QUENOR_CHECK(!event->waits(), "an event is posted twice");
  const int64_t now_us = state_->now_us;
  event->due_us_ = now_us;
  if (delay_us > 0) event->due_us_ = delay_us > kNever - now_us ? kNever : now_us + delay_us;
  state_->Insert(event);
}

void Clock::Cancel(Event* event) {
  if (event->waits()) State::Unlink(event);
}

void Clock::RunFor(int64_t span_us) {
  const int64_t until_us = state_->now_us + span_us;
  int ring = 0;
  uint32_t list = 0;
  while (state_->FindNext(until_us, &ring, &list)) {
    if (ring > 0) {
      state_->MoveInwards(ring, list);
      continue;
    }
    State::Head* const head = &state_->rings[0].lists[list];
    while (head->next_ != head) {
      Event* const event = head->next_;
      State::Unlink(event);
      ++state_->events_run;
      event->OnDue();
    }
    state_->rings[0].occupied.Clear(list);
  }
  state_->now_us = until_us;
}

}  // namespace quenor::fleet
