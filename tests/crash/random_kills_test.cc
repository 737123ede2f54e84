// A process saves as fast as it can and is killed at random times. What it had saved when it was
// killed is there for whoever opens the file next: the content of the last save that it reported,
// or of the one that it was at, and nothing that the former had dropped.
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <utility>

#include "tests/crash/support/job.h"
#include "tests/crash/support/promises.h"

namespace quenor::test {
namespace {

struct Counts {
  int kills = 0;
  uint64_t saves = 0;
  int found_last = 0;
  int found_next = 0;
  int found_between = 0;
  int lost = 0;
};

// A file that one process after the other saves to, each until it is killed.
class Victim {
 public:
  Victim(FileKind kind, std::string path, unsigned seed)
      : kind_(kind), path_(std::move(path)), random_(seed) {}

  // Runs a saver, kills it at a random time, and looks at what it left.
  void KillOne() {
    Job saver({QUENOR_CRASH_PROGRAM, "saver", NameOf(kind_), path_, std::to_string(base_ + 1)});
    const uint64_t reports = random_() % 40;
    uint64_t last = base_;
    JobEvent event;
    for (uint64_t i = 0; i < reports && saver.Next(&event); ++i) Note(event, &last);
    // Somewhere inside a save, not always at its beginning.
    std::atomic<uint64_t> turns{random_() % 200000};
    while (turns-- != 0) {
    }
    saver.Kill();
    EXPECT_EQ(-SIGKILL, saver.Wait());
    while (saver.Next(&event)) Note(event, &last);
    ++counts_.kills;
    counts_.saves += last - base_;
    Judge(last);
  }

  const Counts& counts() const { return counts_; }

 private:
  static void Note(const JobEvent& event, uint64_t* last) {
    if (event.kind == JobEvent::kSaved) *last = event.number;
  }

  Content ContentAt(uint64_t number) const {
    return number <= base_ ? found_ : ContentOfSave(number);
  }

  // `last`: the number of the last save that is surely complete.
  void Judge(uint64_t last) {
    const auto successor = CacheFile::Create(kind_);
    EXPECT_TRUE(successor->Open(path_));
    const Content content = successor->Load();
    const Expected expected = {ContentAt(last), ContentAt(last + 1)};
    const Found found = test::Judge(kind_, expected, content);
    counts_.found_last += found == Found::kOld;
    counts_.found_next += found == Found::kNow;
    counts_.found_between += found == Found::kBetween;
    counts_.lost += found == Found::kBroken;
    if (found == Found::kBroken) {
      ADD_FAILURE() << "has " << Describe(content) << ", not " << Describe(expected.old) << " or "
                    << Describe(expected.now);
    }
    base_ = last + 1;
    found_ = content;
  }

  const FileKind kind_;
  const std::string path_;
  std::minstd_rand random_;
  uint64_t base_ = 0;  // The number that the content found last stands for,
  Content found_;      // and that content.
  Counts counts_;
};

class RandomKills : public ::testing::TestWithParam<FileKind> {};

TEST_P(RandomKills, LoseNothingThatWasSavedAndBringNothingBack) {
  const FileKind kind = GetParam();
  const int kills = IsFullRun() ? 500 : 60;
  TempFolder folder;
  Victim victim(kind, Successor::PathIn(folder.path(), kind), Seed());
  const Counts& counts = victim.counts();

  while (counts.kills < kills && counts.lost == 0) victim.KillOne();

  EXPECT_EQ(0, counts.lost);
  EXPECT_FALSE(HasSetAside(folder.path()));
  std::printf(
      "random kills: %s: kills=%d saves=%llu found_last=%d found_next=%d between=%d lost=%d\n",
      NameOf(kind), counts.kills, static_cast<unsigned long long>(counts.saves), counts.found_last,
      counts.found_next, counts.found_between, counts.lost);
}

INSTANTIATE_TEST_SUITE_P(Each, RandomKills, ::testing::Values(FileKind::kMapped, FileKind::kPlain),
                         [](const auto& each) { return std::string(NameOf(each.param)); });

}  // namespace
}  // namespace quenor::test
