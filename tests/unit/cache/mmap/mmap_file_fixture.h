// What every test of the mapped file starts from: an empty folder, a path in it, an empty log.
#ifndef QUENOR_TESTS_UNIT_CACHE_MMAP_MMAP_FILE_FIXTURE_H_
#define QUENOR_TESTS_UNIT_CACHE_MMAP_MMAP_FILE_FIXTURE_H_

#include <gtest/gtest.h>

#include <string>

#include "tests/cache/support/cache_files.h"
#include "tests/cache/support/file_calls.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {

class MmapFileTest : public ::testing::Test {
 protected:
  MmapFileTest() { FileCalls::Reset(); }
  ~MmapFileTest() override { FileCalls::Reset(); }

  void SetUp() override { RecordingLog::Clear(); }

  // The file then holds them, and nobody has it open.
  void Leave(const Packets& packets) {
    MultiProcessSafetyMmapFile file;
    ASSERT_TRUE(OpenFile(file, path_));
    ASSERT_TRUE(Save(file, packets));
  }

  TempFolder folder_;
  const std::string path_ = folder_.File("channel.mmap");
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_UNIT_CACHE_MMAP_MMAP_FILE_FIXTURE_H_
