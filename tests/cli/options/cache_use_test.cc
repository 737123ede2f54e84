#include "cli/options/cache_use.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "cli/fatal.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"
#include "tests/support/temp_folder.h"

namespace quenor::cli {
namespace {

using test::TempFolder;

// The one line about a folder that cannot be used; empty when it can.
std::string Objection(const std::string& path) {
  try {
    CacheFolder(path);
    return "";
  } catch (const Fatal& fatal) {
    EXPECT_EQ(kExitUsage, fatal.exit_code());
    return fatal.what();
  }
}

// Each test is a process of its own, so that none sees another's settings.
class CacheUseTest : public ::testing::Test {
 protected:
  ~CacheUseTest() override {
    config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                             base::nullopt);
    EXPECT_TRUE(base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath()));
  }

  Options With(CacheKind kind) const {
    Options options;
    options.channel = "usage";
    options.cache = kind;
    options.cache_dir = folder_.path();
    return options;
  }

  const TempFolder folder_;
};

TEST_F(CacheUseTest, NamesTheFileThatTheChannelUses) {
  EXPECT_EQ(folder_.path() + "/quenor_report/usage.mmap", ApplyCache(With(CacheKind::kMmap)).file);
  EXPECT_EQ(folder_.path() + "/quenor_report/usage.cache", ApplyCache(With(CacheKind::kFile)).file);
  EXPECT_EQ("", ApplyCache(With(CacheKind::kNone)).file);
}

TEST_F(CacheUseTest, SetsTheProcesssOptionAndFolder) {
  ApplyCache(With(CacheKind::kFile));

  EXPECT_EQ(1u, config::ConfigCenterImpl::GetInstance()->GetValueWithPriority(
                    config::BaseCfg().cache_option, uint64_t{2}));
  base::FilePath folder;
  ASSERT_TRUE(base::PathService::Get(base::DIR_RELIABLE_REPORT, &folder));
  EXPECT_EQ(folder_.path(), folder.value());
}

TEST_F(CacheUseTest, LeavesTheChoiceToTheConfigurationWhenNoneIsAskedFor) {
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                           uint64_t{1});
  Options options = With(CacheKind::kMmap);
  options.cache.reset();

  const CacheUse use = ApplyCache(options);

  EXPECT_EQ(CacheKind::kFile, use.kind);
  EXPECT_EQ(folder_.path() + "/quenor_report/usage.cache", use.file);
}

TEST_F(CacheUseTest, HasNoFileForAKindThatTheChannelDoesNotKnow) {
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                           uint64_t{7});
  Options options = With(CacheKind::kMmap);
  options.cache.reset();

  EXPECT_EQ("", ApplyCache(options).file);
}

TEST_F(CacheUseTest, SaysWhatToDoWhenAPlainFileCannotBeOpened) {
  const CacheUse file{CacheKind::kFile, "/x/usage.cache"};
  const CacheUse mmap{CacheKind::kMmap, "/x/usage.mmap"};

  EXPECT_EQ(
      "the cache /x/usage.cache could not be opened: this run keeps its messages in memory only, "
      "and what an earlier run left in the cache stays there; if another run has it open, give "
      "each a --channel of its own, or share with --cache mmap",
      CacheFailedLine(file));
  EXPECT_EQ(
      "the cache /x/usage.mmap could not be opened: this run keeps its messages in memory only, "
      "and what an earlier run left in the cache stays there",
      CacheFailedLine(mmap));
}

TEST(CacheFolderTest, MakesARelativePathAbsolute) {
  const TempFolder folder;
  ASSERT_EQ(0, ::chdir(folder.path().c_str()));

  EXPECT_EQ(folder.path() + "/state", CacheFolder("state"));
  EXPECT_EQ(folder.path(), CacheFolder("."));
  EXPECT_EQ(folder.path() + "/state", CacheFolder("other/../state"));
  ASSERT_EQ(0, ::chdir("/"));
}

TEST(CacheFolderTest, FollowsLinksBeforeItGoesUp) {
  const TempFolder folder;
  ASSERT_EQ(0, ::mkdir(folder.File("a").c_str(), 0700));
  ASSERT_EQ(0, ::mkdir(folder.File("a/b").c_str(), 0700));
  ASSERT_EQ(0, ::symlink(folder.File("a/b").c_str(), folder.File("link").c_str()));

  EXPECT_EQ(folder.path() + "/a/state", CacheFolder(folder.File("link/../state")));
}

TEST(CacheFolderTest, MakesNothing) {
  const TempFolder folder;

  EXPECT_EQ(folder.path() + "/x/y", CacheFolder(folder.File("x/y")));

  EXPECT_NE(0, ::access(folder.File("x").c_str(), F_OK));
}

TEST(CacheFolderTest, RefusesWhatIsNoFolderAndSaysWhy) {
  const TempFolder folder;
  ASSERT_TRUE(test::WriteWholeFile(folder.File("file"), "x"));

  EXPECT_EQ(
      "cannot use the folder \"\" for the cache: the name is empty; give --cache-dir a folder "
      "that this user may write to",
      Objection(""));
  EXPECT_EQ("cannot use the folder \"" + folder.File("file") +
                "\" for the cache: " + folder.File("file") +
                ": Not a directory; give --cache-dir a folder that this user may write to",
            Objection(folder.File("file")));
  EXPECT_NE("", Objection(folder.File("file/below")));
}

}  // namespace
}  // namespace quenor::cli
