// A channel on virtual time with a cache in memory, of the backend that this executable has.
#ifndef QUENOR_TESTS_UNIT_CHANNEL_CACHE_CHANNEL_CACHE_FIXTURE_H_
#define QUENOR_TESTS_UNIT_CHANNEL_CACHE_CHANNEL_CACHE_FIXTURE_H_

#include <string>
#include <utility>
#include <vector>

#include "tests/support/channel_test_fixture.h"
#include "tests/support/fakes/fake_path_service.h"
#include "tests/unit/channel_cache/cache_backend.h"

namespace quenor::test {

class ChannelCacheTest : public ChannelTest {
 protected:
  using Packets = FakePacketFiles::Packets;
  using Operation = FileCall::Operation;

  ChannelCacheTest() {
    Backend().files.Clear();
    Backend().other_files.Clear();
    FakePaths::Clear();
  }

  void TearDown() override {
    ChannelTest::TearDown();
    EXPECT_EQ(Backend().files.OpenObjects(), 0u) << "a file is left open";
    EXPECT_TRUE(Backend().other_files.Calls().empty()) << "the other backend was touched";
  }

  static FakePacketFiles& Files() { return Backend().files; }
  static std::string PathOf(const std::string& name) {
    return "/reports/quenor_report/" + name + Backend().suffix;
  }
  static std::string Path() { return PathOf(kName); }
  static Packets Content() { return Files().Content(Path()); }

  // A new channel object, as after a restart of the process.
  void Restart(bool compress = false) {
    Stop();
    Start(compress);
  }

  // The channel's own lines of a level; a file has lines of its own.
  static Texts ChannelLog(int level) {
    Texts texts;
    for (LogLine& line : RecordingLog::Lines()) {
      if (line.level == level && line.file == kSourcePath) texts.push_back(std::move(line.text));
    }
    return texts;
  }
  static std::string Loaded(unsigned int bytes, const std::string& name = kName) {
    return "load " + name + Backend().suffix + " successfully, data size is " +
           std::to_string(bytes);
  }

  // What the channel wrote since the last ForgetCalls(), call by call.
  static Texts Writes() {
    Texts writes;
    for (const FileCall& call : Files().Calls()) {
      if (call.operation == Operation::kClear) writes.push_back("clear");
      if (call.operation == Operation::kAppend) writes.push_back("append " + call.bytes);
    }
    return writes;
  }

  std::vector<uint32_t> SavedCounts() {
    std::vector<uint32_t> counts;
    for (const RecordedEvent& event : events_.OfKind(Kind::kSaved)) counts.push_back(event.count);
    return counts;
  }
  Texts BodiesTold(Kind kind) {
    Texts bodies;
    for (const RecordedEvent& event : events_.OfKind(kind)) bodies.push_back(event.data);
    return bodies;
  }
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_UNIT_CHANNEL_CACHE_CHANNEL_CACHE_FIXTURE_H_
