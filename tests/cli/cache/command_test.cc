#include "cli/cache/command.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/cli/cache/fake_cache_inspector.h"
#include "tests/support/temp_folder.h"

namespace quenor::cli {
namespace {

using test::FakeCacheFile;
using test::GetFakeCacheFile;
using Inspector = CacheFileInspector;
using Verb = CacheCommand::Verb;

class CacheCommandTest : public ::testing::Test {
 protected:
  CacheCommandTest() {
    file_ = FakeCacheFile();
    file_.summary.mapped = true;
    file_.summary.version = 1;
    file_.summary.file_bytes = 4096;
  }
  ~CacheCommandTest() override {
    ::close(out_fd_);
    ::close(error_fd_);
  }

  void AddOwner(uint32_t number, bool live, uint64_t save_number,
                const std::vector<std::string>& packets) {
    Inspector::Owner owner;
    owner.number = number;
    owner.live = live;
    owner.save_number = save_number;
    file_.owners.emplace_back(owner, packets);
  }

  CacheCommand Of(Verb verb) const {
    CacheCommand command;
    command.verb = verb;
    command.file = "/x/a.mmap";
    return command;
  }

  int Run(const CacheCommand& command) { return RunCacheCommand(command, out_fd_, console_); }

  // The exit code and the line of a command that cannot be done.
  std::string Refusal(const CacheCommand& command) {
    try {
      Run(command);
      return "none";
    } catch (const Fatal& fatal) {
      return std::to_string(fatal.exit_code()) + ": " + fatal.what();
    }
  }

  static std::string Whole(int fd) {
    std::string text(1 << 16, '\0');
    const ssize_t got = ::pread(fd, text.data(), text.size(), 0);
    text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return text;
  }
  std::string Out() const { return Whole(out_fd_); }
  std::string Error() const { return Whole(error_fd_); }

  FakeCacheFile& file_ = GetFakeCacheFile();
  const int out_fd_ = ::memfd_create("out", MFD_CLOEXEC);
  const int error_fd_ = ::memfd_create("error", MFD_CLOEXEC);
  Console console_{error_fd_};
};

TEST_F(CacheCommandTest, ListHasALineForEachOwnerAndOneForTheFile) {
  AddOwner(1, false, 7, {"abc", "de"});
  AddOwner(3, true, 9, {});

  EXPECT_EQ(0, Run(Of(Verb::kList)));

  EXPECT_EQ(
      "owner=1 live=no save=7 packets=2 bytes=5 damaged_packets=0\n"
      "owner=3 live=yes save=9 packets=0 bytes=0 damaged_packets=0\n"
      "kind=mmap version=1 owners=2 packets=2 bytes=5 damaged_packets=0 file_bytes=4096 "
      "damaged=no\n",
      Out());
  EXPECT_EQ("", Error());
}

TEST_F(CacheCommandTest, ListTellsThePlainKind) {
  file_.summary.mapped = false;

  EXPECT_EQ(0, Run(Of(Verb::kList)));

  EXPECT_EQ(0u, Out().find("kind=file version=1 owners=0 ")) << Out();
}

TEST_F(CacheCommandTest, ListOfADamagedFileSaysSo) {
  AddOwner(1, false, 1, {"a"});
  file_.owners[0].first.damaged_packets = 2;
  file_.summary.damaged = true;
  file_.summary.damage = "2 packets of owner 1 have the wrong checksum";

  EXPECT_EQ(0, Run(Of(Verb::kList)));

  EXPECT_NE(std::string::npos, Out().find("damaged_packets=2 file_bytes=4096 damaged=yes\n"))
      << Out();
  EXPECT_EQ(
      "quenor-report: /x/a.mmap is damaged: 2 packets of owner 1 have the wrong checksum; the next "
      "run that opens it repairs it and keeps every intact packet\n",
      Error());
}

TEST_F(CacheCommandTest, DumpHasALineForEachPacketThatHidesNoByte) {
  AddOwner(1, false, 1, {"plain text", std::string("\0\x1b\\\n\t\x7f\xff", 7)});
  AddOwner(2, true, 2, {"b"});

  EXPECT_EQ(0, Run(Of(Verb::kDump)));

  EXPECT_EQ(
      "owner=1 packet=1 bytes=10 text=plain text\n"
      "owner=1 packet=2 bytes=7 text=\\x00\\x1b\\\\\\n\\t\\x7f\\xff\n"
      "owner=2 packet=1 bytes=1 text=b\n",
      Out());
}

TEST_F(CacheCommandTest, RawDumpToStandardOutputIsTheBytesAlone) {
  const std::string binary("\0\n\xff", 3);
  AddOwner(1, false, 1, {binary, "b"});
  CacheCommand command = Of(Verb::kDump);
  command.raw = "-";

  EXPECT_EQ(0, Run(command));

  EXPECT_EQ(binary + "b", Out());
}

TEST_F(CacheCommandTest, RawDumpIntoAFolderWritesAFileForEachPacket) {
  const test::TempFolder folder;
  const std::string binary("\0\n\xff", 3);
  AddOwner(1, false, 1, {"a", binary});
  AddOwner(2, false, 2, {"b"});
  CacheCommand command = Of(Verb::kDump);
  command.raw = folder.File("new");

  EXPECT_EQ(0, Run(command));

  EXPECT_EQ("a", test::ReadWholeFile(folder.File("new/owner-01-packet-000001")));
  EXPECT_EQ(binary, test::ReadWholeFile(folder.File("new/owner-01-packet-000002")));
  EXPECT_EQ("b", test::ReadWholeFile(folder.File("new/owner-02-packet-000001")));
  EXPECT_EQ(0u, Out().find("kind=mmap version=1 owners=2 packets=3 ")) << Out();
  struct stat status;
  ASSERT_EQ(0, ::stat(folder.File("new/owner-01-packet-000001").c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);
}

TEST_F(CacheCommandTest, RawDumpOverwritesNothing) {
  const test::TempFolder folder;
  const std::string taken = folder.File("owner-01-packet-000001");
  ASSERT_TRUE(test::WriteWholeFile(taken, "old"));
  AddOwner(1, false, 1, {"new"});
  CacheCommand command = Of(Verb::kDump);
  command.raw = folder.path();

  EXPECT_EQ("74: cannot create " + taken +
                ": File exists; give --raw an empty folder that this user may write to",
            Refusal(command));
  EXPECT_EQ("old", test::ReadWholeFile(taken));
}

TEST_F(CacheCommandTest, WritesNothingWhileTheFileIsRead) {
  AddOwner(1, false, 1, {"a"});
  std::string seen = "not called";
  file_.before_inspect_returns = [&] { seen = Out(); };

  Run(Of(Verb::kDump));

  EXPECT_EQ("", seen);
  EXPECT_NE("", Out());
}

TEST_F(CacheCommandTest, VerifySaysThatAFileIsWhole) {
  AddOwner(1, false, 1, {"a"});

  EXPECT_EQ(0, Run(Of(Verb::kVerify)));

  EXPECT_EQ(0u, Out().find("whole kind=mmap ")) << Out();
}

TEST_F(CacheCommandTest, VerifySaysWhatIsDamaged) {
  file_.summary.damaged = true;
  file_.summary.damage = "its header is\n torn";

  EXPECT_EQ(1, Run(Of(Verb::kVerify)));

  EXPECT_EQ(0u, Out().find("damaged kind=mmap ")) << Out();
  EXPECT_NE(std::string::npos, Error().find("is damaged: its header is\\x0a torn; ")) << Error();
}

TEST_F(CacheCommandTest, PurgeSaysHowManyPacketsAreGone) {
  AddOwner(1, false, 1, {"a", "b"});
  AddOwner(2, false, 2, {"c"});
  CacheCommand command = Of(Verb::kPurge);
  command.yes = true;

  EXPECT_EQ(0, Run(command));

  EXPECT_EQ("purged_packets=3\n", Out());
  EXPECT_EQ(1, file_.purges);
}

TEST_F(CacheCommandTest, PurgeRemovesNothingWithoutYes) {
  AddOwner(1, false, 1, {"a"});

  EXPECT_EQ(
      "64: /x/a.mmap holds 1 undelivered message; nothing was removed; add --yes to remove the "
      "file for good",
      Refusal(Of(Verb::kPurge)));
  EXPECT_EQ(0, file_.purges);
}

TEST_F(CacheCommandTest, EachRefusalHasItsExitCode) {
  const struct {
    Inspector::Result result;
    int exit_code;
  } cases[] = {
      {Inspector::Result::kNotFound, 66},
      {Inspector::Result::kNotOurs, 65},
      {Inspector::Result::kUnreadable, 74},
      {Inspector::Result::kInUse, 75},
  };
  file_.error = "what happened";
  for (const auto& test : cases) {
    file_.result = test.result;
    for (const Verb verb : {Verb::kList, Verb::kDump, Verb::kVerify, Verb::kPurge}) {
      CacheCommand command = Of(verb);
      command.yes = true;
      EXPECT_EQ(std::to_string(test.exit_code) + ": what happened", Refusal(command));
    }
  }
  EXPECT_EQ("", Out());
}

TEST_F(CacheCommandTest, AsksForTheFileByItsWholePath) {
  const test::TempFolder folder;
  ASSERT_EQ(0, ::mkdir(folder.File("a").c_str(), 0700));
  ASSERT_EQ(0, ::chdir(folder.File("a").c_str()));
  CacheCommand command = Of(Verb::kList);
  command.file = "../b.mmap";
  Run(command);
  ASSERT_EQ(0, ::chdir("/"));

  EXPECT_EQ(folder.File("b.mmap"), file_.path);
}

TEST_F(CacheCommandTest, DoesNotFollowALinkInTheFilesOwnName) {
  const test::TempFolder folder;
  ASSERT_EQ(0, ::symlink("elsewhere", folder.File("link").c_str()));
  CacheCommand command = Of(Verb::kList);
  command.file = folder.File("link");
  Run(command);

  EXPECT_EQ(folder.File("link"), file_.path);
}

TEST_F(CacheCommandTest, AnOutputThatCannotBeWrittenIsAnError) {
  const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(full, 0);

  try {
    RunCacheCommand(Of(Verb::kList), full, console_);
    FAIL() << "written";
  } catch (const Fatal& fatal) {
    EXPECT_EQ(kExitIo, fatal.exit_code());
    EXPECT_EQ("cannot write to standard output: No space left on device",
              std::string(fatal.what()));
  }
  ::close(full);
}

}  // namespace
}  // namespace quenor::cli
