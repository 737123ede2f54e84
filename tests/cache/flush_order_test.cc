// The power goes when only what was flushed is on the disk, at durability 2: of each file the bytes
// of its last flush, of the folder the names of its last flush or those of that very moment. What
// was taken by then is found, whatever else was written: so nothing may be told, and no name may be
// given, ahead of the flush that it rests on. Of the mapped file anything that was stored may be
// there besides: each sector of its table and each page behind it is tried alone, and all but it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/cache/support/cache_files.h"
#include "tests/cache/support/file_calls.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

// By file.
using Bytes = std::map<ino_t, std::string>;

class FlushedOnly : public CallObserver {
 public:
  explicit FlushedOnly(const std::string& folder) : folder_(folder) { AllIsFlushed(); }

  // Everything is on the disk as it is.
  void AllIsFlushed() {
    names_ = Names();
    bytes_ = Now();
  }
  // Not even the bytes that the files had before.
  void NothingIsFlushed() {
    for (auto& [inode, bytes] : bytes_) bytes.clear();
  }
  uint64_t looks() const { return looks_; }

  // Not within an opening or closing, which hold a lock that a look needs.
  void Before(const CallInfo& info) override {
    if (info.call == Call::kFsync || info.call == Call::kUnlink || IsRename(info.call)) {
      Look(FileCalls::Name(info.call));
    }
  }
  void After(const CallInfo& info) override {
    if (info.call == Call::kOpen) ForgetNewFiles();
    if (IsRename(info.call)) Look("after a rename");
    if (info.call != Call::kFsync && info.call != Call::kFdatasync) return;
    struct stat flushed;
    ASSERT_EQ(0, fstat(info.fd, &flushed));
    if (S_ISDIR(flushed.st_mode)) {
      names_ = Names();
    } else {
      bytes_[flushed.st_ino] = ReadWholeFile("/proc/self/fd/" + std::to_string(info.fd));
    }
  }

 protected:
  using NameMap = std::map<std::string, ino_t>;

  static bool IsRename(Call call) { return call == Call::kRename || call == Call::kRenameat2; }
  void Look(const std::string& when) {
    const FileCalls::Unseen unseen;
    for (const NameMap& names : {names_, Names()}) {
      for (const Bytes& bytes : Possible()) {
        const TempFolder after;
        for (const auto& [name, inode] : names) {
          const auto found = bytes.find(inode);
          ASSERT_TRUE(WriteWholeFile(after.File(name),
                                     found == bytes.end() ? std::string() : found->second));
        }
        ++looks_;
        Judge(after.File("channel"), when);
      }
    }
  }
  // What a start finds there.
  virtual void Judge(const std::string& path, const std::string& when) = 0;
  // What the files may hold.
  virtual std::vector<Bytes> Possible() { return {bytes_}; }
  Bytes Now() const {
    Bytes now;
    for (const auto& [name, inode] : Names()) now[inode] = ReadWholeFile(folder_ + "/" + name);
    return now;
  }

  Bytes bytes_;  // Flushed.

 private:
  NameMap Names() const {
    NameMap names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      struct stat info;
      if (lstat(entry.path().c_str(), &info) == 0) names[entry.path().filename()] = info.st_ino;
    }
    return names;
  }
  // They may have the number of one that is gone.
  void ForgetNewFiles() {
    for (const auto& [name, inode] : Names()) {
      if (SizeOf(folder_ + "/" + name) == 0) bytes_.erase(inode);
    }
  }

  const std::string folder_;
  NameMap names_;
  uint64_t looks_ = 0;
};

class FlushedPlain : public FlushedOnly {
 public:
  using FlushedOnly::FlushedOnly;

  void StartAgain() {
    AllIsFlushed();
    promised_.clear();
  }
  // What a start has to find from now on, in any order.
  void SetPromised(const Packets& packets) {
    promised_ = std::multiset<std::string>(packets.begin(), packets.end());
    Look("what was taken");
  }
  void AddPromised(const std::string& packet) {
    if (promised_.count(packet) == 0) promised_.insert(packet);
    Look("a packet that was taken");
  }

 private:
  void Judge(const std::string& path, const std::string& when) override {
    const Packets found = LoadPlain(path);
    std::multiset<std::string> missing = promised_;
    for (const std::string& packet : found) {
      const auto hit = missing.find(packet);
      if (hit != missing.end()) missing.erase(hit);
    }
    EXPECT_TRUE(missing.empty()) << when << ": of "
                                 << Show(Packets(promised_.begin(), promised_.end())) << "\n  only "
                                 << Show(found);
  }

  std::multiset<std::string> promised_;
};

class FlushedMapped : public FlushedOnly {
 public:
  using FlushedOnly::FlushedOnly;

  // What a start has to find from now on, whole and nothing else, in any order: one of them.
  // Nothing is promised before the first call.
  void SetContents(const Packets& confirmed, const Packets& under_way) {
    confirmed_ = Sorted(confirmed);
    under_way_ = Sorted(under_way);
    judged_.clear();
    is_silent_ = false;
    Look("what was confirmed");
  }
  // What a process leaves that is killed at a call from now on.
  std::vector<std::string>* killed = nullptr;

  void Before(const CallInfo& info) override {
    Note();
    switch (info.call) {
      case Call::kMsync:
      case Call::kFdatasync:
      case Call::kFallocate:
      case Call::kPosixFallocate:
      case Call::kFtruncate:
      case Call::kPwrite:
        Look(FileCalls::Name(info.call));
        break;
      default:
        FlushedOnly::Before(info);
    }
  }
  void After(const CallInfo& info) override {
    const uint8_t* const address = static_cast<const uint8_t*>(info.address);
    switch (info.call) {
      case Call::kMmap: {
        if (info.fd < 0) break;
        struct stat mapped;
        ASSERT_EQ(0, fstat(info.fd, &mapped));
        maps_[address] = {mapped.st_ino, info.offset};
        break;
      }
      case Call::kMunmap:
        maps_.erase(address);
        break;
      case Call::kMsync: {
        const auto [begin, map] = *std::prev(maps_.upper_bound(address));
        NoteFlush(map.first, map.second + static_cast<uint64_t>(address - begin), info.size);
        break;
      }
      case Call::kFallocate:
      case Call::kFtruncate:
      case Call::kPwrite:
        Look(FileCalls::Name(info.call));
        break;
      default:
        FlushedOnly::After(info);
    }
  }

 private:
  static constexpr uint64_t kTable = 16384;
  static constexpr uint64_t kSector = 512;
  static constexpr uint64_t kPage = 4096;
  using Range = std::pair<uint64_t, uint64_t>;

  static Packets Sorted(Packets packets) {
    std::sort(packets.begin(), packets.end());
    return packets;
  }
  static void Copy(const std::string& from, Range range, std::string* to) {
    const uint64_t end = std::min<uint64_t>(range.second, from.size());
    if (range.first >= end) return;
    if (to->size() < end) to->resize(end, '\0');
    to->replace(range.first, end - range.first, from, range.first, end - range.first);
  }
  void NoteFlush(ino_t inode, uint64_t begin, uint64_t size) {
    const Bytes now = Now();
    const auto file = now.find(inode);
    if (file == now.end()) return;  // It has no name any more.
    // Whole pages go, and with them the length.
    bytes_[inode].resize(file->second.size(), '\0');
    Copy(file->second, {begin / kPage * kPage, (begin + size + kPage - 1) / kPage * kPage},
         &bytes_[inode]);
  }
  void Note() {
    if (killed == nullptr) return;
    for (const auto& [inode, bytes] : Now()) {
      if (killed->empty() || killed->back() != bytes) killed->push_back(bytes);
    }
  }

  std::vector<Bytes> Possible() override {
    std::vector<Bytes> possible = {bytes_};
    for (const auto& file : Now()) {
      const ino_t inode = file.first;
      const std::string& now = file.second;
      std::string flushed = bytes_[inode];
      std::vector<Range> dirty;
      for (uint64_t at = 0; at < now.size();) {
        const uint64_t end = at + (at < kTable ? kSector : kPage);
        std::string was = flushed.substr(std::min<uint64_t>(at, flushed.size()), end - at);
        was.resize(std::min<uint64_t>(end, now.size()) - at, '\0');
        if (now.compare(at, end - at, was) != 0) dirty.push_back({at, end});
        at = end;
      }
      const auto add = [&](const std::string& bytes) {
        possible.push_back(bytes_);
        possible.back()[inode] = bytes;
      };
      add(now);
      for (const Range& range : dirty) {
        std::string alone = flushed, without = now;
        Copy(now, range, &alone);
        add(alone);
        flushed.resize(std::max(flushed.size(), now.size()), '\0');
        Copy(flushed, range, &without);
        add(without);
      }
    }
    return possible;
  }
  void Judge(const std::string& path, const std::string& when) override {
    if (is_silent_ || ::testing::Test::HasFailure()) return;
    if (!judged_.insert(std::hash<std::string>()(ReadWholeFile(path))).second) return;
    const Packets found = Sorted(LoadMapped(path));
    EXPECT_TRUE(found == confirmed_ || found == under_way_)
        << when << ": found " << Show(found) << "\n  confirmed " << Show(confirmed_)
        << "\n  under way " << Show(under_way_);
  }

  std::map<const uint8_t*, std::pair<ino_t, uint64_t>> maps_;
  Packets confirmed_;
  Packets under_way_;
  std::set<size_t> judged_;
  bool is_silent_ = true;
};

class FlushOrderTest : public ::testing::Test {
 protected:
  ~FlushOrderTest() override { FileCalls::Reset(); }

  void SaveAs(ReliableReportCacheFile& file, FlushedPlain& disk, const Packets& packets) {
    ASSERT_TRUE(file.Clear());
    for (const std::string& packet : packets) {
      ASSERT_TRUE(Append(file, packet));
      disk.AddPromised(packet);
    }
    ASSERT_TRUE(file.IsSaveComplete());
    disk.SetPromised(packets);
  }

  bool OpenOnDisk(ReliableReportCacheFile& file) {
    const DurabilityScope durability(2);
    return OpenFile(file, path_);
  }

  const TempFolder folder_;
  const std::string path_ = folder_.File("channel");
};

TEST_F(FlushOrderTest, SavesRewritesAndRepairsTellNothingAheadOfTheirFlush) {
  const uint64_t seed = TestSeed();
  Random random(seed);
  FlushedPlain disk(folder_.path());
  FileCalls::Reset();
  FileCalls::Observe(&disk);
  Packets packets;
  size_t number = 0;
  uint64_t rewrites = 0;
  for (int life = 0; life < 4 && !HasFailure(); ++life) {
    ReliableReportCacheFile file;
    ASSERT_TRUE(OpenOnDisk(file));
    disk.SetPromised(packets);
    for (int save = 0; save < 6 && !HasFailure(); ++save) {
      if (Below(random, 4) == 0) packets.clear();
      if (packets.size() > 2) packets.erase(packets.begin());
      if (packets.size() > 1 && Below(random, 4) == 0) std::swap(packets[0], packets[1]);
      // Long enough that no packet stands within another one.
      const size_t size = Below(random, 3) == 0 ? 40000 : 20 + Below(random, 300);
      for (uint64_t n = 1 + Below(random, 3); n > 0; --n) {
        packets.push_back(NamedPacket("p", number++, size));
      }
      ASSERT_NO_FATAL_FAILURE(SaveAs(file, disk, packets));
    }
    file.Close();
    disk.SetPromised(packets);
    rewrites = FileCalls::Count(Call::kRename);
    if (life % 2 == 0) continue;
    // A byte of one packet is changed, and that is on the disk.
    FileCalls::Observe(nullptr);
    std::string bytes = ReadWholeFile(path_);
    const size_t at = bytes.find(packets.back());
    ASSERT_NE(std::string::npos, at);
    bytes[at] = static_cast<char>(~bytes[at]);
    ASSERT_TRUE(WriteWholeFile(path_, bytes));
    packets.pop_back();
    disk.StartAgain();
    FileCalls::Observe(&disk);
    disk.SetPromised(packets);
  }
  FileCalls::Observe(nullptr);

  std::cout << "flush order: " << disk.looks() << " looks, " << rewrites
            << " renames; QUENOR_TEST_SEED=" << seed << std::endl;
  EXPECT_GT(rewrites, 0u);
  EXPECT_GT(disk.looks(), 300u);
}

// The same of the mapped file, of which several may be owners.
class MappedFlushOrderTest : public FlushOrderTest {
 protected:
  using File = MultiProcessSafetyMmapFile;

  void SetUp() override { FileCalls::Reset(); }
  void Watch() { FileCalls::Observe(&disk_); }

  // `others`: what further owners hold.
  void SaveAs(File& file, const Packets& next, const Packets& others = {}) {
    if (HasFailure()) return;
    const auto with_others = [&](Packets packets) {
      packets.insert(packets.end(), others.begin(), others.end());
      return packets;
    };
    disk_.SetContents(with_others(packets_), with_others(next));
    ASSERT_TRUE(Save(file, next));
    packets_ = next;
    disk_.SetContents(with_others(packets_), with_others(packets_));
  }
  bool OpenOnDisk(File& file) {
    const DurabilityScope durability(2);
    return OpenFile(file, path_);
  }
  void Report(const char* what) {
    FileCalls::Reset();
    std::cout << "flush order, " << what << ": " << disk_.looks() << " looks" << std::endl;
    EXPECT_GT(disk_.looks(), 100u);
  }

  FlushedMapped disk_{folder_.path()};
  Packets packets_;
};

Packets Part(const Packets& packets, size_t begin, size_t end) {
  return Packets(packets.begin() + static_cast<long>(begin),
                 packets.begin() + static_cast<long>(end));
}

// New, longer, with an index among the packets, in a gap, shorter, empty, closed.
TEST_F(MappedFlushOrderTest, SavesThatGrowAndShrinkTellNothingAheadOfTheirFlush) {
  const Packets few = NamedPackets("few", 8, 900), large = NamedPackets("large", 9, 20000),
                many = NamedPackets("many", 320, 60);
  Watch();
  {
    File file;
    ASSERT_TRUE(OpenOnDisk(file));
    for (const Packets& next :
         {Part(few, 0, 3), Part(few, 1, 8), Part(few, 4, 8), Part(large, 0, 2), Part(large, 1, 9),
          Part(large, 8, 9), Part(many, 0, 300), Part(many, 3, 320), Part(many, 200, 320),
          Part(few, 2, 5), Packets(), Part(few, 0, 1), Packets()}) {
      SaveAs(file, next);
    }
  }
  disk_.SetContents({}, {});
  Report("growing and shrinking");
}

// What stands behind it makes it move; what it leaves is another's next.
TEST_F(MappedFlushOrderTest, MovingTellsNothingAheadOfItsFlush) {
  const Packets own = NamedPackets("own", 30, 4000);
  Packets others = {"of the other"};
  File file, other;
  Watch();
  ASSERT_TRUE(OpenOnDisk(file) && OpenOnDisk(other));
  ASSERT_TRUE(Save(file, packets_ = Part(own, 0, 2)) && Save(other, others));

  SaveAs(file, Part(own, 1, 12), others);
  std::swap(packets_, others);
  SaveAs(other, NamedPackets("theirs", 5, 7000), others);
  std::swap(packets_, others);
  SaveAs(file, Part(own, 10, 30), others);
  SaveAs(file, Part(own, 29, 30), others);

  Report("moving");
}

// Of three dead owners, who flushed nothing.
TEST_F(MappedFlushOrderTest, TakingOverTellsNothingAheadOfItsFlush) {
  {
    File dead[3];
    for (File& file : dead) ASSERT_TRUE(OpenFile(file, path_));
    for (size_t i = 0; i < 3; ++i) {
      ASSERT_TRUE(Save(dead[i], NamedPackets("of " + std::to_string(i), 4, 800)));
    }
  }
  disk_.AllIsFlushed();
  disk_.NothingIsFlushed();
  Watch();
  File heir;
  ASSERT_TRUE(OpenOnDisk(heir));
  packets_ = ReadAll(heir);
  ASSERT_EQ(12u, packets_.size());

  SaveAs(heir, Part(packets_, 1, 12));
  SaveAs(heir, Part(packets_, 3, 9));

  Report("taking over");
}

// Killed at any call of that, and taken over from: what the next one finishes.
TEST_F(MappedFlushOrderTest, FinishingATakeOverTellsNothingAheadOfItsFlush) {
  {
    File dead[2];
    for (File& file : dead) ASSERT_TRUE(OpenFile(file, path_));
    ASSERT_TRUE(Save(dead[0], NamedPackets("first", 3, 700)));
    ASSERT_TRUE(Save(dead[1], NamedPackets("second", 3, 700)));
  }
  std::vector<std::string> killed;
  Watch();
  {
    File heir;
    ASSERT_TRUE(OpenOnDisk(heir));
    disk_.killed = &killed;
    ASSERT_TRUE(Save(heir, {NamedPacket("second", 1, 700), "new"}));
    FileCalls::Reset();
    disk_.killed = nullptr;
  }
  ASSERT_GE(killed.size(), 3u);
  for (const std::string& bytes : killed) {
    ASSERT_TRUE(WriteWholeFile(path_, bytes));
    const TempFolder beside;
    ASSERT_TRUE(WriteWholeFile(beside.File("channel"), bytes));
    packets_ = LoadMapped(beside.File("channel"));
    disk_.AllIsFlushed();
    disk_.SetContents(packets_, packets_);
    Watch();
    File next;
    ASSERT_TRUE(OpenOnDisk(next));
    SaveAs(next, Part(packets_, 1, packets_.size()));
    FileCalls::Reset();
  }
  Report("finishing a take-over");
}

TEST_F(MappedFlushOrderTest, ARepairTellsNothingAheadOfItsFlush) {
  {
    File first, second;
    ASSERT_TRUE(OpenFile(first, path_) && OpenFile(second, path_));
    ASSERT_TRUE(Save(first, NamedPackets("first", 5, 700)));
    ASSERT_TRUE(Save(second, NamedPackets("second", 5, 700)));
  }
  std::string bytes = ReadWholeFile(path_);
  const size_t at = bytes.find(NamedPacket("first", 2, 700));
  ASSERT_NE(std::string::npos, at);
  bytes[at] = static_cast<char>(~bytes[at]);
  ASSERT_TRUE(WriteWholeFile(path_, bytes));
  for (const char* name : {"first", "second"}) {
    for (const std::string& packet : NamedPackets(name, 5, 700)) packets_.push_back(packet);
  }
  packets_.erase(packets_.begin() + 2);
  disk_.AllIsFlushed();
  disk_.SetContents(packets_, packets_);
  Watch();

  File file;
  ASSERT_TRUE(OpenOnDisk(file));
  SaveAs(file, Part(packets_, 2, 9));

  Report("a repair");
}

}  // namespace
}  // namespace quenor::test
