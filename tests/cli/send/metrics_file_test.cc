#include "cli/send/metrics_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/temp_folder.h"

namespace quenor::cli {
namespace {

using std::chrono::seconds;
using test::FileNames;
using test::ReadWholeFile;

class MetricsFileTest : public ::testing::Test {
 protected:
  const test::TempFolder folder_;
  const std::string path_ = folder_.File("quenor.prom");
  const MetricsFile::Time now_{seconds(1000)};
};

TEST_F(MetricsFileTest, IsReplacedWholeAndReadableByAll) {
  const mode_t mask = ::umask(0077);
  MetricsFile file(path_);
  EXPECT_EQ("", file.Write(now_, "first\n"));
  std::filesystem::create_hard_link(path_, folder_.File("old"));
  EXPECT_EQ("", file.Write(now_, "second\n"));
  ::umask(mask);

  EXPECT_EQ("second\n", ReadWholeFile(path_));
  EXPECT_EQ("first\n", ReadWholeFile(folder_.File("old"))) << "written in place";
  struct stat status {};
  ASSERT_EQ(0, ::stat(path_.c_str(), &status));
  EXPECT_EQ(0644u, status.st_mode & 07777);
  EXPECT_EQ(2u, FileNames(folder_.path()).size()) << "something is left beside it";
}

TEST_F(MetricsFileTest, IsDueAgainAfterItsPeriodWhateverCameOfIt) {
  MetricsFile file(folder_.File("none/quenor.prom"));
  EXPECT_LE(file.due(), now_);
  EXPECT_NE("", file.Write(now_, "text\n"));

  EXPECT_EQ(now_ + MetricsFile::kPeriod, file.due());
}

TEST_F(MetricsFileTest, SaysWhichFileCannotBeWrittenAndWhyAndLeavesNothingBehind) {
  const std::string missing = folder_.File("none/quenor.prom");
  EXPECT_EQ("cannot write " + missing + ", which --metrics-file names: No such file or directory",
            MetricsFile(missing).Write(now_, "text\n"));
  const std::string folder = folder_.File("folder");
  std::filesystem::create_directory(folder);
  EXPECT_EQ("cannot write " + folder + ", which --metrics-file names: Is a directory",
            MetricsFile(folder).Write(now_, "text\n"));

  EXPECT_EQ(std::vector<std::string>{"folder"}, FileNames(folder_.path()));
}

}  // namespace
}  // namespace quenor::cli
