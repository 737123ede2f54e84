// The process is killed: between any two calls that change the disk, in the middle of a write, and
// for real. What was promised has to be there afterwards.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <random>

#include "quenor_base/platform/reliable_report_cache_file.h"
#include "tests/support/forked.h"
#include "tests/unit/cache/plain/cache_file_test_support.h"

namespace quenor::test {
namespace {

class CacheFileKillTest : public CacheFileTest {};

bool IsSubsequence(const Packets& part, const Packets& whole) {
  size_t i = 0;
  for (const std::string& packet : whole) {
    if (i < part.size() && part[i] == packet) ++i;
  }
  return i == part.size();
}

// Random saves; at every change on the disk the folder is looked at as a kill would leave it.
class Model {
 public:
  explicit Model(uint64_t seed) : random_(seed) { Restart(std::make_unique<TempFolder>()); }
  ~Model() { DiskCalls::Reset(); }

  void Step() {
    const Packets next = NextStore();
    // Somebody else's bytes; what a save that was given up has written stays in front of them.
    if (Chance(20)) AppendLitter();
    ASSERT_TRUE(file_->Clear());
    before_last_ = saved_;
    appended_.clear();
    const size_t given_up_at = Chance(4) ? Below(next.size() + 1) : next.size();
    for (const std::string& packet : next) {
      if (appended_.size() == given_up_at) break;
      in_flight_ = packet;
      ASSERT_TRUE(Append(file_.get(), packet));
      in_flight_.clear();
      appended_.push_back(packet);
      if (Chance(400)) return Kill();
    }
    // One that is given up is completed by the next Clear(), without a question.
    if (given_up_at == next.size() && !Chance(4)) {
      ASSERT_TRUE(file_->IsSaveComplete());
      before_last_ = appended_;  // From here on nothing of it comes back.
    } else {
      ++unasked_;
      before_last_ = saved_;
    }
    saved_ = appended_;
    Look();
    if (Chance(15)) return Kill();
    if (Chance(30)) Close();
  }
  size_t unasked() const { return unasked_; }
  size_t looks() const { return looks_; }
  size_t kills() const { return kills_; }
  size_t brought_back() const { return brought_back_; }

 private:
  bool Chance(int one_in) { return std::uniform_int_distribution<int>(1, one_in)(random_) == 1; }
  size_t Below(size_t end) { return std::uniform_int_distribution<size_t>(0, end - 1)(random_); }

  std::string NewPacket() {
    if (Chance(10)) return "twin " + std::to_string(Below(3));
    const size_t size = Chance(50) ? 70000 + Below(70000) : 1 + Below(Chance(4) ? 3000 : 100);
    std::string packet = "packet " + std::to_string(next_packet_++) + " ";
    packet.resize(std::max(packet.size(), size), static_cast<char>('a' + next_packet_ % 26));
    return packet;
  }
  // What a channel does to its store, and more.
  Packets NextStore() {
    Packets store = saved_;
    if (Chance(60)) store.clear();
    for (size_t n = Below(4); n > 0 && !store.empty(); --n) {
      store.erase(store.begin() + static_cast<std::ptrdiff_t>(Chance(2) ? 0 : Below(store.size())));
    }
    if (Chance(6) && store.size() > 1) std::swap(store.front(), store[Below(store.size())]);
    for (size_t n = Below(4); n > 0; --n) store.push_back(NewPacket());
    if (store.size() > 40) store.erase(store.begin(), store.begin() + 20);
    return store;
  }

  void Look() {
    if (folder_ == nullptr) return;
    ++looks_;
    TempFolder copy;
    CopyFolder(folder_->path(), copy.path());
    Check(Load(copy));
  }
  static Packets Load(const TempFolder& folder) {
    ReliableReportCacheFile file;
    EXPECT_TRUE(file.Open(base::FilePath(folder.File("channel.cache"))));
    return ReadAll(&file);
  }
  void Check(const Packets& found) {
    const Packets required = Union(saved_, appended_);
    Packets possible = Union(before_last_, Union(saved_, appended_));
    if (!in_flight_.empty()) possible = Union(possible, {in_flight_});
    if (!in_flight_.empty()) {  // It may be the second of its kind.
      Packets with = appended_;
      with.push_back(in_flight_);
      possible = Union(possible, with);
    }
    ASSERT_TRUE(HoldsAll(found, required)) << found.size() << " found, " << required.size();
    ASSERT_TRUE(HoldsAll(possible, found)) << found.size() << " found, " << possible.size();
    ASSERT_TRUE(IsSubsequence(appended_, found));
  }

  void AppendLitter() {
    std::FILE* const file = std::fopen(folder_->File("channel.cache").c_str(), "ab");
    ASSERT_NE(file, nullptr);
    const std::string litter(1 + Below(5000), 'z');
    ASSERT_EQ(std::fwrite(litter.data(), 1, litter.size(), file), litter.size());
    ASSERT_EQ(std::fclose(file), 0);
  }

  void Kill() {
    ++kills_;
    auto copy = std::make_unique<TempFolder>();
    CopyFolder(folder_->path(), copy->path());
    const size_t kept = Union(saved_, appended_).size();
    Restart(std::move(copy));
    brought_back_ += saved_.size() - std::min(saved_.size(), kept);
  }
  void Close() {
    const Packets saved = saved_;
    file_->Close();
    Reopen();
    ASSERT_EQ(saved_, saved);
  }
  void Restart(std::unique_ptr<TempFolder> folder) {
    DiskCalls::AtEachChange(nullptr);
    file_.reset();
    folder_ = std::move(folder);
    Reopen();
  }
  void Reopen() {
    DiskCalls::AtEachChange(nullptr);
    file_ = std::make_unique<ReliableReportCacheFile>();
    ASSERT_TRUE(file_->Open(base::FilePath(folder_->File("channel.cache"))));
    saved_ = appended_ = before_last_ = ReadAll(file_.get());
    in_flight_.clear();
    DiskCalls::AtEachChange([this] { Look(); });
  }

  std::mt19937_64 random_;
  std::unique_ptr<TempFolder> folder_;
  std::unique_ptr<ReliableReportCacheFile> file_;
  Packets before_last_;  // What the last save may still have to drop; else that save.
  Packets saved_;        // The last complete save.
  Packets appended_;     // Of the save under way; equal to saved_ when it is complete.
  std::string in_flight_;
  uint64_t next_packet_ = 0;
  size_t unasked_ = 0;
  size_t looks_ = 0;
  size_t kills_ = 0;
  size_t brought_back_ = 0;
};

TEST_F(CacheFileKillTest, RandomSavesKilledAnywhereLoseNothing) {
  const uint64_t seed =
      NumberOr("QUENOR_TEST_SEED",
               static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()));
  std::printf("QUENOR_TEST_SEED=%llu\n", static_cast<unsigned long long>(seed));
  const uint64_t saves = NumberOr("QUENOR_TEST_CACHE_SAVES", 200);

  Model model(seed);
  for (uint64_t i = 0; i < saves && !HasFailure(); ++i) model.Step();

  std::printf(
      "%llu saves, %zu never asked about, %zu moments looked at, %zu restarts, %zu retired packets "
      "came back\n",
      static_cast<unsigned long long>(saves), model.unasked(), model.looks(), model.kills(),
      model.brought_back());
  EXPECT_GT(model.looks(), saves);
}

TEST_F(CacheFileKillTest, EveryAppendThatReturnedTrueComesBack) {
  const Packets old = {"a", "b", "c"};
  Write(old);
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  ASSERT_TRUE(file.Clear());
  EXPECT_EQ(Sorted(AfterKill()), Sorted(old));

  ASSERT_TRUE(Append(&file, "b"));
  EXPECT_EQ(Sorted(AfterKill()), Sorted(old));
  ASSERT_TRUE(Append(&file, "new"));
  EXPECT_EQ(AfterKill(), (Packets{"b", "new", "a", "c"}));
  ASSERT_TRUE(Append(&file, "a"));
  EXPECT_EQ(AfterKill(), (Packets{"b", "new", "a", "c"}));
}

TEST_F(CacheFileKillTest, TheOrderOfTheSaveUnderWaySurvives) {
  Write({"a", "b", "c", "d"});
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));

  ASSERT_TRUE(Save(&file, {"c", "d", "a", "b"}));

  EXPECT_EQ(AfterKill(), (Packets{"c", "d", "a", "b"}));
}

TEST_F(CacheFileKillTest, WhatACompleteSaveDroppedDoesNotComeBack) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  for (const Packets& packets : std::vector<Packets>{
           {"a", "b", "c"}, {"b", "c"}, {"c", "b"}, {}, {"d"}, {"e"}, {"e", "f"}, {"f"}}) {
    ASSERT_TRUE(Save(&file, packets));
    ASSERT_TRUE(file.IsSaveComplete());

    EXPECT_EQ(AfterKill(), packets);
    ASSERT_TRUE(file.Clear());
    EXPECT_EQ(AfterKill(), packets);
  }
}

// Each of the saves, which nobody asks about, retires one packet; only the last may come back.
TEST_F(CacheFileKillTest, AtMostOneSavesRetiredPacketsComeBack) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));
  Packets packets = {"a", "b", "c", "d", "e"};
  ASSERT_TRUE(Save(&file, packets));
  while (packets.size() > 1) {
    const Packets before = packets;
    packets.erase(packets.begin());

    ASSERT_TRUE(Save(&file, packets));

    EXPECT_EQ(Sorted(AfterKill()), Sorted(before));
  }
}

TEST_F(CacheFileKillTest, ACreationKilledAnywhereIsBegunAgain) {
  size_t moments = 0;
  DiskCalls::AtEachChange([&] {
    ++moments;
    EXPECT_TRUE(AfterKill().empty());
  });

  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));

  DiskCalls::Reset();
  EXPECT_GE(moments, 4u);
  EXPECT_TRUE(Complaints().empty());
}

TEST_F(CacheFileKillTest, ARepairKilledAnywhereLosesNothing) {
  Write({"a", "b", "c"});
  std::string damaged = Bytes();
  damaged[32 + 32] ^= 1;  // The body of the first packet.
  ASSERT_TRUE(WriteWholeFile(path(), damaged));
  size_t moments = 0;
  DiskCalls::AtEachChange([&] {
    ++moments;
    EXPECT_EQ(AfterKill(), (Packets{"b", "c"}));
  });

  ReliableReportCacheFile file;
  ASSERT_TRUE(file.Open(file_path()));

  DiskCalls::Reset();
  EXPECT_GE(moments, 5u);
  EXPECT_EQ(ReadAll(&file), (Packets{"b", "c"}));
  EXPECT_EQ(ReadWholeFile(aside()), damaged);
  EXPECT_FALSE(Exists(recovered()));
}

TEST_F(CacheFileKillTest, ALeftOverRewriteIsRemoved) {
  Write({"a"});
  ASSERT_TRUE(WriteWholeFile(recovered(), Bytes() + "more"));

  EXPECT_EQ(Reopened(), Packets{"a"});

  EXPECT_FALSE(Exists(recovered()));
  EXPECT_TRUE(Complaints().empty());
}

TEST_F(CacheFileKillTest, AnInterruptedRepairIsCarriedOn) {
  Write({"a"});
  ASSERT_EQ(rename(path().c_str(), recovered().c_str()), 0);

  EXPECT_EQ(Reopened(), Packets{"a"});

  EXPECT_TRUE(Exists(path()));
  EXPECT_FALSE(Exists(recovered()));
}

// --- Real processes -----------------------------------------------------------------------------

void KillAndWait(pid_t child) {
  kill(child, SIGKILL);
  ASSERT_EQ(ReapPatiently(child), -SIGKILL);
}

TEST_F(CacheFileKillTest, AKilledOwnersPacketsAreThereAtOnce) {
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  const pid_t child = ForkChild([&] {
    ReliableReportCacheFile file;
    const bool saved = file.Open(file_path()) && Save(&file, {"a", "b"});
    if (write(pipe_ends[1], saved ? "1" : "0", 1) != 1) return 1;
    for (;;) pause();
  });
  char answer = 0;
  ASSERT_EQ(read(pipe_ends[0], &answer, 1), 1);
  ASSERT_EQ(answer, '1');

  KillAndWait(child);

  EXPECT_EQ(Reopened(), (Packets{"a", "b"}));
  close(pipe_ends[0]);
  close(pipe_ends[1]);
}

TEST_F(CacheFileKillTest, OwnersKilledAmidTheirSavesLeaveWhatTheyReported) {
  for (int round = 0; round < 10; ++round) {
    int pipe_ends[2];
    ASSERT_EQ(pipe(pipe_ends), 0);
    const pid_t child = ForkChild([&] {
      // Saves a sliding window of ten; reports each save that is complete.
      ReliableReportCacheFile file;
      if (!file.Open(file_path())) return 1;
      for (uint32_t next = 0;; ++next) {
        Packets packets;
        for (uint32_t i = next; i < next + 10; ++i) packets.push_back(std::to_string(i));
        if (!Save(&file, packets)) return 1;
        if (write(pipe_ends[1], &next, sizeof next) != sizeof next) return 1;
      }
    });
    close(pipe_ends[1]);
    uint32_t reported = 0;
    for (int i = 0; i < 100 * (round + 1); ++i) {
      ASSERT_EQ(read(pipe_ends[0], &reported, sizeof reported), ssize_t{sizeof reported});
    }
    KillAndWait(child);
    while (read(pipe_ends[0], &reported, sizeof reported) == ssize_t{sizeof reported}) {
    }
    close(pipe_ends[0]);

    const Packets found = Reopened();
    // It may have been one save further, which retires one.
    Packets required;
    for (uint32_t i = reported + 1; i < reported + 10; ++i) required.push_back(std::to_string(i));
    EXPECT_TRUE(HoldsAll(found, required)) << "after save " << reported;
    EXPECT_LE(found.size(), 12u);
    EXPECT_TRUE(Complaints().empty());
    ASSERT_EQ(remove(path().c_str()), 0);
  }
}

}  // namespace
}  // namespace quenor::test
