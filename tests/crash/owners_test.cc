// Owners of one mapped cache file: how many there can be, what each sees of the others, and who
// gets what dead ones leave. Dead means closed or killed; the processes that are killed are our
// own.
#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "tests/crash/support/job.h"
#include "tests/crash/support/promises.h"
#include "tests/support/fakes/recording_log.h"

namespace quenor::test {
namespace {

constexpr size_t kMaxOwners = MultiProcessSafetyMmapFile::kMaxOwners;

class Owners : public ::testing::Test {
 protected:
  Owners() { RecordingLog::Clear(); }

  std::unique_ptr<CacheFile> TryOpen() {
    auto owner = CacheFile::Create(FileKind::kMapped);
    if (!owner->Open(path_)) owner.reset();
    return owner;
  }
  std::unique_ptr<CacheFile> Open() {
    auto owner = TryOpen();
    EXPECT_NE(nullptr, owner);
    return owner != nullptr ? std::move(owner) : CacheFile::Create(FileKind::kMapped);
  }

  // What a new owner would get; he takes none of it.
  Content Left() { return Open()->Load(); }

  // Owners that live at the same time, each with a save of his own, all gone afterwards.
  void LeaveDeadOwners(const std::vector<std::string>& contents) {
    std::vector<std::unique_ptr<CacheFile>> owners;
    for (size_t i = 0; i < contents.size(); ++i) owners.push_back(Open());
    for (size_t i = 0; i < contents.size(); ++i) {
      EXPECT_TRUE(owners[i]->Save(ContentOf(contents[i])));
    }
  }

  // In a process of its own; it lives until the object is gone.
  std::unique_ptr<Job> StartHolder(size_t owners, const std::string& content = "") {
    std::vector<std::string> arguments = {QUENOR_CRASH_PROGRAM, "holder", "mapped", path_,
                                          std::to_string(owners)};
    if (!content.empty()) arguments.push_back(content);
    auto job = std::make_unique<Job>(arguments);
    JobEvent event = {};
    EXPECT_TRUE(job->Next(&event));
    EXPECT_EQ(JobEvent::kReady, event.kind);
    packets_of_holder_ = event.number;
    return job;
  }
  static void KillNow(Job* job) {
    job->Kill();
    EXPECT_EQ(-SIGKILL, job->Wait());
  }

  TempFolder folder_;
  std::string path_ = Successor::PathIn(folder_.path(), FileKind::kMapped);
  uint64_t packets_of_holder_ = 0;
};

TEST_F(Owners, OneMoreThanTheMostIsRefusedUntilOneCloses) {
  std::vector<std::unique_ptr<CacheFile>> owners;
  for (size_t i = 0; i < kMaxOwners; ++i) owners.push_back(Open());

  EXPECT_EQ(nullptr, TryOpen());
  EXPECT_EQ(1u, RecordingLog::Texts(2).size());
  owners[20]->Close();
  EXPECT_NE(nullptr, TryOpen());
}

TEST_F(Owners, OneMoreThanTheMostIsRefusedUntilAProcessIsKilled) {
  const auto holder = StartHolder(kMaxOwners - 1, "1-3x100");
  const auto last = Open();

  EXPECT_EQ(nullptr, TryOpen());
  KillNow(holder.get());
  EXPECT_EQ(ContentOf("1-3x100"), Open()->Load());
}

TEST_F(Owners, TwoOfOneProcessDoNotSeeEachOther) {
  const auto first = Open();
  EXPECT_TRUE(first->Save(ContentOf("1-3x100")));
  const auto second = Open();
  EXPECT_EQ(Content(), second->Load());

  EXPECT_TRUE(second->Save(ContentOf("11-12x100")));
  EXPECT_TRUE(first->Save(ContentOf("2-4x100")));
  EXPECT_TRUE(second->Save(ContentOf("12-14x100")));
  first->Close();

  EXPECT_EQ(ContentOf("2-4x100"), Left());
  second->Close();
  EXPECT_EQ(ContentOf("2-4x100+12-14x100"), Left());
}

TEST_F(Owners, ALiveProcessKeepsItsContentAndADeadOneLeavesIt) {
  const auto holder = StartHolder(1, "1-5x100");
  EXPECT_EQ(Content(), Left());

  KillNow(holder.get());

  EXPECT_EQ(ContentOf("1-5x100"), Left());
}

TEST_F(Owners, SeveralDeadOnesAreTakenOldestFirstWhileThePacketsStayFew) {
  LeaveDeadOwners({"1-60x50", "101-160x50", "201-260x50", "301-360x50", "401-460x50"});

  const auto first = Open();
  EXPECT_EQ(ContentOf("1-60x50+101-160x50+201-260x50"), first->Load());
  const auto second = Open();
  EXPECT_EQ(ContentOf("301-360x50+401-460x50"), second->Load());
  const auto third = Open();
  EXPECT_EQ(Content(), third->Load());

  EXPECT_TRUE(first->Save(ContentOf("1x50")));
  first->Close();
  second->Close();  // Without a save: all that it had taken is free again.
  EXPECT_EQ(ContentOf("301-360x50+401-460x50+1x50"), Left());
}

TEST_F(Owners, OneDeadOneIsTakenWhateverItsSize) {
  LeaveDeadOwners({"1-500x20", "1001-1002x20"});

  const auto first = Open();
  EXPECT_EQ(ContentOf("1-500x20"), first->Load());
  EXPECT_EQ(ContentOf("1001-1002x20"), Left());
}

TEST_F(Owners, AClaimerThatClosesBeforeItsFirstSaveLeavesEverythingAsItWas) {
  LeaveDeadOwners({"1-3x100", "11-14x100"});
  const Content everything = ContentOf("1-3x100+11-14x100");

  EXPECT_EQ(everything, Open()->Load());
  {
    const auto claimer = Open();
    EXPECT_TRUE(claimer->Clear(1000));
    EXPECT_TRUE(claimer->Append(Message(99, 300)));  // And no more.
    EXPECT_FALSE(claimer->IsSaveComplete());
  }

  EXPECT_EQ(everything, Left());
}

TEST_F(Owners, AClaimerThatIsKilledBeforeItsFirstSaveLeavesEverythingAsItWas) {
  LeaveDeadOwners({"1-3x100", "11-14x100"});

  for (int i = 0; i < 3; ++i) {
    const auto holder = StartHolder(1);
    EXPECT_EQ(7u, packets_of_holder_);
    EXPECT_EQ(Content(), Left());
    KillNow(holder.get());
  }

  EXPECT_EQ(ContentOf("1-3x100+11-14x100"), Left());
}

TEST_F(Owners, WhatAClaimerSavedReplacesWhatItTookAndNothingElse) {
  LeaveDeadOwners({"1-3x100", "11-14x100"});
  const auto live = StartHolder(1);  // Has taken both.
  LeaveDeadOwners({"21-22x100"});
  const auto claimer = Open();
  EXPECT_EQ(ContentOf("21-22x100"), claimer->Load());

  EXPECT_TRUE(claimer->Save(ContentOf("22x100+31x100")));
  claimer->Close();
  KillNow(live.get());

  EXPECT_EQ(ContentOf("1-3x100+11-14x100+22x100+31x100"), Left());
}

}  // namespace
}  // namespace quenor::test
