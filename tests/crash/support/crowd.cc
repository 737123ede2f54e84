#include "tests/crash/support/crowd.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>

#include "tests/support/patience.h"

namespace quenor::test {
namespace {

using Time = decltype(Now());

// More than a place gets through, with what its dead have left out.
constexpr uint64_t kNumbersPerPlace = 1000000000;
constexpr uint64_t kNumbersPerDeath = 1000;
// In a run of so many seconds, of all processes together.
constexpr uint64_t kEventsPerKill = 400;
constexpr uint64_t kEventsPerStop = 200;
constexpr unsigned kLongestStopMs = 1500;

}  // namespace

// One of the processes, and those that took its place.
struct Crowd::Place {
  Task task;                 // `count`: still to be sent.
  std::unique_ptr<Job> job;  // Null when there is nothing to send any more.
  bool is_stopped = false;
  Time stopped_until;
};

Crowd::Crowd(Plan plan, unsigned seed) : plan_(std::move(plan)), random_(seed) {
  std::signal(SIGPIPE, SIG_IGN);  // Of a process that has just ended.
  for (int i = 0; i < plan_.processes; ++i) {
    places_.push_back(std::make_unique<Place>());
    places_.back()->task.first = static_cast<uint64_t>(i + 1) * kNumbersPerPlace;
    places_.back()->task.count = plan_.seconds > 0 ? kNumbersPerPlace : plan_.messages;
  }
}

Crowd::~Crowd() = default;

void Crowd::Run() {
  for (const auto& place : places_) Start(place.get());
  ChooseNextKill();
  const auto end = Now() + std::chrono::seconds(plan_.seconds);
  while (WaitForEvents()) {
    if (plan_.look) plan_.look();
    if (plan_.seconds == 0) continue;
    ContinueDue();
    if (Now() > end) KillAll();
  }
  DrainTheRest();
}

void Crowd::Start(Place* place) {
  place->task.incarnation = std::to_string(++incarnations_);
  place->is_stopped = false;
  place->job = plan_.start(place->task);
}

void Crowd::ChooseNextKill() {
  if (plan_.seconds > 0) {
    events_to_kill_ = 1 + random_() % (2 * kEventsPerKill);
    return;
  }
  const uint64_t events =
      static_cast<uint64_t>(plan_.processes) * plan_.messages * plan_.events_per_message;
  // Half of an even spread: all kills come before the last messages.
  const uint64_t average = events / 2 / static_cast<uint64_t>(plan_.kills + 1);
  events_to_kill_ = 1 + random_() % std::max<uint64_t>(1, 2 * average);
}

// One event of each process that has one. False when all have ended.
bool Crowd::WaitForEvents() {
  std::vector<pollfd> fds;
  std::vector<Place*> who;
  for (const auto& place : places_) {
    if (place->job == nullptr) continue;
    fds.push_back({place->job->events_fd(), POLLIN, 0});
    who.push_back(place.get());
  }
  if (fds.empty()) return false;
  poll(fds.data(), fds.size(), plan_.seconds > 0 ? 10 : -1);
  for (size_t i = 0; i < fds.size(); ++i) {
    if (fds[i].revents != 0) TakeEvent(who[i]);
  }
  return true;
}

void Crowd::TakeEvent(Place* place) {
  JobEvent event;
  if (!place->job->Next(&event)) {
    failures_ += place->job->Wait() != 0;
    place->job.reset();
    return;
  }
  Note(event, place);
  place->job->Credit();
  if (plan_.seconds > 0 && random_() % kEventsPerStop == 0) StopOne();
  if ((plan_.seconds > 0 || kills_ < plan_.kills) && --events_to_kill_ == 0) KillAndRestart(place);
}

void Crowd::Note(const JobEvent& event, Place* place) {
  std::map<std::string, Had>* const had = &had_[event.number];
  switch (event.kind) {
    case JobEvent::kLoaded:
      ++taken_over_;
      (*had)[place->task.incarnation] = Had::kWaiting;
      break;
    case JobEvent::kSaved:
      saved_.insert(event.number);
      dropped_last_[place->task.incarnation] = 0;
      had->emplace(place->task.incarnation, Had::kWaiting);
      if (event.number < place->task.first) break;
      place->task.first = event.number + 1;
      --place->task.count;
      break;
    case JobEvent::kSent:
      (*had)[place->task.incarnation] = Had::kSent;
      break;
    case JobEvent::kAcknowledged:
      (*had)[place->task.incarnation] = Had::kAcknowledged;
      break;
    case JobEvent::kRetired:
      (*had)[place->task.incarnation] = Had::kRetired;
      dropped_last_[place->task.incarnation] = event.number;
      break;
    case JobEvent::kFailed:
      ++failures_;
      break;
    case JobEvent::kReady:
      break;
  }
}

void Crowd::KillAndRestart(Place* place) {
  ChooseNextKill();
  // Anywhere in what it does next, not always just behind an event.
  std::atomic<uint64_t> turns{random_() % 200000};
  while (turns-- != 0) {
  }
  place->job->Kill();
  const bool was_killed = place->job->Wait() == -SIGKILL;
  JobEvent event;
  while (place->job->Next(&event)) {
    Note(event, place);
    if (events_to_kill_ > 1) --events_to_kill_;
  }
  place->job.reset();
  if (!was_killed) return;  // It had just done its work.
  ++kills_;
  killed_.insert(place->task.incarnation);
  // Numbers that it may have been at are not used again.
  place->task.first += kNumbersPerDeath;
  if (place->task.count > 0) Start(place);
}

// Wherever it is, holding whatever lock it has.
void Crowd::StopOne() {
  Place* const place = places_[random_() % places_.size()].get();
  if (place->job == nullptr || place->is_stopped) return;
  place->job->Stop();
  place->is_stopped = true;
  place->stopped_until = Now() + std::chrono::milliseconds(random_() % kLongestStopMs);
  ++stops_;
}

void Crowd::ContinueDue() {
  for (const auto& place : places_) {
    if (!place->is_stopped || Now() < place->stopped_until) continue;
    place->is_stopped = false;
    if (place->job == nullptr) continue;
    if (random_() % 4 == 0) {
      KillAndRestart(place.get());
    } else {
      place->job->Continue();
    }
  }
}

void Crowd::KillAll() {
  for (const auto& place : places_) {
    place->task.count = 0;
    if (place->job != nullptr) KillAndRestart(place.get());
  }
}

void Crowd::DrainTheRest() {
  Place rest;
  uint64_t before;
  do {
    before = taken_over_;
    Start(&rest);
    JobEvent event;
    while (rest.job->Next(&event)) {
      Note(event, &rest);
      rest.job->Credit();
    }
    if (rest.job->Wait() != 0) {
      ++failures_;
      return;
    }
  } while (taken_over_ != before);
}

void Crowd::Count(const std::map<uint64_t, int>& arrivals) {
  for (const uint64_t saved : saved_) lost_ += arrivals.count(saved) == 0;
  for (const auto& [number, times] : arrivals) {
    if (number == 0) {
      damaged_ += static_cast<size_t>(times);
      continue;
    }
    ++arrived_;
    unconfirmed_ += saved_.count(number) == 0;
    size_t again = static_cast<size_t>(times - 1);
    for (const auto& [incarnation, had] : had_[number]) {
      size_t* const cause = CauseOfReturn(number, incarnation, had);
      if (again == 0 || cause == nullptr) continue;
      ++*cause;
      --again;
    }
    again_needlessly_ += again;
  }
}

// Why a process that had it may have delivered it, and left it to another all the same: a count,
// or null when it may not have.
size_t* Crowd::CauseOfReturn(uint64_t number, const std::string& incarnation, Had had) {
  if (killed_.count(incarnation) == 0) {
    return plan_.may_end_in_flight && had == Had::kSent ? &again_ended_ : nullptr;
  }
  switch (had) {
    case Had::kWaiting:
      return &again_waiting_;
    case Had::kSent:
      return &again_sent_;
    case Had::kAcknowledged:
      return &again_acknowledged_;
    case Had::kRetired:
      break;
  }
  const bool is_unsealed = plan_.completes_with_next_save && dropped_last_[incarnation] == number;
  return is_unsealed ? &again_unsealed_ : nullptr;
}

void Crowd::Print(const std::string& name) const {
  const size_t again = again_waiting_ + again_sent_ + again_acknowledged_ + again_unsealed_ +
                       again_ended_ + again_needlessly_;
  std::printf(
      "processes: %s: processes=%d resend_limit=%s saved=%zu kills=%d stops=%d arrived=%zu "
      "lost=%zu "
      "arrived_though_its_save_was_not_reported=%zu taken_over=%llu again=%zu (killed before it "
      "told the sending=%zu, killed while in flight=%zu, killed between answer and save=%zu, "
      "killed before the save without it was complete=%zu, terminated while in flight=%zu, for no "
      "such reason=%zu) damaged=%zu failures=%d\n",
      name.c_str(), plan_.processes,
      plan_.resend_limit == 0 ? "none" : std::to_string(plan_.resend_limit).c_str(), saved_.size(),
      kills_, stops_, arrived_, lost_, unconfirmed_, static_cast<unsigned long long>(taken_over_),
      again, again_waiting_, again_sent_, again_acknowledged_, again_unsealed_, again_ended_,
      again_needlessly_, damaged_, failures_);
}

void Crowd::ExpectNothingLost() const {
  EXPECT_LE(static_cast<uint64_t>(plan_.processes) * plan_.messages, saved_.size());
  if (plan_.seconds == 0) {
    EXPECT_EQ(plan_.kills, kills_);
  }
  EXPECT_EQ(0u, lost_);
  EXPECT_EQ(0u, again_needlessly_);
  EXPECT_EQ(0u, damaged_);
  EXPECT_EQ(0, failures_);
}

}  // namespace quenor::test
