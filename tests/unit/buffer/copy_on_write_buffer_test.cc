// Sharing, copying on the first write, and what happens when memory is exhausted.
#include "quenor_base/buffer/copy_on_write_buffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "quenor_base/object_pool/alloc_buffer_from_pool.h"
#include "quenor_base/platform/base/thread_create_flag.h"
#include "tests/support/memory_faults.h"

QUENOR_NAMESPACE_BEGIN

// Looks inside a buffer. Borrows it.
class CopyOnWriteBufferTestPeer {
 public:
  explicit CopyOnWriteBufferTestPeer(CopyOnWriteBuffer* buffer) : b_(buffer) {}

  BufferStorage* storage() const { return b_->buffer_; }
  uint32_t offset() const { return b_->offset_; }
  uint32_t capacity() const { return b_->buffer_ == nullptr ? 0 : b_->buffer_->capacity; }
  bool HasOneRef() const { return b_->buffer_->HasOneRef(); }
  // Makes the buffer a view of its bytes from `offset` on, `size` of them.
  void SetView(uint32_t offset, uint32_t size) {
    b_->offset_ = offset;
    b_->size_ = size;
  }

 private:
  CopyOnWriteBuffer* const b_;
};

QUENOR_NAMESPACE_END

namespace quenor::test {
namespace {

using Peer = CopyOnWriteBufferTestPeer;

std::string Text(const CopyOnWriteBuffer& buffer) {
  const char* bytes = buffer.cdata<char>();
  return bytes == nullptr ? std::string() : std::string(bytes, buffer.size());
}

int g_released = 0;
std::thread::id g_released_on;
void CountingRelease(void* array) {
  ++g_released;
  g_released_on = std::this_thread::get_id();
  delete[] static_cast<uint8_t*>(array);
}

using Array = std::unique_ptr<uint8_t[], void (*)(void*)>;

static_assert(std::is_base_of_v<base::subtle::RefCountedThreadSafeBase, BufferStorage>);
static_assert(std::is_same_v<decltype(BufferStorage::data), Array>);
static_assert(std::is_same_v<decltype(BufferStorage::capacity), uint32_t>);

Array NewArray(const char* text) {
  const size_t size = std::strlen(text);
  Array array(new uint8_t[size], &CountingRelease);
  std::memcpy(array.get(), text, size);
  return array;
}

class CopyOnWriteBufferTest : public ::testing::Test {
 protected:
  CopyOnWriteBufferTest() { g_released = 0; }
  ~CopyOnWriteBufferTest() override { MemoryFaults::FailMalloc(0); }
};

// --- Construction ---

TEST_F(CopyOnWriteBufferTest, DefaultBufferHasNoStorage) {
  CopyOnWriteBuffer buffer;

  EXPECT_EQ(Peer(&buffer).storage(), nullptr);
  EXPECT_EQ(Peer(&buffer).offset(), 0u);
  EXPECT_EQ(buffer.size(), 0u);
  EXPECT_EQ(buffer.data<uint8_t>(), nullptr);
  EXPECT_EQ(buffer.cdata<uint8_t>(), nullptr);
}

TEST_F(CopyOnWriteBufferTest, ZeroBytesYieldNoStorageAndNullData) {
  const uint8_t byte = 1;
  CopyOnWriteBuffer from_null(static_cast<const uint8_t*>(nullptr), 0);
  CopyOnWriteBuffer from_bytes(&byte, 0);
  CopyOnWriteBuffer sized(0u, 0u);

  for (CopyOnWriteBuffer* buffer : {&from_null, &from_bytes, &sized}) {
    EXPECT_EQ(Peer(buffer).storage(), nullptr);
    EXPECT_EQ(buffer->data<uint8_t>(), nullptr);
    EXPECT_EQ(buffer->size(), 0u);
  }
}

TEST_F(CopyOnWriteBufferTest, BytesAreCopied) {
  uint8_t bytes[] = {'a', 'b', 'c'};

  CopyOnWriteBuffer buffer(bytes, 3);
  bytes[0] = 'x';

  EXPECT_EQ(Text(buffer), "abc");
  EXPECT_EQ(Peer(&buffer).offset(), 0u);
}

TEST_F(CopyOnWriteBufferTest, CapacityAloneMakesStorageWithAnEmptyView) {
  CopyOnWriteBuffer buffer(0u, 10u);

  EXPECT_NE(Peer(&buffer).storage(), nullptr);
  EXPECT_EQ(buffer.size(), 0u);
  EXPECT_GE(Peer(&buffer).capacity(), 10u);
  EXPECT_NE(buffer.data<uint8_t>(), nullptr);
}

TEST_F(CopyOnWriteBufferTest, CapacityBelowTheSizeIsRaisedToIt) {
  CopyOnWriteBuffer buffer(10u, 3u);

  EXPECT_EQ(buffer.size(), 10u);
  EXPECT_GE(Peer(&buffer).capacity(), 10u);
}

TEST_F(CopyOnWriteBufferTest, NewBufferTakesOneAllocation) {
  MemoryFaults::Counter allocations;

  const CopyOnWriteBuffer buffer("abc", 3);

  EXPECT_EQ(allocations.count(), 1u);
}

// --- Sharing ---

TEST_F(CopyOnWriteBufferTest, CopySharesTheBytes) {
  CopyOnWriteBuffer buffer("abc", 3);
  MemoryFaults::Counter allocations;

  const CopyOnWriteBuffer copy(buffer);
  CopyOnWriteBuffer assigned;
  assigned = buffer;

  EXPECT_EQ(copy.cdata<char>(), buffer.cdata<char>());
  EXPECT_EQ(assigned.cdata<char>(), buffer.cdata<char>());
  EXPECT_EQ(copy.size(), 3u);
  EXPECT_EQ(allocations.count(), 0u);
}

TEST_F(CopyOnWriteBufferTest, CopyOfAnEmptyBufferIsEmpty) {
  const CopyOnWriteBuffer buffer;
  CopyOnWriteBuffer copy(buffer);
  CopyOnWriteBuffer assigned("abc", 3);

  assigned = buffer;

  EXPECT_EQ(copy.data<uint8_t>(), nullptr);
  EXPECT_EQ(assigned.data<uint8_t>(), nullptr);
  EXPECT_EQ(assigned.size(), 0u);
}

TEST_F(CopyOnWriteBufferTest, CopyKeepsOffsetAndSizeOfTheView) {
  CopyOnWriteBuffer buffer("abcdef", 6);
  Peer(&buffer).SetView(2, 3);

  const CopyOnWriteBuffer copy(buffer);
  CopyOnWriteBuffer assigned;
  assigned = buffer;

  EXPECT_EQ(Text(copy), "cde");
  EXPECT_EQ(Text(assigned), "cde");
  EXPECT_EQ(Peer(&assigned).offset(), 2u);
}

TEST_F(CopyOnWriteBufferTest, WriteThroughACopyLeavesTheFirstBufferUnchanged) {
  const CopyOnWriteBuffer buffer("abc", 3);
  CopyOnWriteBuffer copy(buffer);

  copy.data<uint8_t>()[0] = 'x';

  EXPECT_EQ(Text(buffer), "abc");
  EXPECT_EQ(Text(copy), "xbc");
}

TEST_F(CopyOnWriteBufferTest, EveryCopyHasTheTagAlsoOnceItIsWrittenTo) {
  CopyOnWriteBuffer buffer("abc", 3);
  EXPECT_EQ(0u, buffer.tag().id);
  buffer.set_tag({7, 1000, /*is_delayed=*/true, /*is_loaded=*/false});
  CopyOnWriteBuffer copy = buffer;
  ASSERT_NE(nullptr, copy.data<uint8_t>());
  ASSERT_NE(copy.cdata<uint8_t>(), buffer.cdata<uint8_t>());
  ASSERT_TRUE(copy.UnshareAndEnsureCapacity(1000));

  for (const CopyOnWriteBuffer* const each : {&buffer, &copy}) {
    EXPECT_EQ(7u, each->tag().id);
    EXPECT_EQ(1000, each->tag().handed_over_ns);
    EXPECT_TRUE(each->tag().is_delayed);
  }
}

TEST_F(CopyOnWriteBufferTest, EmptyOneGetsAStorageForNothingButATag) {
  CopyOnWriteBuffer none;

  none.set_tag(MessageTag());
  EXPECT_EQ(nullptr, none.cdata<uint8_t>());

  none.set_tag({7, 1000, false, false});
  EXPECT_EQ(7u, none.tag().id);
  EXPECT_EQ(0u, none.size());
}

TEST_F(CopyOnWriteBufferTest, WriteThroughTheFirstBufferLeavesTheCopyUnchanged) {
  CopyOnWriteBuffer buffer("abc", 3);
  const CopyOnWriteBuffer copy(buffer);

  buffer.data<uint8_t>()[0] = 'x';

  EXPECT_EQ(Text(copy), "abc");
  EXPECT_EQ(Text(buffer), "xbc");
}

TEST_F(CopyOnWriteBufferTest, WriteThroughAnUnsharedBufferCopiesNothing) {
  CopyOnWriteBuffer buffer("abc", 3);
  MemoryFaults::Counter allocations;

  const uint8_t* const first = buffer.data<uint8_t>();
  const uint8_t* const second = buffer.data<uint8_t>();

  EXPECT_EQ(first, second);
  EXPECT_EQ(first, buffer.cdata<uint8_t>());
  EXPECT_EQ(allocations.count(), 0u);
}

TEST_F(CopyOnWriteBufferTest, SecondWriteThroughAnUnsharedCopyCopiesNoMore) {
  const CopyOnWriteBuffer buffer("abc", 3);
  CopyOnWriteBuffer copy(buffer);
  const uint8_t* const first = copy.data<uint8_t>();

  EXPECT_EQ(copy.data<uint8_t>(), first);
  EXPECT_NE(first, buffer.cdata<uint8_t>());
}

TEST_F(CopyOnWriteBufferTest, BufferIsUnsharedAgainOnceTheOtherHolderIsGone) {
  CopyOnWriteBuffer buffer("abc", 3);
  const uint8_t* const address = buffer.cdata<uint8_t>();
  { const CopyOnWriteBuffer copy(buffer); }

  EXPECT_EQ(buffer.data<uint8_t>(), address);
}

TEST_F(CopyOnWriteBufferTest, WriteThroughASharedViewCopiesTheViewsBytes) {
  CopyOnWriteBuffer buffer("abcdef", 6);
  CopyOnWriteBuffer view(buffer);
  Peer(&view).SetView(2, 3);

  view.data<uint8_t>()[0] = 'x';

  EXPECT_EQ(Text(view), "xde");
  EXPECT_EQ(Text(buffer), "abcdef");
}

TEST_F(CopyOnWriteBufferTest, UnsharedViewIsWrittenInPlaceAtItsOffset) {
  CopyOnWriteBuffer buffer("abcdef", 6);
  const uint8_t* const address = buffer.cdata<uint8_t>();
  Peer(&buffer).SetView(2, 3);

  EXPECT_EQ(buffer.data<uint8_t>(), address + 2);
}

// --- Moving ---

static_assert(std::is_nothrow_move_constructible_v<CopyOnWriteBuffer>);

TEST_F(CopyOnWriteBufferTest, MoveTakesTheStorageOverAndLeavesTheSourceEmpty) {
  CopyOnWriteBuffer source("abc", 3);
  Peer(&source).SetView(1, 2);
  const uint8_t* const address = source.cdata<uint8_t>();

  CopyOnWriteBuffer target(std::move(source));

  EXPECT_EQ(target.data<uint8_t>(), address);  // The count is one: nothing to unshare.
  EXPECT_EQ(source.data<uint8_t>(), nullptr);  // NOLINT: the contract of a moved-from buffer.
  EXPECT_EQ(source.size(), 0u);
  EXPECT_EQ(Peer(&source).offset(), 0u);
}

TEST_F(CopyOnWriteBufferTest, MoveAssignmentReleasesTheOldAndLeavesTheSourceEmpty) {
  CopyOnWriteBuffer target(NewArray("old"), 3, 3);
  CopyOnWriteBuffer source("abc", 3);
  Peer(&source).SetView(1, 2);

  target = std::move(source);

  EXPECT_EQ(g_released, 1);
  EXPECT_EQ(Text(target), "bc");
  EXPECT_EQ(source.size(), 0u);  // NOLINT
  EXPECT_EQ(source.cdata<uint8_t>(), nullptr);
}

TEST_F(CopyOnWriteBufferTest, MoveAssignmentToItselfChangesNothing) {
  CopyOnWriteBuffer buffer("abc", 3);
  CopyOnWriteBuffer& same = buffer;

  buffer = std::move(same);

  EXPECT_EQ(Text(buffer), "abc");
}

// --- Assignment ---

TEST_F(CopyOnWriteBufferTest, AssignmentReleasesTheOldStorageWithItsLastHolder) {
  CopyOnWriteBuffer first(NewArray("old"), 3, 3);
  CopyOnWriteBuffer second(first);
  const CopyOnWriteBuffer other("abc", 3);

  first = other;
  EXPECT_EQ(g_released, 0);
  second = other;

  EXPECT_EQ(g_released, 1);
  EXPECT_EQ(Text(first), "abc");
}

TEST_F(CopyOnWriteBufferTest, AssignmentBetweenHoldersOfOneStorageKeepsItAndItsCount) {
  CopyOnWriteBuffer first(NewArray("abc"), 3, 3);
  {
    CopyOnWriteBuffer second(first);

    second = first;
    first = second;

    EXPECT_EQ(g_released, 0);
    EXPECT_EQ(Text(first), "abc");
  }
  EXPECT_TRUE(Peer(&first).HasOneRef());
}

TEST_F(CopyOnWriteBufferTest, AssignmentBetweenViewsOfOneStorageTakesTheOthersView) {
  CopyOnWriteBuffer first("abcdef", 6);
  CopyOnWriteBuffer second(first);
  Peer(&second).SetView(4, 2);

  first = second;

  EXPECT_EQ(Text(first), "ef");
}

TEST_F(CopyOnWriteBufferTest, AssignmentToItselfLeavesTheBufferUnchanged) {
  CopyOnWriteBuffer buffer(NewArray("abc"), 3, 3);
  CopyOnWriteBuffer& same = buffer;

  buffer = same;

  EXPECT_EQ(Text(buffer), "abc");
  EXPECT_TRUE(Peer(&buffer).HasOneRef());
  EXPECT_EQ(g_released, 0);
}

TEST_F(CopyOnWriteBufferTest, AssignmentReturnsTheAssignedBuffer) {
  CopyOnWriteBuffer buffer;
  const CopyOnWriteBuffer other("abc", 3);

  EXPECT_EQ(&(buffer = other), &buffer);
}

// --- Arrays that come with a release function ---

TEST_F(CopyOnWriteBufferTest, TakenArrayIsReleasedThroughItsOwnFunctionByTheLastHolder) {
  {
    CopyOnWriteBuffer first(NewArray("abc"), 2, 3);
    const CopyOnWriteBuffer second(first);
    EXPECT_EQ(Text(second), "ab");
    first = CopyOnWriteBuffer();
    EXPECT_EQ(g_released, 0);
  }
  EXPECT_EQ(g_released, 1);
}

TEST_F(CopyOnWriteBufferTest, NullArrayMakesAnEmptyBuffer) {
  CopyOnWriteBuffer buffer(Array(nullptr, nullptr), 0, 0);

  EXPECT_EQ(buffer.size(), 0u);
  EXPECT_EQ(buffer.data<uint8_t>(), nullptr);
}

TEST_F(CopyOnWriteBufferTest, ArrayIsReleasedOnTheThreadThatDropsTheLastHolder) {
  auto buffer = std::make_unique<CopyOnWriteBuffer>(NewArray("abc"), 3, 3);
  std::thread::id dropper;
  std::thread thread([&] {
    dropper = std::this_thread::get_id();
    buffer.reset();
  });
  thread.join();

  EXPECT_EQ(g_released, 1);
  EXPECT_EQ(g_released_on, dropper);
}

TEST_F(CopyOnWriteBufferTest, PooledArrayGoesBackToItsPoolOnTheDroppingThread) {
  std::thread sdk_thread([] {
    base::ThreadCreateFlag::SetThreadCreateByQuenor(true);
    Array array = internal::AllocBufferTFromPool<uint8_t[]>(600);
    const uint8_t* const address = array.get();
    auto buffer = std::make_unique<CopyOnWriteBuffer>(std::move(array), 600, 1024);
    const CopyOnWriteBuffer second(*buffer);
    buffer.reset();
    { const CopyOnWriteBuffer last(std::move(const_cast<CopyOnWriteBuffer&>(second))); }
    // A pool hands out first what came back last.
    const Array again = internal::AllocBufferTFromPool<uint8_t[]>(600);
    EXPECT_EQ(again.get(), address);
  });
  sdk_thread.join();
}

// --- UnshareAndEnsureCapacity ---

TEST_F(CopyOnWriteBufferTest, EnsureWithinTheCapacityOfAnUnsharedBufferChangesNothing) {
  CopyOnWriteBuffer buffer(3u, 100u);
  const uint8_t* const address = buffer.cdata<uint8_t>();

  EXPECT_TRUE(buffer.UnshareAndEnsureCapacity(100));

  EXPECT_EQ(buffer.cdata<uint8_t>(), address);
  EXPECT_EQ(buffer.size(), 3u);
}

TEST_F(CopyOnWriteBufferTest, EnsureBeyondTheCapacityKeepsTheBytes) {
  CopyOnWriteBuffer buffer("abc", 3);

  EXPECT_TRUE(buffer.UnshareAndEnsureCapacity(1000));

  EXPECT_EQ(Text(buffer), "abc");
  EXPECT_GE(Peer(&buffer).capacity() - Peer(&buffer).offset(), 1000u);
}

TEST_F(CopyOnWriteBufferTest, EnsureCountsFromTheViewsOffset) {
  CopyOnWriteBuffer buffer("abcdefghij", 10);
  const uint32_t capacity = Peer(&buffer).capacity();
  Peer(&buffer).SetView(4, 3);

  EXPECT_TRUE(buffer.UnshareAndEnsureCapacity(capacity));

  EXPECT_EQ(Text(buffer), "efg");
  EXPECT_GE(Peer(&buffer).capacity() - Peer(&buffer).offset(), capacity);
}

TEST_F(CopyOnWriteBufferTest, EnsureOnASharedBufferUnsharesIt) {
  CopyOnWriteBuffer buffer("abc", 3);
  const CopyOnWriteBuffer copy(buffer);

  EXPECT_TRUE(buffer.UnshareAndEnsureCapacity(1));

  EXPECT_NE(buffer.cdata<uint8_t>(), copy.cdata<uint8_t>());
  EXPECT_EQ(Text(buffer), "abc");
}

TEST_F(CopyOnWriteBufferTest, EnsureOnAnEmptyBufferMakesStorage) {
  CopyOnWriteBuffer buffer;

  EXPECT_TRUE(buffer.UnshareAndEnsureCapacity(10));

  EXPECT_EQ(buffer.size(), 0u);
  EXPECT_GE(Peer(&buffer).capacity(), 10u);
}

TEST_F(CopyOnWriteBufferTest, GrowthInSmallStepsAllocatesRarely) {
  CopyOnWriteBuffer buffer(1u, 1u);
  MemoryFaults::Counter allocations;

  for (uint32_t capacity = 1; capacity <= 10000; ++capacity) {
    ASSERT_TRUE(buffer.UnshareAndEnsureCapacity(capacity));
  }

  EXPECT_LE(allocations.count(), 30u);
}

// --- Exhausted memory ---

TEST_F(CopyOnWriteBufferTest, NoMemoryForTheBytesMakesAnEmptyBuffer) {
  MemoryFaults::FailMalloc(1);
  const CopyOnWriteBuffer buffer("abc", 3);

  EXPECT_TRUE(MemoryFaults::HasFailed());
  EXPECT_EQ(buffer.size(), 0u);
  EXPECT_EQ(buffer.cdata<uint8_t>(), nullptr);
}

TEST_F(CopyOnWriteBufferTest, NoMemoryForStorageReleasesTheTakenArray) {
  MemoryFaults::FailMalloc(1);
  const CopyOnWriteBuffer buffer(NewArray("abc"), 3, 3);

  EXPECT_TRUE(MemoryFaults::HasFailed());
  EXPECT_EQ(buffer.size(), 0u);
  EXPECT_EQ(g_released, 1);
}

TEST_F(CopyOnWriteBufferTest, NoMemoryForAPrivateCopyMakesDataNullAndKeepsTheView) {
  CopyOnWriteBuffer buffer("abc", 3);
  const CopyOnWriteBuffer copy(buffer);

  MemoryFaults::FailMalloc(1);
  EXPECT_EQ(buffer.data<uint8_t>(), nullptr);

  EXPECT_TRUE(MemoryFaults::HasFailed());
  EXPECT_EQ(Text(buffer), "abc");
  EXPECT_EQ(buffer.cdata<uint8_t>(), copy.cdata<uint8_t>());
  EXPECT_NE(buffer.data<uint8_t>(), nullptr);
}

TEST_F(CopyOnWriteBufferTest, NoMemoryToGrowIsFalseAndChangesNothing) {
  CopyOnWriteBuffer buffer("abc", 3);
  const uint8_t* const address = buffer.cdata<uint8_t>();

  MemoryFaults::FailMalloc(1);
  EXPECT_FALSE(buffer.UnshareAndEnsureCapacity(100000));

  EXPECT_EQ(buffer.cdata<uint8_t>(), address);
  EXPECT_EQ(Text(buffer), "abc");
}

// --- Threads ---

TEST_F(CopyOnWriteBufferTest, HoldersOnManyThreadsShareAndReleaseOnce) {
  {
    const CopyOnWriteBuffer buffer(NewArray("abc"), 3, 3);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([mine = buffer] {
        for (int i = 0; i < 2000; ++i) {
          const CopyOnWriteBuffer copy(mine);
          EXPECT_EQ(Text(copy), "abc");
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(g_released, 0);
  }
  EXPECT_EQ(g_released, 1);
}

TEST_F(CopyOnWriteBufferTest, WritersOnManyThreadsEachGetTheirOwnBytes) {
  const CopyOnWriteBuffer buffer("abc", 3);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([mine = buffer, t]() mutable {
      for (int i = 0; i < 500; ++i) {
        CopyOnWriteBuffer copy(mine);
        copy.data<uint8_t>()[0] = static_cast<uint8_t>('0' + t);
        EXPECT_EQ(Text(copy), std::to_string(t) + "bc");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(Text(buffer), "abc");
}

}  // namespace
}  // namespace quenor::test
