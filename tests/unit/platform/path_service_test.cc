#include "quenor_base/platform/base/path_service.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "tests/conformance/environment_variable.h"
#include "tests/unit/platform/system_calls.h"

QUENOR_NAMESPACE_BEGIN
namespace base {
namespace {

using conformance::EnvironmentVariable;

std::string ReportFolder() {
  FilePath path("not found");
  return PathService::Get(DIR_RELIABLE_REPORT, &path) ? path.value() : "not found";
}

TEST(PathServiceTest, PutsReportsInTheUsersStateFolder) {
  const EnvironmentVariable state("XDG_STATE_HOME", "/some/state");
  const EnvironmentVariable home("HOME", "/some/home");

  EXPECT_EQ("/some/state/quenor", ReportFolder());
}

TEST(PathServiceTest, PutsReportsBelowTheHomeFolderWithoutAStateFolder) {
  EnvironmentVariable state("XDG_STATE_HOME", nullptr);
  const EnvironmentVariable home("HOME", "/some/home");
  EXPECT_EQ("/some/home/.local/state/quenor", ReportFolder());

  state.Set("");
  EXPECT_EQ("/some/home/.local/state/quenor", ReportFolder());

  state.Set("relative");
  EXPECT_EQ("/some/home/.local/state/quenor", ReportFolder());
}

TEST(PathServiceTest, AsksTheUserDatabaseWithoutAHomeVariable) {
  const EnvironmentVariable state("XDG_STATE_HOME", nullptr);
  EnvironmentVariable home("HOME", nullptr);
  const struct passwd* user = getpwuid(geteuid());
  const bool has_home = user != nullptr && user->pw_dir != nullptr && user->pw_dir[0] == '/';
  const std::string expected =
      has_home ? FilePath(user->pw_dir).AppendASCII(".local/state/quenor").value() : "not found";

  EXPECT_EQ(expected, ReportFolder());

  home.Set("relative");
  EXPECT_EQ(expected, ReportFolder());
}

TEST(PathServiceTest, MakesUpToAMebibyteOfRoomForTheUsersEntry) {
  const EnvironmentVariable state("XDG_STATE_HOME", nullptr);
  const EnvironmentVariable home("HOME", nullptr);
  constexpr size_t kMost = 1 << 20;
  for (const size_t bytes : {size_t{1}, size_t{1025}, kMost, kMost + 1}) {
    system_calls::Reset();
    system_calls::user_entry_bytes = bytes;

    EXPECT_EQ(bytes > kMost ? "not found" : "/some/home/.local/state/quenor", ReportFolder())
        << bytes;
  }
  system_calls::Reset();
}

// The system calls of the path service, one of which fails.
class PathFaultTest : public testing::Test {
 protected:
  PathFaultTest() {
    system_calls::Reset();  // Other tests' calls are counted too.
    root_ = testing::TempDir() + "/quenor_path_XXXXXX";
    if (mkdtemp(root_.data()) == nullptr) ADD_FAILURE() << "cannot create " << root_;
  }
  ~PathFaultTest() override {
    system_calls::Reset();
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  std::string root_;
};

TEST_F(PathFaultTest, CreatesAFolderThoughEveryCallIsInterruptedOnce) {
  system_calls::interrupt_every_second_folder_call = true;

  EXPECT_TRUE(CreateDirectory(FilePath(root_ + "/a/b")));
  EXPECT_TRUE(PathExists(FilePath(root_ + "/a/b")));
  EXPECT_GT(system_calls::folder_calls, 4);
}

TEST_F(PathFaultTest, SaysWhyACallFailedAndSucceedsWithoutTheFailure) {
  int failures = 0;
  for (int n = 1;; ++n) {
    const FilePath path(root_ + "/" + std::to_string(n) + "/a/b");
    system_calls::Reset();
    system_calls::fail_mkdir_number = n;
    system_calls::fail_mkdir_errno = EIO;
    const bool created = CreateDirectory(path);
    const int error = errno;
    const bool failed = system_calls::mkdir_calls >= n;
    system_calls::Reset();

    EXPECT_EQ(!failed, created) << n;
    EXPECT_EQ(created, PathExists(path)) << n;
    if (!failed) break;
    ++failures;
    EXPECT_EQ(EIO, error) << n;
    EXPECT_TRUE(CreateDirectory(path)) << n;
  }
  EXPECT_EQ(3, failures);
}

TEST_F(PathFaultTest, TakesAFolderThatAnotherProcessCreatedInBetween) {
  system_calls::create_before_mkdir = true;

  EXPECT_TRUE(CreateDirectory(FilePath(root_ + "/a/b/c")));
  EXPECT_EQ(3, system_calls::mkdir_calls);
}

}  // namespace
}  // namespace base
QUENOR_NAMESPACE_END
