#include "quenor_base/object_pool/alloc_buffer_from_pool.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "pool_test_support.h"
#include "tests/support/memory_faults.h"

QUENOR_NAMESPACE_BEGIN
namespace internal {
namespace {

using test::HeapCounts;
using test::MemoryFaults;

using Peer = ObjectPoolTestPeer;
using Buffer = std::unique_ptr<uint8_t[], void (*)(void*)>;
using Arrays = std::vector<uint8_t*>;

static_assert(std::is_same_v<decltype(AllocBufferTFromPool<uint8_t[]>(0)), Buffer>);

// True when no class has a tier on the calling thread.
bool ThreadTouchedNoPool() {
  for (const BufferClass& one : kBufferClasses) {
    if (Peer::Tier(*GetBufferObjPool(one.length_bytes)) != nullptr) return false;
  }
  return true;
}

struct Row {
  uint32_t size;
  uint32_t class_length;
};

class PooledSizeTest : public ::testing::TestWithParam<Row> {};

TEST_P(PooledSizeTest, ComesFromItsClassAndGoesBackThere) {
  const auto [size, class_length] = GetParam();
  OnSdkThread([size = size, class_length = class_length] {
    BufferObjPool& pool = *GetBufferObjPool(class_length);
    const HeapCounts before = MemoryFaults::Counts();

    Buffer buffer = AllocBufferTFromPool<uint8_t[]>(size);

    const HeapCounts after = MemoryFaults::Counts();
    EXPECT_EQ(after.last_array_bytes, class_length);
    EXPECT_EQ(after.nothrow_array_news - before.nothrow_array_news, Peer::Capacity(pool));
    EXPECT_EQ(after.array_news, before.array_news);
    ASSERT_NE(buffer, nullptr);
    ASSERT_NE(buffer.get_deleter(), nullptr);
    for (const BufferClass& one : kBufferClasses) {
      EXPECT_EQ(Peer::Tier(*GetBufferObjPool(one.length_bytes)) != nullptr,
                one.length_bytes == class_length);
    }
    std::memset(buffer.get(), 0x5A, class_length);  // the whole class length may be written

    uint8_t* const array = buffer.get();
    buffer.reset();
    EXPECT_EQ(Peer::FreeList(pool).back(), array);
    EXPECT_EQ(MemoryFaults::Counts().array_deletes, after.array_deletes);
  });
}

// The thread has a tier of every class, with an array ready in each: the way that most calls take.
TEST_P(PooledSizeTest, ComesReadyFromItsClassWhereEveryClassHasOneReady) {
  const auto [size, class_length] = GetParam();
  OnSdkThread([size = size, class_length = class_length] {
    for (const BufferClass& one : kBufferClasses) {
      AllocBufferTFromPool<uint8_t[]>(one.length_bytes).reset();
    }
    BufferObjPool& pool = *GetBufferObjPool(class_length);
    const Arrays ready = Peer::FreeList(pool);
    const HeapCounts before = MemoryFaults::Counts();

    Buffer buffer = AllocBufferTFromPool<uint8_t[]>(size);

    const HeapCounts after = MemoryFaults::Counts();
    EXPECT_EQ(after.News(), before.News());
    EXPECT_EQ(buffer.get(), ready.back());
    EXPECT_EQ(Peer::FreeList(pool).size(), ready.size() - 1);
    buffer.reset();
    EXPECT_EQ(Peer::FreeList(pool), ready);
  });
}

INSTANTIATE_TEST_SUITE_P(
    EveryBound, PooledSizeTest,
    ::testing::Values(Row{1, 512}, Row{2, 512}, Row{3, 512}, Row{256, 512}, Row{257, 512},
                      Row{511, 512}, Row{512, 512}, Row{513, 1024}, Row{1024, 1024},
                      Row{1025, 2048}, Row{2048, 2048}, Row{2049, 4096}, Row{4096, 4096},
                      Row{4097, 16384}, Row{8192, 16384}, Row{8193, 16384}, Row{16384, 16384},
                      Row{16385, 32768}, Row{32768, 32768}, Row{32769, 65536}, Row{65536, 65536},
                      Row{65537, 524288}, Row{131072, 524288}, Row{262144, 524288},
                      Row{524288, 524288}, Row{524289, 1048576}, Row{1048576, 1048576}),
    [](const auto& row) {
      return std::to_string(row.param.size) + "From" + std::to_string(row.param.class_length);
    });

TEST(AllocBufferTest, NineClassesHaveNineReleaseFunctions) {
  OnSdkThread([] {
    std::vector<void (*)(void*)> functions;
    for (const BufferClass& one : kBufferClasses) {
      functions.push_back(AllocBufferTFromPool<uint8_t[]>(one.length_bytes).get_deleter());
    }
    std::sort(functions.begin(), functions.end());
    EXPECT_EQ(std::unique(functions.begin(), functions.end()), functions.end());
  });
}

TEST(AllocBufferTest, ZeroOnAnSdkThreadIsEmptyWithoutReleaseFunction) {
  OnSdkThread([] {
    const HeapCounts before = MemoryFaults::Counts();
    {
      Buffer buffer = AllocBufferTFromPool<uint8_t[]>(0);
      EXPECT_EQ(buffer.get(), nullptr);
      EXPECT_EQ(buffer.get_deleter(), nullptr);
    }
    EXPECT_EQ(MemoryFaults::Counts().News(), before.News());
    EXPECT_EQ(MemoryFaults::Counts().Deletes(), before.Deletes());
    EXPECT_TRUE(ThreadTouchedNoPool());
  });
}

TEST(AllocBufferTest, ZeroOnAForeignThreadIsAnArrayOfNoBytesThatArrayDeleteFrees) {
  OnForeignThread([] {
    const HeapCounts before = MemoryFaults::Counts();
    {
      Buffer buffer = AllocBufferTFromPool<uint8_t[]>(0);
      EXPECT_NE(buffer.get(), nullptr);
      EXPECT_NE(buffer.get_deleter(), nullptr);
      EXPECT_EQ(MemoryFaults::Counts().array_news - before.array_news, 1u);
      EXPECT_EQ(MemoryFaults::Counts().last_array_bytes, 0u);
    }
    EXPECT_EQ(MemoryFaults::Counts().array_deletes - before.array_deletes, 1u);
  });
}

// True when the array, which may not be null, is as it came from the heap.
bool IsUncleared(const Buffer& buffer) {
  return static_cast<const volatile uint8_t*>(buffer.get())[0] == MemoryFaults::kFill;
}

class PlainHeapTest : public ::testing::TestWithParam<uint32_t> {};

TEST_P(PlainHeapTest, ForeignThreadGetsExactlyTheSizeAndTouchesNoPool) {
  OnForeignThread([size = GetParam()] {
    const HeapCounts before = MemoryFaults::Counts();
    {
      Buffer buffer = AllocBufferTFromPool<uint8_t[]>(size);
      EXPECT_TRUE(IsUncleared(buffer));
      EXPECT_EQ(MemoryFaults::Counts().array_news - before.array_news, 1u);
      EXPECT_EQ(MemoryFaults::Counts().nothrow_array_news, before.nothrow_array_news);
      EXPECT_EQ(MemoryFaults::Counts().last_array_bytes, size);
    }
    EXPECT_EQ(MemoryFaults::Counts().array_deletes - before.array_deletes, 1u);
    EXPECT_TRUE(ThreadTouchedNoPool());
  });
}

INSTANTIATE_TEST_SUITE_P(AnySize, PlainHeapTest,
                         ::testing::Values(1u, 100u, 512u, 8192u, 1048576u, 1048577u));

TEST(AllocBufferTest, AboveTheLargestClassIsExactlyTheSizeFromThePlainHeap) {
  OnSdkThread([] {
    const HeapCounts before = MemoryFaults::Counts();
    {
      Buffer buffer = AllocBufferTFromPool<uint8_t[]>(1048577);
      EXPECT_TRUE(IsUncleared(buffer));
      EXPECT_EQ(MemoryFaults::Counts().array_news - before.array_news, 1u);
      EXPECT_EQ(MemoryFaults::Counts().nothrow_array_news, before.nothrow_array_news);
      EXPECT_EQ(MemoryFaults::Counts().last_array_bytes, 1048577u);
    }
    EXPECT_EQ(MemoryFaults::Counts().array_deletes - before.array_deletes, 1u);
    EXPECT_TRUE(ThreadTouchedNoPool());
  });
}

TEST(AllocBufferTest, PlainReleaseFunctionsIgnoreNull) {
  ReleaseForeignThreadBuffer(nullptr);
  ReleaseOversizeBuffer(nullptr);
}

TEST(AllocBufferTest, FlagIsAskedOnEveryCall) {
  OnSdkThread([] {
    base::ThreadCreateFlag::SetThreadCreateByQuenor(false);
    EXPECT_NE(AllocBufferTFromPool<uint8_t[]>(0), nullptr);
    base::ThreadCreateFlag::SetThreadCreateByQuenor(true);
    EXPECT_EQ(AllocBufferTFromPool<uint8_t[]>(0), nullptr);
  });
}

TEST(AllocBufferTest, SizesOfNoClassComeFromNoPoolWhereEveryClassHasAnArrayReady) {
  OnSdkThread([] {
    for (const BufferClass& one : kBufferClasses) {
      AllocBufferTFromPool<uint8_t[]>(one.length_bytes).reset();
    }
    const HeapCounts before = MemoryFaults::Counts();

    const Buffer none = AllocBufferTFromPool<uint8_t[]>(0);
    EXPECT_EQ(none.get(), nullptr);
    EXPECT_EQ(none.get_deleter(), nullptr);
    EXPECT_EQ(MemoryFaults::Counts().array_news, before.array_news);
    const Buffer oversize = AllocBufferTFromPool<uint8_t[]>(1048577);
    EXPECT_EQ(MemoryFaults::Counts().array_news - before.array_news, 1u);
    EXPECT_EQ(MemoryFaults::Counts().last_array_bytes, 1048577u);
  });
}

TEST(AllocBufferTest, ForeignThreadWithATierStillGetsExactlyTheSizeFromThePlainHeap) {
  OnForeignThread([] {
    BufferObjPool& pool = *GetBufferObjPool(512);
    pool.Reuse(pool.AllocRaw());
    const Arrays ready = Peer::FreeList(pool);
    const HeapCounts before = MemoryFaults::Counts();
    {
      Buffer buffer = AllocBufferTFromPool<uint8_t[]>(100);
      EXPECT_EQ(MemoryFaults::Counts().array_news - before.array_news, 1u);
      EXPECT_EQ(MemoryFaults::Counts().last_array_bytes, 100u);
    }
    EXPECT_EQ(Peer::FreeList(pool), ready);
  });
}

TEST(AllocBufferTest, PooledReleaseFunctionsIgnoreNull) {
  OnSdkThread([] {
    for (int i = 0; i < 2; ++i) {  // first without a tier, then with one
      ReleasePooledBuffer<512>(nullptr);
      ASSERT_NE(Peer::Tier(*GetBufferObjPool(512)), nullptr);
      EXPECT_TRUE(Peer::FreeList(*GetBufferObjPool(512)).empty());
    }
  });
}

TEST(AllocBufferTest, ArrayReleasedOnAnotherSdkThreadEndsUpInThatThreadsFreeList) {
  BufferObjPool& pool = *GetBufferObjPool(2048);
  OnSdkThread([&] {
    Buffer buffer = AllocBufferTFromPool<uint8_t[]>(2000);
    const Arrays own_before = Peer::FreeList(pool);
    OnSdkThread([&] {
      uint8_t* const array = buffer.get();
      buffer.reset();
      EXPECT_EQ(Peer::FreeList(pool), Arrays{array});
    });
    EXPECT_EQ(Peer::FreeList(pool), own_before);
  });
}

TEST(AllocBufferTest, ArrayReleasedOnAForeignThreadMakesThatThreadsTier) {
  BufferObjPool& pool = *GetBufferObjPool(2048);
  OnSdkThread([&] {
    Buffer buffer = AllocBufferTFromPool<uint8_t[]>(2000);
    OnForeignThread([&] {
      EXPECT_EQ(Peer::Tier(pool), nullptr);
      uint8_t* const array = buffer.get();
      buffer.reset();
      EXPECT_EQ(Peer::FreeList(pool), Arrays{array});
    });
  });
}

TEST(AllocBufferTest, ArrayOfAForeignThreadReleasedOnAnSdkThreadEntersNoPool) {
  OnForeignThread([] {
    Buffer buffer = AllocBufferTFromPool<uint8_t[]>(100);
    OnSdkThread([&] {
      buffer.reset();
      EXPECT_TRUE(ThreadTouchedNoPool());
    });
  });
}

TEST(AllocBufferTest, ReusedArrayKeepsItsBytes) {
  OnSdkThread([] {
    Buffer buffer = AllocBufferTFromPool<uint8_t[]>(300);
    std::memset(buffer.get(), 0xA5, 512);
    uint8_t* const array = buffer.get();
    buffer.reset();

    buffer = AllocBufferTFromPool<uint8_t[]>(1);

    ASSERT_EQ(buffer.get(), array);
    for (int i = 0; i < 512; ++i) EXPECT_EQ(buffer[i], 0xA5);
  });
}

class EveryClassTest : public ::testing::TestWithParam<BufferClass> {};

TEST_P(EveryClassTest, ArrayThatCannotBeMadeIsANullWithAPooledReleaseFunction) {
  const BufferClass buffer_class = GetParam();
  // Fails the n-th of the arrays that a dry thread makes at once, n = 1, 2, 3 ...
  for (uint32_t n = 1; n <= buffer_class.capacity; ++n) {
    OnSdkThread([&] {
      MemoryFaults::FailNothrowArrayNews(n, 1);
      std::vector<Buffer> buffers;
      for (uint32_t i = 0; i < buffer_class.capacity; ++i) {
        buffers.push_back(AllocBufferTFromPool<uint8_t[]>(buffer_class.length_bytes));
        EXPECT_EQ(buffers.back().get_deleter(), buffers.front().get_deleter());
      }

      EXPECT_NE(buffers.front().get_deleter(), nullptr);
      // Made in order, handed out from the back.
      for (uint32_t i = 0; i < buffer_class.capacity; ++i) {
        EXPECT_EQ(buffers[i] == nullptr, i == buffer_class.capacity - n) << "n = " << n;
      }
    });
  }
}

TEST_P(EveryClassTest, DroppingTheNullResultPutsNothingIntoThePool) {
  const BufferClass buffer_class = GetParam();
  BufferObjPool& pool = *GetBufferObjPool(buffer_class.length_bytes);
  OnSdkThread([&] {
    MemoryFaults::FailNothrowArrayNews(1, buffer_class.capacity);
    Buffer buffer = AllocBufferTFromPool<uint8_t[]>(buffer_class.length_bytes);
    ASSERT_EQ(buffer, nullptr);
    const size_t free_before = Peer::FreeList(pool).size();

    buffer = Buffer(nullptr, nullptr);

    EXPECT_EQ(Peer::FreeList(pool).size(), free_before);
  });
}

TEST_P(EveryClassTest, PairInTheSteadyStateAllocatesAndFreesNothing) {
  const uint32_t size = GetParam().length_bytes;
  OnSdkThread([&] {
    AllocBufferTFromPool<uint8_t[]>(size).reset();
    const HeapCounts before = MemoryFaults::Counts();

    for (int i = 0; i < 100; ++i) AllocBufferTFromPool<uint8_t[]>(size).reset();

    EXPECT_EQ(MemoryFaults::Counts().News(), before.News());
    EXPECT_EQ(MemoryFaults::Counts().Deletes(), before.Deletes());
  });
}

TEST_P(EveryClassTest, SixteenAtATimeInTheSteadyStateAllocateAndFreeNothing) {
  const uint32_t size = GetParam().length_bytes;
  OnSdkThread([&] {
    std::vector<Buffer> buffers;
    buffers.reserve(16);
    const auto take_and_drop = [&] {
      for (int i = 0; i < 16; ++i) buffers.push_back(AllocBufferTFromPool<uint8_t[]>(size));
      while (!buffers.empty()) buffers.pop_back();
    };
    for (int i = 0; i < 3; ++i) take_and_drop();
    const HeapCounts before = MemoryFaults::Counts();

    for (int i = 0; i < 100; ++i) take_and_drop();

    EXPECT_EQ(MemoryFaults::Counts().News(), before.News());
    EXPECT_EQ(MemoryFaults::Counts().Deletes(), before.Deletes());
  });
}

INSTANTIATE_TEST_SUITE_P(Pooled, EveryClassTest, ::testing::ValuesIn(kBufferClasses),
                         [](const auto& row) {
                           return "Class" + std::to_string(row.param.length_bytes);
                         });

}  // namespace
}  // namespace internal
QUENOR_NAMESPACE_END
