// What every path service must do. An embedder runs it on his own by linking that and writing
//   INSTANTIATE_TYPED_TEST_SUITE_P(Mine, PathServiceConformance, quenor::base::PathService);
//   INSTANTIATE_TYPED_TEST_SUITE_P(Mine, PathFoldersConformance, quenor::base::PathService);
// in namespace quenor::conformance. The parameter has the members of base::PathService; the second
// suite is that of the functions of base/file_path.h, those that are linked, on a real file system.
#ifndef QUENOR_TESTS_CONFORMANCE_PATH_SERVICE_CONFORMANCE_H_
#define QUENOR_TESTS_CONFORMANCE_PATH_SERVICE_CONFORMANCE_H_

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "quenor_base/platform/base/file_path.h"
#include "quenor_base/platform/base/path_service.h"
#include "tests/support/unprivileged.h"

namespace quenor::conformance {

// A folder of the test's own, removed at its end; null overrides afterwards.
template <typename Service>
class PathServiceConformance : public testing::Test {
 protected:
  PathServiceConformance() {
    root_ = testing::TempDir() + "/quenor_path_XXXXXX";
    if (mkdtemp(root_.data()) == nullptr) ADD_FAILURE() << "cannot create " << root_;
    old_umask_ = umask(022);
  }
  ~PathServiceConformance() override {
    umask(old_umask_);
    EXPECT_TRUE(Service::Override(base::DIR_RELIABLE_REPORT, base::FilePath()));
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  base::FilePath In(const std::string& name) const { return base::FilePath(root_ + "/" + name); }
  static bool IsFolder(const base::FilePath& path) {
    struct stat info;
    return stat(path.value().c_str(), &info) == 0 && S_ISDIR(info.st_mode);
  }
  // Its permission bits, or -1.
  static int Mode(const base::FilePath& path) {
    struct stat info;
    return stat(path.value().c_str(), &info) == 0 ? static_cast<int>(info.st_mode & 07777) : -1;
  }
  void Touch(const base::FilePath& path) { std::ofstream(path.value()) << "x"; }

  std::string root_;

 private:
  mode_t old_umask_;
};
TYPED_TEST_SUITE_P(PathServiceConformance);

template <typename Service>
class PathFoldersConformance : public PathServiceConformance<Service> {};
TYPED_TEST_SUITE_P(PathFoldersConformance);

TYPED_TEST_P(PathFoldersConformance, FindsWhateverExists) {
  this->Touch(this->In("file"));
  ASSERT_EQ(0, symlink("file", this->In("link").value().c_str()));
  ASSERT_EQ(0, mkfifo(this->In("pipe").value().c_str(), 0600));

  EXPECT_TRUE(base::PathExists(base::FilePath(this->root_)));
  EXPECT_TRUE(base::PathExists(this->In("file")));
  EXPECT_TRUE(base::PathExists(this->In("link")));
  EXPECT_TRUE(base::PathExists(this->In("pipe")));
}

TYPED_TEST_P(PathFoldersConformance, FindsNothingWhereNothingIs) {
  this->Touch(this->In("file"));
  ASSERT_EQ(0, symlink("missing", this->In("link").value().c_str()));

  EXPECT_FALSE(base::PathExists(this->In("missing")));
  EXPECT_FALSE(base::PathExists(this->In("missing/below")));
  EXPECT_FALSE(base::PathExists(this->In("file/below")));
  EXPECT_FALSE(base::PathExists(this->In("link")));
  EXPECT_FALSE(base::PathExists(base::FilePath()));
}

TYPED_TEST_P(PathFoldersConformance, TakesNoPathWithANulByteForItsFront) {
  const base::FilePath path(this->root_ + std::string("/new\0/tail", 10));

  EXPECT_FALSE(base::PathExists(base::FilePath(this->root_ + std::string("\0x", 2))));
  EXPECT_FALSE(base::CreateDirectory(path));
  EXPECT_FALSE(this->IsFolder(this->In("new")));
}

TYPED_TEST_P(PathFoldersConformance, CreatesMissingParentsForTheUserAlone) {
  EXPECT_TRUE(base::CreateDirectory(this->In("a/b/c/d")));

  EXPECT_EQ(0700, this->Mode(this->In("a")));
  EXPECT_EQ(0700, this->Mode(this->In("a/b")));
  EXPECT_EQ(0700, this->Mode(this->In("a/b/c")));
  EXPECT_EQ(0700, this->Mode(this->In("a/b/c/d")));
}

TYPED_TEST_P(PathFoldersConformance, LeavesAFolderThatExistsAsItIs) {
  ASSERT_EQ(0, mkdir(this->In("old").value().c_str(), 0755));
  this->Touch(this->In("old/file"));

  EXPECT_TRUE(base::CreateDirectory(this->In("old")));
  EXPECT_TRUE(base::CreateDirectory(this->In("old/new")));

  EXPECT_EQ(0755, this->Mode(this->In("old")));
  EXPECT_TRUE(base::PathExists(this->In("old/file")));
}

TYPED_TEST_P(PathFoldersConformance, TakesTheRootAndDoubledAndTrailingSeparators) {
  EXPECT_TRUE(base::PathExists(base::FilePath("/")));
  EXPECT_TRUE(base::CreateDirectory(base::FilePath("/")));
  EXPECT_TRUE(base::CreateDirectory(base::FilePath(this->root_ + "//x///y//")));

  EXPECT_TRUE(this->IsFolder(this->In("x/y")));
}

TYPED_TEST_P(PathFoldersConformance, FollowsALinkToAFolder) {
  ASSERT_EQ(0, mkdir(this->In("real").value().c_str(), 0700));
  ASSERT_EQ(0, symlink("real", this->In("link").value().c_str()));

  EXPECT_TRUE(base::CreateDirectory(this->In("link")));
  EXPECT_TRUE(base::CreateDirectory(this->In("link/below")));

  EXPECT_TRUE(this->IsFolder(this->In("real/below")));
}

TYPED_TEST_P(PathFoldersConformance, RefusesWhatCannotBeAFolderAndSaysWhy) {
  this->Touch(this->In("file"));
  ASSERT_EQ(0, symlink("missing", this->In("link").value().c_str()));
  for (const char* path : {"file", "file/below", "file/below/deeper"}) {
    EXPECT_FALSE(base::CreateDirectory(this->In(path))) << path;
    EXPECT_EQ(ENOTDIR, errno) << path;
  }
  EXPECT_FALSE(base::CreateDirectory(this->In(std::string(5000, 'x'))));
  EXPECT_EQ(ENAMETOOLONG, errno);
  EXPECT_FALSE(base::CreateDirectory(this->In("link")));
  EXPECT_FALSE(base::CreateDirectory(this->In("link/below")));
  EXPECT_FALSE(base::CreateDirectory(base::FilePath()));
}

TYPED_TEST_P(PathFoldersConformance, RefusesAParentThatMayNotBeWritten) {
  const test::Unprivileged unprivileged(this->root_);
  if (!unprivileged.holds()) GTEST_SKIP() << "root cannot become another user here";
  ASSERT_EQ(0, mkdir(this->In("closed").value().c_str(), 0500));

  EXPECT_FALSE(base::CreateDirectory(this->In("closed/below")));
  EXPECT_EQ(EACCES, errno);
}

TYPED_TEST_P(PathFoldersConformance, LetsManyThreadsCreateTheSameFolder) {
  for (int round = 0; round < 50; ++round) {
    const base::FilePath path = this->In("r" + std::to_string(round) + "/a/b/c");
    std::atomic<bool> start{false};
    std::atomic<int> succeeded{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        while (!start.load()) std::this_thread::yield();
        if (base::CreateDirectory(path)) succeeded.fetch_add(1);
      });
    }

    start.store(true);
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(4, succeeded.load());
  }
}

TYPED_TEST_P(PathServiceConformance, GivesTheHostsFolder) {
  ASSERT_TRUE(TypeParam::Override(base::DIR_RELIABLE_REPORT, this->In("mine")));

  base::FilePath path;
  EXPECT_TRUE(TypeParam::Get(base::DIR_RELIABLE_REPORT, &path));
  EXPECT_EQ(this->In("mine"), path);
  EXPECT_FALSE(base::PathExists(path));
}

TYPED_TEST_P(PathServiceConformance, KeepsTheHostsFolderWhenItRefusesAnother) {
  ASSERT_TRUE(TypeParam::Override(base::DIR_RELIABLE_REPORT, this->In("mine")));

  EXPECT_FALSE(TypeParam::Override(base::DIR_RELIABLE_REPORT, base::FilePath("relative/folder")));
  EXPECT_FALSE(TypeParam::Override(base::DIR_RELIABLE_REPORT, base::FilePath(".")));
  EXPECT_FALSE(TypeParam::Override(base::DIR_RELIABLE_REPORT, base::FilePath("~/folder")));

  base::FilePath path;
  EXPECT_TRUE(TypeParam::Get(base::DIR_RELIABLE_REPORT, &path));
  EXPECT_EQ(this->In("mine"), path);
}

TYPED_TEST_P(PathServiceConformance, TakesTheHostsFolderBack) {
  base::FilePath before("unset");
  const bool found = TypeParam::Get(base::DIR_RELIABLE_REPORT, &before);
  ASSERT_TRUE(TypeParam::Override(base::DIR_RELIABLE_REPORT, this->In("mine")));

  EXPECT_TRUE(TypeParam::Override(base::DIR_RELIABLE_REPORT, base::FilePath()));

  base::FilePath after("unset");
  EXPECT_EQ(found, TypeParam::Get(base::DIR_RELIABLE_REPORT, &after));
  EXPECT_EQ(before, after);
}

TYPED_TEST_P(PathServiceConformance, KnowsNoOtherKey) {
  for (const int key : {-1, 0, 18, 20, 1 << 30}) {
    base::FilePath path("untouched");
    EXPECT_FALSE(TypeParam::Get(key, &path)) << key;
    EXPECT_EQ("untouched", path.value()) << key;
    EXPECT_FALSE(TypeParam::Override(key, this->In("mine"))) << key;
    EXPECT_FALSE(TypeParam::Override(key, base::FilePath())) << key;
  }
}

TYPED_TEST_P(PathServiceConformance, ServesManyThreadsAtOnce) {
  ASSERT_TRUE(TypeParam::Override(base::DIR_RELIABLE_REPORT, this->In("0")));
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, i] {
      for (int n = 0; n < 200; ++n) {
        base::FilePath path;
        EXPECT_TRUE(TypeParam::Override(base::DIR_RELIABLE_REPORT, this->In(std::to_string(i))));
        EXPECT_TRUE(TypeParam::Get(base::DIR_RELIABLE_REPORT, &path));
        EXPECT_EQ(this->root_.size() + 2, path.value().size());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

REGISTER_TYPED_TEST_SUITE_P(PathFoldersConformance, FindsWhateverExists, FindsNothingWhereNothingIs,
                            TakesNoPathWithANulByteForItsFront,
                            CreatesMissingParentsForTheUserAlone, LeavesAFolderThatExistsAsItIs,
                            TakesTheRootAndDoubledAndTrailingSeparators, FollowsALinkToAFolder,
                            RefusesWhatCannotBeAFolderAndSaysWhy, RefusesAParentThatMayNotBeWritten,
                            LetsManyThreadsCreateTheSameFolder);
REGISTER_TYPED_TEST_SUITE_P(PathServiceConformance, GivesTheHostsFolder,
                            KeepsTheHostsFolderWhenItRefusesAnother, TakesTheHostsFolderBack,
                            KnowsNoOtherKey, ServesManyThreadsAtOnce);

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_PATH_SERVICE_CONFORMANCE_H_
