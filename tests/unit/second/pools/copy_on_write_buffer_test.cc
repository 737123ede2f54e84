// The message body: sharing, unsharing and who frees the bytes. Written without sight of the
// implementation, from the promises alone.
#include "quenor_base/buffer/copy_on_write_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "quenor_base/object_pool/alloc_buffer_from_pool.h"
#include "quenor_base/platform/base/ref_counted.h"
#include "tests/support/memory_faults.h"
#include "tests/unit/second/pools/pool_peer.h"
#include "tests/unit/second/pools/worker.h"

QUENOR_NAMESPACE_BEGIN

// Looks at the three fields, and narrows a view, which no public operation does.
class CopyOnWriteBufferTestPeer {
 public:
  static BufferStorage* Storage(const CopyOnWriteBuffer& buffer) { return buffer.buffer_; }
  static uint32_t Offset(const CopyOnWriteBuffer& buffer) { return buffer.offset_; }
  static void Narrow(CopyOnWriteBuffer* buffer, uint32_t offset, uint32_t size) {
    buffer->offset_ = offset;
    buffer->size_ = size;
  }
};

QUENOR_NAMESPACE_END

namespace quenor::test {
namespace {

using Peer = CopyOnWriteBufferTestPeer;
using Array = std::unique_ptr<uint8_t[], void (*)(void*)>;

static_assert(std::is_base_of_v<base::subtle::RefCountedThreadSafeBase, BufferStorage>);
static_assert(std::is_same_v<decltype(BufferStorage::data), Array>);
static_assert(std::is_same_v<decltype(BufferStorage::capacity), uint32_t>);

CopyOnWriteBuffer Make(const std::string& bytes) {
  return {reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())};
}

std::string Bytes(const CopyOnWriteBuffer& buffer) {
  const char* const bytes = buffer.cdata<char>();
  return bytes == nullptr ? std::string() : std::string(bytes, buffer.size());
}

bool IsAlone(const CopyOnWriteBuffer& buffer) { return Peer::Storage(buffer)->HasOneRef(); }

// Arrays that tell when they are released.
struct Released {
  inline static std::atomic<int> count{0};
  static void Release(void* array) {
    ++count;
    delete[] static_cast<uint8_t*>(array);
  }
};
CopyOnWriteBuffer MakeWatched(uint32_t size) {
  Array array(new uint8_t[size], &Released::Release);
  std::iota(array.get(), array.get() + size, uint8_t{0});
  return {std::move(array), size, size};
}

class SecondBufferTest : public ::testing::Test {
 protected:
  SecondBufferTest() { Released::count = 0; }
};

// --- Construction -----------------------------------------------------------------------------

TEST_F(SecondBufferTest, ADefaultBufferHasNoStorage) {
  CopyOnWriteBuffer buffer;

  EXPECT_EQ(Peer::Storage(buffer), nullptr);
  EXPECT_EQ(Peer::Offset(buffer), 0u);
  EXPECT_EQ(buffer.size(), 0u);
  EXPECT_EQ(buffer.data<uint8_t>(), nullptr);
  EXPECT_EQ(buffer.cdata<uint8_t>(), nullptr);
}

TEST_F(SecondBufferTest, ABufferOfZeroBytesHasNoStorageWhateverThePointer) {
  const uint8_t byte = 1;
  for (const uint8_t* pointer : {static_cast<const uint8_t*>(nullptr), &byte}) {
    CopyOnWriteBuffer buffer(pointer, 0);

    EXPECT_EQ(Peer::Storage(buffer), nullptr);
    EXPECT_EQ(buffer.size(), 0u);
    EXPECT_EQ(buffer.data<uint8_t>(), nullptr);
  }
}

TEST_F(SecondBufferTest, ABufferFromBytesHoldsACopyOfThem) {
  std::string source("report\0body", 11);

  CopyOnWriteBuffer buffer = Make(source);
  source.assign(source.size(), 'x');

  EXPECT_EQ(buffer.size(), 11u);
  EXPECT_EQ(Peer::Offset(buffer), 0u);
  EXPECT_EQ(Bytes(buffer), std::string("report\0body", 11));
  EXPECT_GE(Peer::Storage(buffer)->capacity, 11u);
  EXPECT_TRUE(IsAlone(buffer));
}

TEST_F(SecondBufferTest, SizeAndCapacityZeroMakeNoStorage) {
  CopyOnWriteBuffer buffer(0u, 0u);

  EXPECT_EQ(Peer::Storage(buffer), nullptr);
  EXPECT_EQ(buffer.size(), 0u);
}

TEST_F(SecondBufferTest, SizeAndCapacityMakeRoomForBoth) {
  struct Case {
    uint32_t size;
    uint32_t capacity;
  };
  for (const Case c : {Case{0, 1}, Case{0, 100}, Case{1, 1}, Case{5, 100}, Case{100, 100},
                       Case{100, 7}, Case{9, 0}}) {
    CopyOnWriteBuffer buffer(c.size, c.capacity);

    ASSERT_NE(Peer::Storage(buffer), nullptr) << c.size << " " << c.capacity;
    EXPECT_EQ(buffer.size(), c.size);
    EXPECT_EQ(Peer::Offset(buffer), 0u);
    const uint32_t room = Peer::Storage(buffer)->capacity;
    EXPECT_GE(room, std::max(c.size, c.capacity));
    uint8_t* const bytes = buffer.data<uint8_t>();
    ASSERT_NE(bytes, nullptr);
    std::fill_n(bytes, room, uint8_t{7});  // All of it can be written.
    EXPECT_EQ(std::count(bytes, bytes + room, uint8_t{7}), static_cast<std::ptrdiff_t>(room));
  }
}

TEST_F(SecondBufferTest, ACopySharesTheStorageAndCopiesNoByte) {
  CopyOnWriteBuffer buffer = Make("shared body");
  Peer::Narrow(&buffer, 2, 5);
  const MemoryFaults::Counter counter;

  const CopyOnWriteBuffer copy(buffer);

  EXPECT_EQ(counter.count(), 0u);
  EXPECT_EQ(Peer::Storage(copy), Peer::Storage(buffer));
  EXPECT_EQ(Peer::Offset(copy), 2u);
  EXPECT_EQ(copy.size(), 5u);
  EXPECT_EQ(copy.cdata<uint8_t>(), buffer.cdata<uint8_t>());
  EXPECT_FALSE(IsAlone(buffer));
}

TEST_F(SecondBufferTest, ACopyOfAnEmptyBufferIsEmpty) {
  const CopyOnWriteBuffer empty;

  CopyOnWriteBuffer copy(empty);

  EXPECT_EQ(Peer::Storage(copy), nullptr);
  EXPECT_EQ(copy.size(), 0u);
  EXPECT_EQ(copy.data<uint8_t>(), nullptr);
}

TEST_F(SecondBufferTest, AMoveTakesTheStorageOverAndLeavesTheSourceEmpty) {
  CopyOnWriteBuffer source = Make("moved body");
  Peer::Narrow(&source, 1, 4);
  const BufferStorage* const storage = Peer::Storage(source);
  const MemoryFaults::Counter counter;

  CopyOnWriteBuffer target(std::move(source));

  EXPECT_EQ(counter.count(), 0u);
  EXPECT_EQ(Peer::Storage(target), storage);
  EXPECT_EQ(Bytes(target), "oved");
  EXPECT_TRUE(IsAlone(target)) << "the count is as it was";
  EXPECT_EQ(Peer::Storage(source), nullptr);
  EXPECT_EQ(Peer::Offset(source), 0u);
  EXPECT_EQ(source.size(), 0u);
  EXPECT_EQ(source.data<uint8_t>(), nullptr);
}

TEST_F(SecondBufferTest, AMoveOfASharedBufferLeavesItShared) {
  CopyOnWriteBuffer source = Make("body");
  CopyOnWriteBuffer other = source;

  CopyOnWriteBuffer target(std::move(source));

  EXPECT_FALSE(IsAlone(target));
  { const CopyOnWriteBuffer gone = std::move(other); }
  EXPECT_TRUE(IsAlone(target));
}

TEST_F(SecondBufferTest, ASourceThatWasMovedFromCanBeUsedAgain) {
  CopyOnWriteBuffer source = Make("first");
  const CopyOnWriteBuffer target(std::move(source));

  source = Make("second");

  EXPECT_EQ(Bytes(source), "second");
  EXPECT_EQ(Bytes(target), "first");
}

// --- The last holder --------------------------------------------------------------------------

TEST_F(SecondBufferTest, OnlyTheLastHolderReleasesTheArrayThroughItsOwnFunction) {
  auto first = std::make_unique<CopyOnWriteBuffer>(MakeWatched(16));
  auto second = std::make_unique<CopyOnWriteBuffer>(*first);
  auto third = std::make_unique<CopyOnWriteBuffer>(*second);

  second.reset();
  first.reset();
  EXPECT_EQ(Released::count.load(), 0);
  third.reset();

  EXPECT_EQ(Released::count.load(), 1);
}

TEST_F(SecondBufferTest, DestroyingAnEmptyOrMovedFromBufferReleasesNothing) {
  {
    CopyOnWriteBuffer source = MakeWatched(4);
    {
      const CopyOnWriteBuffer empty;
      CopyOnWriteBuffer target(std::move(source));
      source = std::move(target);
    }
    EXPECT_EQ(Released::count.load(), 0);
  }
  EXPECT_EQ(Released::count.load(), 1);
}

TEST_F(SecondBufferTest, UnsharingDropsOneReferenceToTheSharedStorage) {
  CopyOnWriteBuffer first = MakeWatched(16);
  CopyOnWriteBuffer second = first;

  ASSERT_NE(second.data<uint8_t>(), nullptr);
  EXPECT_EQ(Released::count.load(), 0);
  EXPECT_TRUE(IsAlone(first));
  first = CopyOnWriteBuffer();

  EXPECT_EQ(Released::count.load(), 1);
  EXPECT_EQ(second.size(), 16u);
}

TEST_F(SecondBufferTest, GrowingReleasesTheStorageThatIsReplaced) {
  CopyOnWriteBuffer buffer = MakeWatched(16);

  ASSERT_TRUE(buffer.UnshareAndEnsureCapacity(1000));

  EXPECT_EQ(Released::count.load(), 1);
  EXPECT_EQ(buffer.size(), 16u);
  EXPECT_EQ(buffer.cdata<uint8_t>()[15], 15);
}

TEST_F(SecondBufferTest, TheLastHolderReturnsAPooledArrayToThePoolOfItsThread) {
  auto& pool = *internal::GetBufferObjPool(1024);
  Worker maker;
  Worker dropper(Thread::kForeign);
  auto holder = std::make_unique<CopyOnWriteBuffer>();
  auto last = std::make_unique<CopyOnWriteBuffer>();
  const void* array = nullptr;
  maker.Do([&] {
    Array pooled = internal::AllocBufferTFromPool<uint8_t[]>(700);
    array = pooled.get();
    *holder = CopyOnWriteBuffer(std::move(pooled), 700, 1024);
    *last = *holder;
    holder.reset();
  });

  dropper.Do([&] {
    ASSERT_EQ(ObjectPoolTestPeer::Tier(pool), nullptr);
    last.reset();
    ASSERT_NE(ObjectPoolTestPeer::Tier(pool), nullptr);
    EXPECT_EQ(ObjectPoolTestPeer::FreeList(pool), ObjectPoolTestPeer::Addresses{array});
  });
}

// --- Writing ----------------------------------------------------------------------------------

TEST_F(SecondBufferTest, WritingThroughACopyLeavesTheFirstUnchanged) {
  CopyOnWriteBuffer first = Make("original");
  CopyOnWriteBuffer copy = first;
  const uint8_t* const before = first.cdata<uint8_t>();

  uint8_t* const bytes = copy.data<uint8_t>();
  ASSERT_NE(bytes, nullptr);
  EXPECT_EQ(Bytes(copy), "original") << "the view's bytes have been copied";
  bytes[0] = 'O';

  EXPECT_EQ(Bytes(first), "original");
  EXPECT_EQ(Bytes(copy), "Original");
  EXPECT_EQ(first.cdata<uint8_t>(), before);
  EXPECT_NE(copy.cdata<uint8_t>(), before);
}

TEST_F(SecondBufferTest, WritingThroughTheFirstLeavesEveryCopyUnchanged) {
  CopyOnWriteBuffer first = Make("original");
  const CopyOnWriteBuffer one = first;
  CopyOnWriteBuffer two;
  two = first;

  first.data<uint8_t>()[0] = 'O';

  EXPECT_EQ(Bytes(first), "Original");
  EXPECT_EQ(Bytes(one), "original");
  EXPECT_EQ(one.cdata<uint8_t>(), two.cdata<uint8_t>()) << "still shared among themselves";
}

TEST_F(SecondBufferTest, WritingWithoutSharingCopiesNothingAndKeepsTheAddress) {
  CopyOnWriteBuffer buffer = Make("alone");
  const uint8_t* const address = buffer.cdata<uint8_t>();
  const MemoryFaults::Counter counter;

  for (int i = 0; i < 3; ++i) EXPECT_EQ(buffer.data<uint8_t>(), address);

  EXPECT_EQ(counter.count(), 0u);
  EXPECT_EQ(buffer.cdata<uint8_t>(), address);
}

TEST_F(SecondBufferTest, AHolderThatIsLeftAloneWritesInPlace) {
  CopyOnWriteBuffer first = Make("body");
  const uint8_t* const address = first.cdata<uint8_t>();
  {
    CopyOnWriteBuffer copy = first;
    ASSERT_NE(copy.data<uint8_t>(), address);
    EXPECT_EQ(first.data<uint8_t>(), address) << "the copy has gone its own way";
    const CopyOnWriteBuffer another = first;
  }

  EXPECT_EQ(first.data<uint8_t>(), address);
}

TEST_F(SecondBufferTest, ASecondWriteAfterUnsharingKeepsItsAddress) {
  const CopyOnWriteBuffer first = Make("body");
  CopyOnWriteBuffer copy = first;

  const uint8_t* const address = copy.data<uint8_t>();
  const MemoryFaults::Counter counter;

  EXPECT_EQ(copy.data<uint8_t>(), address);
  EXPECT_EQ(counter.count(), 0u);
}

TEST_F(SecondBufferTest, ReadingNeverCopies) {
  const CopyOnWriteBuffer first = Make("body");
  const CopyOnWriteBuffer copy = first;
  const MemoryFaults::Counter counter;

  EXPECT_EQ(copy.cdata<uint8_t>(), first.cdata<uint8_t>());
  EXPECT_EQ(copy.size(), first.size());
  EXPECT_EQ(counter.count(), 0u);
  EXPECT_FALSE(IsAlone(first));
}

TEST_F(SecondBufferTest, AWritableViewStartsAtItsOffset) {
  CopyOnWriteBuffer buffer = Make("0123456789");
  Peer::Narrow(&buffer, 3, 4);
  const uint8_t* const start = Peer::Storage(buffer)->data.get();

  EXPECT_EQ(buffer.data<uint8_t>(), start + 3);
  EXPECT_EQ(Bytes(buffer), "3456");
}

TEST_F(SecondBufferTest, UnsharingAViewByWritingKeepsItsBytesAndTheRoomBehindThem) {
  CopyOnWriteBuffer whole(10, 64);
  std::copy_n("0123456789", 10, whole.data<char>());
  const uint32_t room = Peer::Storage(whole)->capacity;
  CopyOnWriteBuffer view = whole;
  Peer::Narrow(&view, 3, 4);

  uint8_t* const bytes = view.data<uint8_t>();

  ASSERT_NE(bytes, nullptr);
  EXPECT_EQ(Bytes(view), "3456");
  EXPECT_EQ(bytes, view.cdata<uint8_t>()) << "bytes and offset are read again";
  EXPECT_GE(Peer::Storage(view)->capacity - Peer::Offset(view), room - 3);
  std::fill_n(bytes, room - 3, uint8_t{'z'});
  EXPECT_EQ(Bytes(view), "zzzz");
  EXPECT_EQ(Bytes(whole), "0123456789");
  EXPECT_TRUE(IsAlone(whole));
}

// --- UnshareAndEnsureCapacity -----------------------------------------------------------------

TEST_F(SecondBufferTest, EnsuringWhatIsThereAlreadyChangesNothing) {
  CopyOnWriteBuffer buffer = Make("0123456789");
  Peer::Narrow(&buffer, 2, 5);
  const BufferStorage* const storage = Peer::Storage(buffer);
  const MemoryFaults::Counter counter;

  for (uint32_t capacity : {0u, 1u, 5u, storage->capacity - 2}) {
    EXPECT_TRUE(buffer.UnshareAndEnsureCapacity(capacity));
    EXPECT_EQ(Peer::Storage(buffer), storage) << capacity;
    EXPECT_EQ(Peer::Offset(buffer), 2u);
    EXPECT_EQ(buffer.size(), 5u);
  }
  EXPECT_EQ(counter.count(), 0u);
}

TEST_F(SecondBufferTest, TheRoomIsReckonedFromTheStartOfTheView) {
  CopyOnWriteBuffer buffer = Make("0123456789");
  Peer::Narrow(&buffer, 2, 5);
  const uint32_t too_much = Peer::Storage(buffer)->capacity - 2 + 1;

  EXPECT_TRUE(buffer.UnshareAndEnsureCapacity(too_much));

  EXPECT_GE(Peer::Storage(buffer)->capacity - Peer::Offset(buffer), too_much);
  EXPECT_EQ(Bytes(buffer), "23456");
  uint8_t* const bytes = buffer.data<uint8_t>();
  std::fill_n(bytes, too_much, uint8_t{1});
  EXPECT_EQ(buffer.size(), 5u) << "room, not length";
}

TEST_F(SecondBufferTest, ASharedStorageIsLeftEvenWhenItHasRoom) {
  CopyOnWriteBuffer first = Make("0123456789");
  for (uint32_t capacity : {0u, 3u, 10u, 500u}) {
    CopyOnWriteBuffer copy = first;

    EXPECT_TRUE(copy.UnshareAndEnsureCapacity(capacity));

    EXPECT_NE(Peer::Storage(copy), Peer::Storage(first)) << capacity;
    EXPECT_TRUE(IsAlone(copy));
    EXPECT_TRUE(IsAlone(first));
    EXPECT_EQ(Bytes(copy), "0123456789") << "the whole view, however little was asked for";
    EXPECT_GE(Peer::Storage(copy)->capacity - Peer::Offset(copy), capacity);
  }
}

TEST_F(SecondBufferTest, UnsharingCopiesFromTheOffsetOfTheView) {
  const CopyOnWriteBuffer whole = Make("0123456789");
  CopyOnWriteBuffer view = whole;
  Peer::Narrow(&view, 6, 4);

  EXPECT_TRUE(view.UnshareAndEnsureCapacity(4));

  EXPECT_EQ(Bytes(view), "6789");
  EXPECT_LE(Peer::Offset(view) + view.size(), Peer::Storage(view)->capacity);
}

TEST_F(SecondBufferTest, EnsuringNothingOfAnEmptyBufferLeavesItEmpty) {
  CopyOnWriteBuffer buffer;

  EXPECT_TRUE(buffer.UnshareAndEnsureCapacity(0));

  EXPECT_EQ(Peer::Storage(buffer), nullptr);
  EXPECT_EQ(buffer.data<uint8_t>(), nullptr);
}

TEST_F(SecondBufferTest, EnsuringRoomOfAnEmptyBufferMakesStorageForNoBytes) {
  CopyOnWriteBuffer buffer;

  EXPECT_TRUE(buffer.UnshareAndEnsureCapacity(33));

  ASSERT_NE(Peer::Storage(buffer), nullptr);
  EXPECT_GE(Peer::Storage(buffer)->capacity, 33u);
  EXPECT_EQ(buffer.size(), 0u);
}

// --- Assignment -------------------------------------------------------------------------------

TEST_F(SecondBufferTest, AssignmentSharesAndAnswersTheAssignedBuffer) {
  CopyOnWriteBuffer source = Make("source");
  Peer::Narrow(&source, 1, 3);
  CopyOnWriteBuffer target = Make("target");
  const MemoryFaults::Counter counter;

  CopyOnWriteBuffer& answer = (target = source);

  EXPECT_EQ(counter.count(), 0u);
  EXPECT_EQ(&answer, &target);
  EXPECT_EQ(Peer::Storage(target), Peer::Storage(source));
  EXPECT_EQ(Peer::Offset(target), 1u);
  EXPECT_EQ(target.size(), 3u);
  EXPECT_FALSE(IsAlone(source));
}

TEST_F(SecondBufferTest, AssignmentReleasesTheOldStorageOnlyWithItsLastHolder) {
  CopyOnWriteBuffer target = MakeWatched(8);
  CopyOnWriteBuffer other = target;
  const CopyOnWriteBuffer source = Make("source");

  target = source;
  EXPECT_EQ(Released::count.load(), 0);
  EXPECT_EQ(other.cdata<uint8_t>()[7], 7);
  other = source;

  EXPECT_EQ(Released::count.load(), 1);
}

TEST_F(SecondBufferTest, AssigningAnEmptyBufferReleasesTheOldStorage) {
  CopyOnWriteBuffer target = MakeWatched(8);
  Peer::Narrow(&target, 2, 3);
  const CopyOnWriteBuffer empty;

  target = empty;

  EXPECT_EQ(Released::count.load(), 1);
  EXPECT_EQ(Peer::Storage(target), nullptr);
  EXPECT_EQ(Peer::Offset(target), 0u);
  EXPECT_EQ(target.size(), 0u);
}

TEST_F(SecondBufferTest, AssigningToItselfLeavesABufferUnchanged) {
  CopyOnWriteBuffer buffer = MakeWatched(8);
  CopyOnWriteBuffer empty;
  const CopyOnWriteBuffer& same = buffer;
  const CopyOnWriteBuffer& same_empty = empty;
  const BufferStorage* const storage = Peer::Storage(buffer);

  buffer = same;
  empty = same_empty;

  EXPECT_EQ(Released::count.load(), 0);
  EXPECT_EQ(Peer::Storage(buffer), storage);
  EXPECT_EQ(buffer.size(), 8u);
  EXPECT_TRUE(IsAlone(buffer));
  EXPECT_EQ(Peer::Storage(empty), nullptr);
}

TEST_F(SecondBufferTest, MovingToItselfLeavesABufferUnchanged) {
  CopyOnWriteBuffer buffer = MakeWatched(8);
  CopyOnWriteBuffer& same = buffer;

  buffer = std::move(same);

  EXPECT_EQ(Released::count.load(), 0);
  EXPECT_EQ(buffer.size(), 8u);
  EXPECT_TRUE(IsAlone(buffer));
}

TEST_F(SecondBufferTest, AssigningBetweenViewsOfOneStorageKeepsItWithTheSameCount) {
  CopyOnWriteBuffer first = MakeWatched(8);
  CopyOnWriteBuffer second = first;
  Peer::Narrow(&second, 4, 2);

  first = second;
  EXPECT_EQ(Released::count.load(), 0);
  EXPECT_EQ(Peer::Offset(first), 4u);
  EXPECT_EQ(first.size(), 2u);
  EXPECT_EQ(first.cdata<uint8_t>()[0], 4);
  { const CopyOnWriteBuffer gone = std::move(second); }

  EXPECT_TRUE(IsAlone(first)) << "two holders before, two after, one now";
  EXPECT_EQ(Released::count.load(), 0);
}

TEST_F(SecondBufferTest, MoveAssignmentReleasesTheOldAndTakesTheNewWithoutCounting) {
  CopyOnWriteBuffer target = MakeWatched(8);
  CopyOnWriteBuffer source = Make("source");

  target = std::move(source);

  EXPECT_EQ(Released::count.load(), 1);
  EXPECT_EQ(Bytes(target), "source");
  EXPECT_TRUE(IsAlone(target));
  EXPECT_EQ(Peer::Storage(source), nullptr);
  EXPECT_EQ(source.size(), 0u);
}

// --- Counting ---------------------------------------------------------------------------------

TEST_F(SecondBufferTest, ReleaseTellsTheLastReferenceOnly) {
  BufferStorage storage(0, 0, Array(nullptr, nullptr));

  storage.AddRef();
  storage.AddRef();
  storage.AddRef();

  EXPECT_FALSE(storage.Release());
  EXPECT_FALSE(storage.Release());
  EXPECT_TRUE(storage.Release());
}

TEST_F(SecondBufferTest, RandomOperationsAgreeWithPlainStrings) {
  constexpr uint32_t kSeed = 77;
  std::mt19937 random(kSeed);
  std::vector<CopyOnWriteBuffer> buffers(6);
  std::vector<std::string> texts(6);

  for (int step = 0; step < 20000; ++step) {
    const size_t a = random() % buffers.size();
    const size_t b = random() % buffers.size();
    switch (random() % 6) {
      case 0:
        texts[a] = std::string(random() % 40, static_cast<char>('a' + random() % 26));
        buffers[a] = Make(texts[a]);
        break;
      case 1:
        buffers[a] = buffers[b];
        texts[a] = texts[b];
        break;
      case 2:
        if (a == b) break;
        buffers[a] = std::move(buffers[b]);
        texts[a] = std::move(texts[b]);
        texts[b].clear();
        break;
      case 3:
        if (texts[a].empty()) break;
        texts[a][step % texts[a].size()] = '#';
        buffers[a].data<char>()[step % texts[a].size()] = '#';
        break;
      case 4:
        ASSERT_TRUE(buffers[a].UnshareAndEnsureCapacity(random() % 100));
        break;
      default: {
        const CopyOnWriteBuffer copy(buffers[a]);
        ASSERT_EQ(Bytes(copy), texts[a]);
      }
    }
    for (size_t i = 0; i < buffers.size(); ++i) {
      ASSERT_EQ(Bytes(buffers[i]), texts[i]) << "seed " << kSeed << ", step " << step;
    }
  }
}

TEST_F(SecondBufferTest, HoldersOnSeveralThreadsFreeTheBytesOnceAndNeverSeeEachOthersWrites) {
  constexpr int kRounds = 200;
  constexpr int kHolders = 3;
  std::atomic<int> wrong{0};
  for (int round = 0; round < kRounds; ++round) {
    auto body = std::make_unique<CopyOnWriteBuffer>(MakeWatched(64));
    std::vector<std::thread> threads;
    for (int id = 0; id < kHolders; ++id) {
      threads.emplace_back([holder = *body, id, &wrong]() mutable {
        const CopyOnWriteBuffer copy = holder;
        uint8_t* const bytes = holder.data<uint8_t>();
        std::fill_n(bytes, 64, static_cast<uint8_t>(100 + id));
        for (uint8_t i = 0; i < 64; ++i) wrong += copy.cdata<uint8_t>()[i] == i ? 0 : 1;
        for (uint8_t i = 0; i < 64; ++i) wrong += bytes[i] == 100 + id ? 0 : 1;
      });
    }
    body.reset();
    for (std::thread& thread : threads) thread.join();
  }

  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(Released::count.load(), kRounds);
}

}  // namespace
}  // namespace quenor::test
