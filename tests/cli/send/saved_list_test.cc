#include "cli/send/saved_list.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "cli/fatal.h"
#include "tests/support/temp_folder.h"

namespace quenor::cli {
namespace {

using test::ReadWholeFile;

class SavedListTest : public ::testing::Test {
 protected:
  const test::TempFolder folder_;
  const std::string path_ = folder_.File("saved");
};

TEST_F(SavedListTest, GivesItsDescriptorBack) {
  const int next = ::dup(STDERR_FILENO);
  ::close(next);

  SavedList(path_).Append({"1"});

  EXPECT_EQ(next, ::dup(STDERR_FILENO));
  ::close(next);
}

TEST_F(SavedListTest, EachIdIsInTheFileOnceAppendReturns) {
  SavedList list(path_);
  EXPECT_EQ("", list.Append({"1", "2"}));
  EXPECT_EQ("1\n2\n", ReadWholeFile(path_));
  EXPECT_EQ("", list.Append({}));
  EXPECT_EQ("", list.Append({"a file.dmp"}));

  EXPECT_EQ("1\n2\na file.dmp\n", ReadWholeFile(path_));
}

TEST_F(SavedListTest, GoesOnBehindWhatTheFileHolds) {
  ASSERT_TRUE(test::WriteWholeFile(path_, "1\n"));
  SavedList list(path_);
  list.Append({"2"});

  EXPECT_EQ("1\n2\n", ReadWholeFile(path_));
}

TEST_F(SavedListTest, AFileThatCannotBeOpenedIsWrongUsage) {
  const std::string path = folder_.File("none/saved");
  try {
    SavedList list(path);
    FAIL() << "opened";
  } catch (const Fatal& fatal) {
    EXPECT_EQ(kExitUsage, fatal.exit_code());
    EXPECT_EQ("cannot open " + path +
                  ", which --saved-list names: No such file or directory; nothing was sent",
              std::string(fatal.what()));
  }
}

TEST_F(SavedListTest, AfterAFailureItSaysSoOnceAndWritesNoMore) {
  std::signal(SIGXFSZ, SIG_IGN);
  SavedList list(path_);
  rlimit old;
  ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &old));
  rlimit tight = old;
  tight.rlim_cur = 3;
  ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &tight));
  const std::string failure = list.Append({"11", "22"});
  ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &old));

  EXPECT_EQ("cannot write to " + path_ +
                ": File too large; from here on it lacks what was saved, and a last line without "
                "its end does not count",
            failure);
  EXPECT_EQ("", list.Append({"33"}));
  EXPECT_EQ("11\n", ReadWholeFile(path_));
}

}  // namespace
}  // namespace quenor::cli
