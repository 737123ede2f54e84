// The power goes when only what was flushed is on the disk, at durability 2: of each file the bytes
// of its last flush, of the folder the names of its last flush or those of that very moment. What
// was taken by then is found, whatever else was written: so nothing may be told, and no name may be
// given, ahead of the flush that it rests on.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <iostream>
#include <map>
#include <set>
#include <string>

#include "tests/cache/support/cache_files.h"
#include "tests/cache/support/file_calls.h"
#include "tests/support/recording_log.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

class FlushedOnly : public CallObserver {
 public:
  explicit FlushedOnly(const std::string& folder) : folder_(folder) { StartAgain(); }

  // Everything is on the disk as it is, and nothing is promised.
  void StartAgain() {
    names_ = Names();
    bytes_.clear();
    for (const auto& [name, inode] : names_) bytes_[inode] = ReadWholeFile(folder_ + "/" + name);
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
  uint64_t looks() const { return looks_; }

  // Not within an opening or closing, which hold a lock that Look() needs.
  void Before(const CallInfo& info) override {
    if (info.call == Call::kFsync || info.call == Call::kUnlink || IsRename(info.call)) {
      Look(FileCalls::Name(info.call));
    }
  }
  void After(const CallInfo& info) override {
    if (info.call == Call::kOpen) ForgetNewFiles();
    if (IsRename(info.call)) Look("after a rename");
    if (info.call != Call::kFsync) return;
    struct stat flushed;
    ASSERT_EQ(0, fstat(info.fd, &flushed));
    if (S_ISDIR(flushed.st_mode)) {
      names_ = Names();
    } else {
      bytes_[flushed.st_ino] = ReadWholeFile("/proc/self/fd/" + std::to_string(info.fd));
    }
  }

 private:
  using NameMap = std::map<std::string, ino_t>;

  static bool IsRename(Call call) { return call == Call::kRename || call == Call::kRenameat2; }
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
  void Look(const std::string& when) {
    for (const NameMap& names : {names_, Names()}) {
      const TempFolder after;
      for (const auto& [name, inode] : names) {
        const auto bytes = bytes_.find(inode);
        ASSERT_TRUE(WriteWholeFile(after.File(name),
                                   bytes == bytes_.end() ? std::string() : bytes->second));
      }
      const Packets found = LoadPlain(after.File("channel"));
      std::multiset<std::string> missing = promised_;
      for (const std::string& packet : found) {
        const auto hit = missing.find(packet);
        if (hit != missing.end()) missing.erase(hit);
      }
      ++looks_;
      EXPECT_TRUE(missing.empty())
          << when << ": of " << Show(Packets(promised_.begin(), promised_.end())) << "\n  only "
          << Show(found);
    }
  }

  const std::string folder_;
  NameMap names_;
  std::map<ino_t, std::string> bytes_;
  std::multiset<std::string> promised_;
  uint64_t looks_ = 0;
};

class FlushOrderTest : public ::testing::Test {
 protected:
  ~FlushOrderTest() override { FileCalls::Reset(); }

  void SaveAs(ReliableReportCacheFile& file, FlushedOnly& disk, const Packets& packets) {
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
  FlushedOnly disk(folder_.path());
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
      const size_t size = Below(random, 3) == 0 ? 40000 : 1 + Below(random, 300);
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

}  // namespace
}  // namespace quenor::test
