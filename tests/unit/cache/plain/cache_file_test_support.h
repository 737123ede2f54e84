// What the tests of the plain cache file share.
#ifndef QUENOR_TESTS_UNIT_CACHE_PLAIN_CACHE_FILE_TEST_SUPPORT_H_
#define QUENOR_TESTS_UNIT_CACHE_PLAIN_CACHE_FILE_TEST_SUPPORT_H_

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "quenor_base/platform/base/file_path.h"
#include "quenor_base/platform/config_center.h"
#include "quenor_base/platform/reliable_report_cache_file.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/temp_folder.h"
#include "tests/unit/cache/plain/disk_calls.h"

namespace quenor::test {

using Packets = std::vector<std::string>;
using DataPacket = ReliableReportCacheFile::DataPacket;

inline bool Append(ReliableReportCacheFile* file, const std::string& bytes) {
  return file->AppendDataPacket(
      {reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())});
}

// Clear() and every append. False when any of them was refused.
inline bool Save(ReliableReportCacheFile* file, const Packets& packets) {
  bool saved = file->Clear();
  for (const std::string& packet : packets) saved = Append(file, packet) && saved;
  return saved;
}

inline Packets ReadAll(ReliableReportCacheFile* file) {
  Packets packets;
  for (DataPacket packet = file->GetNextDataPacket(); packet.size > 0;
       packet = file->GetNextDataPacket()) {
    packets.emplace_back(reinterpret_cast<const char*>(packet.data), packet.size);
  }
  return packets;
}

// True when each of `wanted` is in `packets`, as often as it is in `wanted`.
inline bool HoldsAll(const Packets& packets, const Packets& wanted) {
  std::vector<std::string_view> have(packets.begin(), packets.end());
  std::vector<std::string_view> need(wanted.begin(), wanted.end());
  std::sort(have.begin(), have.end());
  std::sort(need.begin(), need.end());
  return std::includes(have.begin(), have.end(), need.begin(), need.end());
}

inline Packets Sorted(Packets packets) {
  std::sort(packets.begin(), packets.end());
  return packets;
}

// Every packet as often as in whichever of the two has it more often.
inline Packets Union(const Packets& a, const Packets& b) {
  std::map<std::string, size_t> in_a;
  std::map<std::string, size_t> in_b;
  for (const std::string& packet : a) ++in_a[packet];
  for (const std::string& packet : b) ++in_b[packet];
  Packets both = a;
  for (const auto& [packet, count] : in_b) {
    const size_t have = in_a[packet];
    for (size_t i = have; i < count; ++i) both.push_back(packet);
  }
  return both;
}

inline uint64_t FileBytes(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
}

inline bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

// Every file of a folder, in a new folder.
inline void CopyFolder(const std::string& from, const std::string& to) {
  std::filesystem::copy(from, to, std::filesystem::copy_options::recursive);
}

inline void SetDurability(uint64_t value) {
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_durability,
                                                           value);
}

// A number from the environment, for longer runs by hand and in `./dev check --full`.
inline uint64_t NumberOr(const char* name, uint64_t otherwise) {
  const char* const text = std::getenv(name);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

class CacheFileTest : public ::testing::Test {
 protected:
  CacheFileTest() {
    DiskCalls::Reset();
    SetDurability(0);
    RecordingLog::Clear();
  }
  ~CacheFileTest() override {
    DiskCalls::Reset();
    SetDurability(0);
  }

  const std::string& path() const { return path_; }
  std::string recovered() const { return path_ + ".recovered"; }
  std::string aside() const { return path_ + ".set-aside"; }
  base::FilePath file_path() const { return base::FilePath(path_); }

  // What an Open() of the file as it is now finds.
  Packets Reopened() {
    ReliableReportCacheFile file;
    EXPECT_TRUE(file.Open(file_path()));
    return ReadAll(&file);
  }
  // What an Open() would find if the process were killed now.
  Packets AfterKill() const {
    TempFolder copy;
    CopyFolder(folder_.path(), copy.path());
    ReliableReportCacheFile file;
    EXPECT_TRUE(file.Open(base::FilePath(copy.File("channel.cache"))))
        << ::testing::PrintToString(Complaints());
    return ReadAll(&file);
  }
  // A file with one completed save.
  void Write(const Packets& packets) {
    ReliableReportCacheFile file;
    ASSERT_TRUE(file.Open(file_path()));
    ASSERT_TRUE(Save(&file, packets));
  }
  std::string Bytes() const { return ReadWholeFile(path_); }
  static std::vector<std::string> Complaints() { return RecordingLog::Texts(2); }

  TempFolder folder_;
  const std::string path_ = folder_.File("channel.cache");
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_UNIT_CACHE_PLAIN_CACHE_FILE_TEST_SUPPORT_H_
