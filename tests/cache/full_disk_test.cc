// A file system of its own, of 1 MiB, that is full: both kinds of cache file save what fits, keep
// what they have, and go on when there is room again.
#include <sys/mount.h>
#include <sys/statfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "tests/cache/support/cache_kind.h"

namespace quenor::test {
namespace {

constexpr uint64_t kDiskBytes = 1 << 20;

class SmallDisk {
 public:
  SmallDisk() {
    mounted_ = mount("quenor-test", folder_.path().c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
                     "size=1m,mode=0700") == 0;
    error_ = mounted_ ? 0 : errno;
  }
  ~SmallDisk() {
    if (mounted_ && umount(folder_.path().c_str()) != 0) std::perror("umount");
  }
  bool is_mounted() const { return mounted_; }
  int error() const { return error_; }
  uint64_t size() const {
    struct statfs info;
    if (statfs(folder_.path().c_str(), &info) != 0) return 0;
    return static_cast<uint64_t>(info.f_blocks) * static_cast<uint64_t>(info.f_bsize);
  }
  std::string File(const std::string& name) const { return folder_.File(name); }
  // By a file of somebody else's, of at most that length: until nothing more fits.
  void Fill(uint64_t most = kDiskBytes) const {
    std::FILE* const out = std::fopen(File("filler").c_str(), "ab");
    const std::string block(4096, 'f');
    for (uint64_t done = 0; done < most; done += block.size()) {
      if (std::fwrite(block.data(), 1, block.size(), out) != block.size() ||
          std::fflush(out) != 0) {
        break;
      }
    }
    std::fclose(out);
  }
  void Free() const { std::remove(File("filler").c_str()); }

 private:
  TempFolder folder_;
  bool mounted_ = false;
  int error_ = 0;
};

template <typename Kind>
class FullDiskTest : public CacheKindTest<Kind> {
 protected:
  // Only root may mount, and not in every container.
  void SetUp() override {
    if (!disk_.is_mounted()) {
      ASSERT_EQ(EPERM, disk_.error()) << std::strerror(disk_.error());
      GTEST_SKIP() << "no file system of 1 MiB can be mounted here (" << std::strerror(EPERM)
                   << "): run as root with CAP_SYS_ADMIN";
    }
    ASSERT_EQ(kDiskBytes, disk_.size());
  }

  // As a kill leaves it; the plain file may bring back what the last save dropped.
  void ExpectSurvivesAKill(const Packets& confirmed) {
    const std::string copy = this->folder_.File("copy");
    CopyAsIfKilled(path_, copy);
    const Packets found = Kind::Load(copy);
    if (!Kind::kIsPlain) {
      ASSERT_EQ(confirmed, found);
    }
    for (const std::string& packet : confirmed) {
      ASSERT_EQ(1, std::count(found.begin(), found.end(), packet)) << Show({packet});
    }
  }

  const SmallDisk disk_;
  const std::string path_ = disk_.File("channel");
};

TYPED_TEST_SUITE(FullDiskTest, CacheKinds, CacheKindName);

TYPED_TEST(FullDiskTest, SavesUntilItIsFullAndAgainWhenThereIsRoom) {
  typename TypeParam::File file;
  ASSERT_TRUE(OpenFile(file, this->path_));
  Packets packets, confirmed;
  size_t refused_at = 0;
  int refused = 0;
  this->disk_.Fill(kDiskBytes / 2);

  for (size_t i = 0; i < 250; ++i) {
    packets.push_back(NamedPacket("p", i, 4000));
    const bool saved = Save(file, packets);
    if (saved) confirmed = packets;
    if (!saved && refused++ == 0) refused_at = i;
    ASSERT_EQ(saved, file.IsSaveComplete());
    if (i % 20 == 0 || (!saved && refused == 1)) {
      ASSERT_NO_FATAL_FAILURE(this->ExpectSurvivesAKill(confirmed)) << i;
    }
  }
  EXPECT_GT(refused, 100);
  EXPECT_GT(LinesWith(2, "No space left on device"), 0);
  this->disk_.Fill();
  EXPECT_FALSE(Save(file, packets));
  // The same content, or less, fits where it is; but the plain file's seal may find no room.
  EXPECT_TRUE(Save(file, confirmed));
  confirmed.pop_back();
  EXPECT_TRUE(Save(file, confirmed) || TypeParam::kIsPlain);
  this->disk_.Free();
  EXPECT_TRUE(file.IsSaveComplete());
  EXPECT_TRUE(Save(file, NamedPackets("after", 20, 4000)));
  file.Close();

  EXPECT_EQ(NamedPackets("after", 20, 4000), TypeParam::Load(this->path_));
  std::cout << TypeParam::kName << ": full disk of " << this->disk_.size()
            << " bytes, mounted: the save of " << refused_at + 1
            << " packets of 4000 bytes was the first of " << refused << " that were refused"
            << std::endl;
}

// On 256 KiB, one message more in each save. The bounds are what each kind can do: the table and
// two thirds of the rest, or all of it.
TYPED_TEST(FullDiskTest, KeepsMessagesUntilTheDiskIsFull) {
  this->disk_.Fill(kDiskBytes - 256 * 1024);
  typename TypeParam::File file;
  ASSERT_TRUE(OpenFile(file, this->path_));
  size_t kept = 0;
  for (; kept < 40; ++kept) {
    if (!Save(file, NamedPackets("m", kept + 1, 9000))) break;
  }
  file.Close();

  std::cout << TypeParam::kName << ": a disk of 256 KiB keeps " << kept
            << " of 40 messages of 9000 bytes" << std::endl;
  EXPECT_GE(kept, 24u);
  EXPECT_EQ(NamedPackets("m", kept, 9000), TypeParam::Load(this->path_));
}

TYPED_TEST(FullDiskTest, OpenFailsOrWorksAndRecovers) {
  typename TypeParam::File file;
  this->disk_.Fill();

  const bool opened = OpenFile(file, this->path_);
  EXPECT_FALSE(opened && Save(file, NamedPackets("p", 20, 4000)));
  this->disk_.Free();
  ASSERT_TRUE(opened || OpenFile(file, this->path_));

  EXPECT_TRUE(Save(file, NamedPackets("p", 20, 4000)));
  file.Close();
  EXPECT_EQ(NamedPackets("p", 20, 4000), TypeParam::Load(this->path_));
}

TYPED_TEST(FullDiskTest, RepairLosesNothing) {
  const Packets all = NamedPackets("p", 20, 4000);
  {
    typename TypeParam::File file;
    ASSERT_TRUE(OpenFile(file, this->path_));
    ASSERT_TRUE(Save(file, all));
  }
  std::string bytes = ReadWholeFile(this->path_);
  const size_t hit = bytes.find(all[7]);
  ASSERT_NE(std::string::npos, hit);
  bytes[hit] = static_cast<char>(bytes[hit] ^ 1);
  ASSERT_TRUE(WriteWholeFile(this->path_, bytes));
  Packets intact = all;
  intact.erase(intact.begin() + 7);
  this->disk_.Fill();

  const Packets found = TypeParam::Load(this->path_);
  EXPECT_TRUE(found == intact || found == Packets{"cannot open"}) << Show(found);
  this->disk_.Free();

  EXPECT_EQ(intact, TypeParam::Load(this->path_));
  EXPECT_TRUE(ReadWholeFile(SetAside(this->path_)) == bytes);
}

}  // namespace
}  // namespace quenor::test
