// Several processes with one cache file: each sends messages of its own and whatever dead ones
// left, and any of them is killed at any time. Every message whose save was complete arrives. One
// arrives twice only when it had to: its deliverer was killed before a save without it was
// complete.
#include <gtest/gtest.h>
#include <poll.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "quenor_base/platform/base/check.h"
#include "tests/crash/job.h"
#include "tests/crash/promises.h"

namespace quenor::test {
namespace {

constexpr uint64_t kNumbersPerPlace = 1000000;

// One of the processes, and those that took its place.
struct Place {
  uint64_t next = 0;       // The first number that nobody has tried.
  uint64_t confirmed = 0;  // Messages saved, of those to send.
  std::string incarnation;
  std::unique_ptr<Job> job;
};

class Crowd {
 public:
  Crowd(int processes, uint64_t messages, int kills, unsigned seed)
      : messages_(messages), kills_to_come_(kills), random_(seed) {
    // Each message is two events; all kills are to come before the last of them.
    events_per_kill_ = static_cast<unsigned>(static_cast<uint64_t>(processes) * messages * 2 /
                                             static_cast<uint64_t>(kills + kills / 4 + 1));
    places_.resize(static_cast<size_t>(processes));
    for (size_t i = 0; i < places_.size(); ++i) places_[i].next = (i + 1) * kNumbersPerPlace;
    QUENOR_CHECK(WriteWholeFile(delivered_, ""), "the list of deliveries cannot be made");
  }

  void Run() {
    std::signal(SIGPIPE, SIG_IGN);  // Of a process that has just ended.
    for (Place& place : places_) Start(&place);
    ChooseNextKill();
    while (WaitForEvents()) {
    }
    DeliverTheRest();
  }

  // Each line that a process wrote; the last are ours.
  void Count() {
    std::map<uint64_t, std::vector<std::string>> deliveries;
    std::ifstream lines(delivered_);
    uint64_t number;
    std::string incarnation;
    while (lines >> number >> incarnation) deliveries[number].push_back(incarnation);
    damaged_ = deliveries.erase(0);
    for (const uint64_t saved : saved_) lost_ += deliveries.count(saved) == 0;
    for (const auto& [which, by] : deliveries) {
      unconfirmed_ += saved_.count(which) == 0;
      again_ += by.size() - 1;
      for (size_t i = 0; i + 1 < by.size(); ++i) {
        const bool had_to = killed_.count(by[i]) != 0 && retired_.count({which, by[i]}) == 0;
        needlessly_again_ += !had_to;
      }
    }
  }

  void Print() const {
    std::printf(
        "processes: %zu: messages=%zu kills=%d lost=%zu arrived_without_confirmation=%zu again=%zu "
        "(delivered and killed before the save: %zu, other: %zu) taken_over=%llu damaged=%zu\n",
        places_.size(), saved_.size(), kills_, lost_, unconfirmed_, again_,
        again_ - needlessly_again_, needlessly_again_, static_cast<unsigned long long>(taken_over_),
        damaged_);
  }

  size_t saved() const { return saved_.size(); }
  int kills() const { return kills_; }
  size_t lost() const { return lost_; }
  size_t needlessly_again() const { return needlessly_again_; }
  size_t damaged() const { return damaged_; }
  int failures() const { return failures_; }
  bool has_set_aside() const { return HasSetAside(folder_.path()); }

 private:
  void Start(Place* place) {
    place->incarnation = std::to_string(++incarnations_);
    place->job = std::make_unique<Job>(std::vector<std::string>{
        "worker", path_, delivered_, place->incarnation, std::to_string(place->next),
        std::to_string(messages_ - place->confirmed)});
  }

  void ChooseNextKill() { events_to_kill_ = 1 + random_() % (2 * events_per_kill_); }

  // One event of each process that has one. False when all have ended.
  bool WaitForEvents() {
    std::vector<pollfd> fds;
    std::vector<Place*> who;
    for (Place& place : places_) {
      if (place.job == nullptr) continue;
      fds.push_back({place.job->events_fd(), POLLIN, 0});
      who.push_back(&place);
    }
    if (fds.empty()) return false;
    poll(fds.data(), fds.size(), -1);
    for (size_t i = 0; i < fds.size(); ++i) {
      if (fds[i].revents != 0) TakeEvent(who[i]);
    }
    return true;
  }

  void TakeEvent(Place* place) {
    JobEvent event;
    if (!place->job->Next(&event)) {
      failures_ += place->job->Wait() != 0;
      place->job.reset();
      return;
    }
    Note(event, place);
    place->job->Credit();
    if (kills_to_come_ > 0 && --events_to_kill_ == 0) KillAndRestart(place);
  }

  void Note(const JobEvent& event, Place* place) {
    if (event.kind == JobEvent::kReady) taken_over_ += event.number;
    if (event.kind == JobEvent::kRetired) retired_.emplace(event.number, place->incarnation);
    failures_ += event.kind == JobEvent::kFailed;
    if (event.kind != JobEvent::kSaved) return;
    saved_.insert(event.number);
    ++place->confirmed;
    place->next = event.number + 1;
  }

  void KillAndRestart(Place* place) {
    ChooseNextKill();
    place->job->Kill();
    const bool was_killed = place->job->Wait() == -SIGKILL;
    JobEvent event;
    while (place->job->Next(&event)) Note(event, place);
    place->job.reset();
    if (!was_killed) return;  // It had just done its work.
    ++kills_;
    --kills_to_come_;
    killed_.insert(place->incarnation);
    ++place->next;  // It may have been at this one.
    if (place->confirmed < messages_) Start(place);
  }

  // As one more process, as often as there is something left.
  void DeliverTheRest() {
    std::ofstream lines(delivered_, std::ios::app);
    for (;;) {
      const auto file = CacheFile::Create(FileKind::kMapped);
      if (!file->Open(path_)) {
        ++failures_;
        return;
      }
      const Content left = file->Load();
      if (left.empty()) return;
      for (const std::string& message : left) lines << NumberOf(message) << " rest\n";
      failures_ += !file->Save({});
    }
  }

  const uint64_t messages_;
  int kills_to_come_;
  std::minstd_rand random_;
  TempFolder folder_;
  std::string path_ = Successor::PathIn(folder_.path(), FileKind::kMapped);
  TempFolder delivered_folder_;
  std::string delivered_ = delivered_folder_.File("delivered");
  std::vector<Place> places_;
  unsigned events_per_kill_ = 1;
  unsigned events_to_kill_ = 0;

  int incarnations_ = 0;
  int kills_ = 0;
  int failures_ = 0;
  uint64_t taken_over_ = 0;
  std::set<std::string> killed_;
  std::set<uint64_t> saved_;
  std::set<std::pair<uint64_t, std::string>> retired_;
  size_t lost_ = 0;
  size_t unconfirmed_ = 0;
  size_t again_ = 0;
  size_t needlessly_again_ = 0;
  size_t damaged_ = 0;
};

class Processes : public ::testing::TestWithParam<int> {};

TEST_P(Processes, DeliverEveryMessageThatWasSaved) {
  const uint64_t messages = IsFullRun() ? 2000 : 150;
  const int kills = IsFullRun() ? 100 : 12;
  Crowd crowd(GetParam(), messages, kills, Seed());

  crowd.Run();
  crowd.Count();

  crowd.Print();
  EXPECT_EQ(static_cast<uint64_t>(GetParam()) * messages, crowd.saved());
  EXPECT_EQ(kills, crowd.kills());
  EXPECT_EQ(0u, crowd.lost());
  EXPECT_EQ(0u, crowd.needlessly_again());
  EXPECT_EQ(0u, crowd.damaged());
  EXPECT_EQ(0, crowd.failures());
  EXPECT_FALSE(crowd.has_set_aside());
}

INSTANTIATE_TEST_SUITE_P(Of, Processes, ::testing::Values(2, 4, 8),
                         ::testing::PrintToStringParamName());

}  // namespace
}  // namespace quenor::test
