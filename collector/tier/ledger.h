// Ledger: the reports that the store has not answered yet, and what each one's sender is told when.
// No clock, network or thread of its own: whoever links it says what time it is and what happened.
// Threads: one at a time. Life: one per collector. Page: docs/guide/collectors.md.
//
// A report taken is published at once if there is a connection, and again after the store said that
// nobody there was responsible, and as soon as a new connection stands; always under the same
// number, by which readers know it: the store keeps what it gets. So of those that are only late,
// after `ack_wait`, no more than the eldest few are published again, and the others once the store
// has acknowledged one that was published that much later than they: it has lost them. A report
// ends with the store's acknowledgement, with its refusal, or with `hold`.
#ifndef COLLECTOR_TIER_LEDGER_H_
#define COLLECTOR_TIER_LEDGER_H_

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "collector/clock.h"
#include "collector/tier/options.h"

namespace quenor::collector {

enum class TierState {
  kConnecting,  // No connection to the store: reports are held until there is one.
  kReady,
  kStalled,   // The store answers late or not at all.
  kFull,      // The store has no room.
  kDraining,  // Told to end: nothing new is taken.
};

// "connecting", "ready", "stalled", "full", "draining".
const char* NameOf(TierState state);

enum class StoreOutcome {
  kStored,
  kFull,      // The stream takes no more.
  kRejected,  // The store will never take this one.
  kAbsent,    // Nobody there is responsible at present.
  kFailed,    // Anything else that may be over soon.
};

enum class Answer {
  kStored,
  kRejected,  // Status 200 as well: any other would have it sent again for ever.
  kBusy,      // More is held than may be.
  kLate,      // The store did not answer within `hold`, or has not for so long.
  kFull,
  kDraining,
};

class Ledger {
 public:
  explicit Ledger(const HoldOptions& options) : options_(options) {}

  // A report of that size. Its number, 1 or above, when it is taken; otherwise 0 and *refusal.
  // One that is taken is to be published if is_connected().
  uint64_t Take(uint64_t size_bytes, Time now, Answer* refusal);

  // The answer that ends report `id`, if it does: unknown numbers are those of earlier attempts.
  std::optional<Answer> OnOutcome(uint64_t id, StoreOutcome outcome, Time now);

  // Returns the numbers of all reports, which are to be published over the new connection.
  std::vector<uint64_t> OnConnected(Time now);
  void OnDisconnected() { connected_ = false; }

  struct Due {
    std::vector<uint64_t> publish;  // Again.
    std::vector<uint64_t> late;     // Ended: kLate.
  };
  // Every few tens of milliseconds while there is a report.
  Due Tick(Time now);

  void Drain() { draining_ = true; }

  TierState GetState(Time now) const;
  bool is_connected() const { return connected_; }
  bool is_empty() const { return entries_.empty(); }
  uint64_t reports() const { return entries_.size(); }
  uint64_t bytes() const { return bytes_; }

 private:
  struct Entry {
    Time taken;
    Time due;  // To be published again, if it is among those that are.
    uint64_t size_bytes;
    Time published{};  // Last.
    bool was_turned_away =
        false;  // Since then: what the store has not taken cannot be there twice.
  };
  using Entries = std::map<uint64_t, Entry>;

  void Publish(Entry* entry, Time now) const;
  bool IsLost(const Entry& entry) const;
  void End(Entries::iterator entry);

  const HoldOptions options_;
  Entries entries_;  // In the order in which they were taken.
  uint64_t bytes_ = 0;
  uint64_t last_id_ = 0;
  Time overtaken_{};  // When the latest of all that the store has acknowledged was published.
  bool connected_ = false;
  bool draining_ = false;
  // A report's hold has ended, and nothing has been stored since.
  bool barred_ = false;
  std::optional<Time> full_at_;  // Nothing has been stored since then.
};

}  // namespace quenor::collector

#endif  // COLLECTOR_TIER_LEDGER_H_
