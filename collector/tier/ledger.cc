#include "collector/tier/ledger.h"

#include <algorithm>

namespace quenor::collector {
namespace {

using std::chrono::milliseconds;

// So many of those that wait, the eldest, find out whether the store answers again.
constexpr uint64_t kProbes = 8;

// Held while the store has answered nothing for a whole hold. More than a collector has at a time
// whose store answers: a balancer that looks for the fewest waiting must not prefer this one.
constexpr uint64_t kHeldWhileBarred = 512;

// One report in this time finds out whether a full store has room again.
constexpr milliseconds kFullPause{1'000};

// The pause after the store said that nobody was responsible, or could not do it just then: an
// election takes longer, a node that steps down less.
constexpr milliseconds kAbsentPause{250};

// A store that has left a report unanswered for so many times the wait is stalled.
constexpr int kStalledWaits = 2;

}  // namespace

const char* NameOf(TierState state) {
  constexpr const char* kNames[] = {"connecting", "ready", "stalled", "full", "draining"};
  return kNames[static_cast<int>(state)];
}

uint64_t Ledger::Take(uint64_t size_bytes, Time now, Answer* refusal) {
  if (draining_) {
    *refusal = Answer::kDraining;
  } else if (full_at_ && now - *full_at_ < kFullPause) {
    *refusal = Answer::kFull;
  } else if (barred_ && reports() >= kHeldWhileBarred) {
    *refusal = Answer::kLate;
  } else if (reports() >= options_.max_reports || bytes_ + size_bytes > options_.max_bytes) {
    *refusal = Answer::kBusy;
  } else {
    if (full_at_) full_at_ = now;
    entries_.emplace(++last_id_, Entry{now, now + options_.ack_wait, size_bytes, now});
    bytes_ += size_bytes;
    return last_id_;
  }
  return 0;
}

std::optional<Answer> Ledger::OnOutcome(uint64_t id, StoreOutcome outcome, Time now) {
  const auto entry = entries_.find(id);
  if (entry == entries_.end()) return std::nullopt;
  switch (outcome) {
    case StoreOutcome::kStored:
      barred_ = false;
      full_at_.reset();
      overtaken_ = std::max(overtaken_, entry->second.published);
      End(entry);
      return Answer::kStored;
    case StoreOutcome::kFull:
      barred_ = false;  // It answers.
      full_at_ = now;
      End(entry);
      return Answer::kFull;
    case StoreOutcome::kRejected:
      End(entry);
      return Answer::kRejected;
    case StoreOutcome::kAbsent:
    case StoreOutcome::kFailed:
      entry->second.due = now + kAbsentPause;
      entry->second.was_turned_away = true;
      break;
  }
  return std::nullopt;
}

std::vector<uint64_t> Ledger::OnConnected(Time now) {
  connected_ = true;
  std::vector<uint64_t> all;
  all.reserve(entries_.size());
  for (auto& [id, entry] : entries_) {
    Publish(&entry, now);
    all.push_back(id);
  }
  return all;
}

Ledger::Due Ledger::Tick(Time now) {
  Due due;
  while (!entries_.empty() && now - entries_.begin()->second.taken >= options_.hold) {
    due.late.push_back(entries_.begin()->first);
    End(entries_.begin());
    barred_ = true;
  }
  if (!connected_) return due;
  uint64_t eldest = 0;
  for (auto& [id, entry] : entries_) {
    const bool is_probe = eldest++ < kProbes;
    if (now < entry.due || !(is_probe || IsLost(entry))) continue;
    Publish(&entry, now);
    due.publish.push_back(id);
  }
  return due;
}

TierState Ledger::GetState(Time now) const {
  if (draining_) return TierState::kDraining;
  if (!connected_) return TierState::kConnecting;
  if (full_at_) return TierState::kFull;
  const bool is_waiting = !entries_.empty() &&
                          now - entries_.begin()->second.taken >= kStalledWaits * options_.ack_wait;
  return barred_ || is_waiting ? TierState::kStalled : TierState::kReady;
}

void Ledger::Publish(Entry* entry, Time now) const {
  entry->published = now;
  entry->due = now + options_.ack_wait;
  entry->was_turned_away = false;
}

bool Ledger::IsLost(const Entry& entry) const {
  return entry.was_turned_away || overtaken_ >= entry.published + options_.ack_wait;
}

void Ledger::End(Entries::iterator entry) {
  bytes_ -= entry->second.size_bytes;
  entries_.erase(entry);
}

}  // namespace quenor::collector
