// A process that has a cache file open forks. The child has no part in the file: it keeps nothing
// locked when the parent dies, every call of it on the parent's object is refused, and nothing that
// it does harms the parent's content.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>
#include <string>
#include <thread>

#include "tests/crash/support/promises.h"
#include "tests/support/forked.h"

namespace quenor::test {
namespace {

// A gate that processes share by descriptors: whoever waits goes on once every writer has gone.
class Gate {
 public:
  Gate() { EXPECT_EQ(0, pipe(ends_)); }
  ~Gate() {
    Open();
    close(ends_[0]);
  }
  // This process's writing end.
  void Open() {
    if (ends_[1] >= 0) close(ends_[1]);
    ends_[1] = -1;
  }
  void Pass() {
    Open();
    char byte;
    while (read(ends_[0], &byte, 1) < 0 && errno == EINTR) {
    }
  }

 private:
  int ends_[2] = {-1, -1};
};

class Forks : public ::testing::TestWithParam<FileKind> {
 protected:
  std::unique_ptr<CacheFile> Open() {
    auto file = CacheFile::Create(GetParam());
    EXPECT_TRUE(file->Open(path_));
    return file;
  }

  // Every call of a forked child on an object that its parent has open. Bit n of the result: the
  // n-th was not refused.
  static int UseAll(CacheFile* file) {
    std::string packet;
    int accepted = 0;
    accepted |= file->Next(&packet) ? 1 : 0;
    accepted |= file->Clear(104) ? 2 : 0;
    accepted |= file->Append(Message(77, 100)) ? 4 : 0;
    accepted |= file->Clear(0) ? 8 : 0;
    accepted |= file->Next(&packet) ? 16 : 0;
    return accepted;
  }

  Content Left() { return Open()->Load(); }

  TempFolder folder_;
  const std::string path_ = Successor::PathIn(folder_.path(), GetParam());
};

TEST_P(Forks, AChildKeepsNothingOfAKilledParentLocked) {
  Gate parent_is_ready;
  Gate end_of_child;
  const pid_t parent = ForkChild([&] {
    const auto file = Open();
    if (!file->Save(ContentOf("1-5x100"))) return 1;
    // The child waits with all that it inherited until the test is over.
    ForkChild([&] {
      parent_is_ready.Open();
      end_of_child.Pass();
      return 0;
    });
    parent_is_ready.Open();
    end_of_child.Pass();
    return 0;
  });
  parent_is_ready.Pass();

  kill(parent, SIGKILL);
  EXPECT_EQ(-SIGKILL, ReapPatiently(parent));

  EXPECT_EQ(ContentOf("1-5x100"), Left());
}

TEST_P(Forks, EveryCallOfAChildIsRefusedAndTheParentGoesOn) {
  const auto file = Open();
  ASSERT_TRUE(file->Save(ContentOf("1-5x100")));

  EXPECT_EQ(0, ResultOfChild([&] { return UseAll(file.get()); }));

  EXPECT_TRUE(file->IsSaveComplete());
  EXPECT_TRUE(file->Save(ContentOf("2-6x100")));
  file->Close();
  EXPECT_EQ(ContentOf("2-6x100"), Left());
}

TEST_P(Forks, NothingThatAChildClosesOrDestroysHarmsTheParent) {
  auto file = Open();
  ASSERT_TRUE(file->Save(ContentOf("1-5x100")));

  EXPECT_EQ(0, ResultOfChild([&] {
              file->Close();
              file.reset();
              return 0;
            }));

  EXPECT_TRUE(file->Save(ContentOf("1-6x100")));
  file->Close();
  EXPECT_EQ(ContentOf("1-6x100"), Left());
}

TEST_P(Forks, AChildInTheMiddleOfASaveDoesNotCompleteIt) {
  const auto file = Open();
  ASSERT_TRUE(file->Save(ContentOf("1-5x100")));
  ASSERT_TRUE(file->Clear(2 * 104));
  ASSERT_TRUE(file->Append(Message(6, 100)));

  EXPECT_EQ(0, ResultOfChild([&] { return file->Append(Message(77, 100)) ? 1 : 0; }));
  EXPECT_TRUE(file->Append(Message(7, 100)));

  EXPECT_TRUE(file->IsSaveComplete());
  file->Close();
  EXPECT_EQ(ContentOf("6-7x100"), Left());
}

TEST_P(Forks, GrandchildrenAreRefusedToo) {
  const auto file = Open();
  ASSERT_TRUE(file->Save(ContentOf("1-5x100")));

  EXPECT_EQ(0, ResultOfChild([&] { return ResultOfChild([&] { return UseAll(file.get()); }); }));

  EXPECT_TRUE(file->Save(ContentOf("2-6x100")));
  file->Close();
  EXPECT_EQ(ContentOf("2-6x100"), Left());
}

TEST_P(Forks, AChildOpensAFileOfItsOwnWithTheParentsObject) {
  const auto file = Open();
  ASSERT_TRUE(file->Save(ContentOf("1-5x100")));
  const std::string other = folder_.File("other");

  EXPECT_EQ(0, ResultOfChild([&] {
              if (!file->Open(other) || !file->Save(ContentOf("11-12x100"))) return 1;
              file->Close();
              return file->Open(other) && file->Load() == ContentOf("11-12x100") ? 0 : 2;
            }));

  EXPECT_TRUE(file->Save(ContentOf("2-6x100")));
  file->Close();
  EXPECT_EQ(ContentOf("2-6x100"), Left());
}

TEST_P(Forks, AThreadThatSavesIsNotDisturbedByForks) {
  const int forks = IsFullRun() ? 1000 : 100;
  const auto file = Open();
  ASSERT_TRUE(file->Save(ContentOfSave(1)));
  std::atomic<bool> stop{false};
  std::atomic<uint64_t> last{1};
  std::atomic<int> refused{0};
  std::thread saver([&] {
    for (uint64_t number = 2; !stop; ++number) {
      refused += !file->Save(ContentOfSave(number));
      last = number;
    }
  });

  int failed = 0;
  for (int i = 0; i < forks; ++i) {
    const uint64_t seen = last;
    failed += ResultOfChild([] { return 0; }) != 0;
    while (last == seen) std::this_thread::yield();
  }
  stop = true;
  saver.join();

  EXPECT_EQ(0, failed);
  EXPECT_EQ(0, refused);
  file->Close();
  EXPECT_EQ(ContentOfSave(last), Left());
}

INSTANTIATE_TEST_SUITE_P(Of, Forks, ::testing::Values(FileKind::kMapped, FileKind::kPlain),
                         [](const auto& each) { return std::string(NameOf(each.param)); });

// Only the mapped file takes a second owner.
class MappedForks : public Forks {};

TEST_P(MappedForks, AChildIsAnOwnerOfItsOwnWhenItOpensTheSameFile) {
  const auto file = Open();
  ASSERT_TRUE(file->Save(ContentOf("1-5x100")));

  EXPECT_EQ(0, ResultOfChild([&] {
              const auto own = CacheFile::Create(FileKind::kMapped);
              if (!own->Open(path_) || !own->Load().empty()) return 1;
              return own->Save(ContentOf("11-12x100")) ? 0 : 2;  // And ends without closing it.
            }));

  EXPECT_EQ(ContentOf("11-12x100"), Left());
  file->Close();
  EXPECT_EQ(ContentOf("1-5x100+11-12x100"), Left());
}

INSTANTIATE_TEST_SUITE_P(Of, MappedForks, ::testing::Values(FileKind::kMapped),
                         [](const auto& each) { return std::string(NameOf(each.param)); });

}  // namespace
}  // namespace quenor::test
