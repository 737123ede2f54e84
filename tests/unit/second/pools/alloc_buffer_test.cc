// Scratch arrays from the nine pools: which class serves which size, and who gets an array back.
// Written without sight of the implementation, from the promises alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "quenor_base/object_pool/alloc_buffer_from_pool.h"
#include "quenor_base/platform/base/thread_create_flag.h"
#include "tests/unit/second/pools/pool_peer.h"
#include "tests/unit/second/pools/probe.h"
#include "tests/unit/second/pools/worker.h"

namespace quenor::test {
namespace {

using Peer = ObjectPoolTestPeer;
using Result = std::unique_ptr<uint8_t[], void (*)(void*)>;
using Release = void (*)(void*);
using Pool = ObjectPool<uint8_t[], objpool::DefaultResetter<uint8_t[]>,
                        objpool::DefaultAllocator<uint8_t[]>, objpool::DefaultDestroyer<uint8_t[]>>;

static_assert(
    std::is_same_v<decltype(internal::AllocBufferTFromPool<uint8_t[]>(uint32_t{1})), Result>);
static_assert(std::is_same_v<decltype(internal::GetBufferObjPool(uint32_t{1})), Pool*>);
static_assert(sizeof(Result) == 2 * sizeof(void*), "no pool and no size beside the array");

constexpr uint32_t kClasses[] = {512, 1024, 2048, 4096, 16384, 32768, 65536, 524288, 1048576};
constexpr uint32_t kLargestClass = 1048576;

Result Alloc(uint32_t size) { return internal::AllocBufferTFromPool<uint8_t[]>(size); }

// True when no pool has a tier on this thread.
bool ThreadHasNoTier() {
  return std::all_of(std::begin(kClasses), std::end(kClasses), [](uint32_t length) {
    return Peer::Tier(*internal::GetBufferObjPool(length)) == nullptr;
  });
}

// --- The registry -----------------------------------------------------------------------------

TEST(SecondGetBufferObjPoolTest, EachClassHasAPoolOfItsOwnWithArraysOfItsLength) {
  std::set<Pool*> pools;
  for (uint32_t length : kClasses) {
    Pool* const pool = internal::GetBufferObjPool(length);
    ASSERT_NE(pool, nullptr) << length;
    pools.insert(pool);
    OnThread(Thread::kSdk, [&] {
      Probe probe;
      uint8_t* const array = pool->AllocRaw();
      const std::vector<size_t> sizes = probe.Sizes(Act::kNewNothrowArray);
      EXPECT_FALSE(sizes.empty());
      EXPECT_EQ(sizes, std::vector<size_t>(sizes.size(), length));
      pool->Reuse(array);
    });
  }

  EXPECT_EQ(pools.size(), 9u);
}

TEST(SecondGetBufferObjPoolTest, ThePoolOfAClassIsTheSameOnEveryThreadAndAtEveryTime) {
  for (uint32_t length : kClasses) {
    Pool* const here = internal::GetBufferObjPool(length);
    Pool* there = nullptr;
    OnThread(Thread::kForeign, [&] { there = internal::GetBufferObjPool(length); });

    EXPECT_EQ(there, here);
    EXPECT_EQ(internal::GetBufferObjPool(length), here);
  }
}

TEST(SecondGetBufferObjPoolTest, ConcurrentFirstCallsAgree) {
  Pool* found[4][9] = {};
  {
    std::vector<std::thread> threads;
    for (auto& row : found) {
      threads.emplace_back([&row] {
        std::transform(std::begin(kClasses), std::end(kClasses), row, internal::GetBufferObjPool);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }

  for (const auto& row : found) {
    EXPECT_TRUE(std::equal(std::begin(row), std::end(row), found[0]));
    EXPECT_EQ(std::count(std::begin(row), std::end(row), nullptr), 0);
  }
}

// --- Which class serves which size ------------------------------------------------------------

struct SizeCase {
  uint32_t size;
  uint32_t length;
};

std::string SizeName(const ::testing::TestParamInfo<SizeCase>& info) {
  return std::to_string(info.param.size) + "From" + std::to_string(info.param.length);
}

class SecondAllocBufferClassTest : public ::testing::TestWithParam<SizeCase> {};

TEST_P(SecondAllocBufferClassTest, ADryThreadMakesArraysOfTheClassLengthOnly) {
  OnThread(Thread::kSdk, [] {
    Probe probe;

    const Result result = Alloc(GetParam().size);

    ASSERT_NE(result, nullptr);
    const std::vector<size_t> sizes = probe.Sizes(Act::kNewNothrowArray);
    EXPECT_FALSE(sizes.empty());
    EXPECT_EQ(sizes, std::vector<size_t>(sizes.size(), GetParam().length));
    EXPECT_EQ(probe.Count(Act::kNewArray), 0u);
    for (uint32_t length : kClasses) {
      EXPECT_EQ(Peer::Tier(*internal::GetBufferObjPool(length)) != nullptr,
                length == GetParam().length)
          << length;
    }
  });
}

TEST_P(SecondAllocBufferClassTest, DroppingTheArrayReturnsItToThePoolOfItsClass) {
  OnThread(Thread::kSdk, [] {
    Result result = Alloc(GetParam().size);
    ASSERT_NE(result, nullptr);
    uint8_t* const array = result.get();
    std::fill_n(array, GetParam().length, uint8_t{0x5A});  // All of the class length is there.
    Probe probe;

    result.reset();

    EXPECT_EQ(probe.Count(Act::kDeleteArray), 0u);
    Pool* const pool = internal::GetBufferObjPool(GetParam().length);
    uint8_t* const again = pool->AllocRaw();
    EXPECT_EQ(again, array);
    EXPECT_EQ(std::count(array, array + GetParam().length, uint8_t{0x5A}), GetParam().length)
        << "kept as its last user left it";
    pool->Reuse(again);
  });
}

TEST_P(SecondAllocBufferClassTest, TheReleaseFunctionIsTheOneOfItsClass) {
  OnThread(Thread::kSdk, [] {
    const Result result = Alloc(GetParam().size);
    for (uint32_t length : kClasses) {
      EXPECT_EQ(result.get_deleter() == Alloc(length).get_deleter(), length == GetParam().length)
          << length;
    }
  });
}

TEST_P(SecondAllocBufferClassTest, AForeignThreadGetsExactlyTheSizeFromTheHeapAndTouchesNoPool) {
  OnThread(Thread::kForeign, [] {
    Probe probe;
    Result result = Alloc(GetParam().size);

    ASSERT_NE(result, nullptr);
    uint8_t* const array = result.get();
    volatile uint8_t* const bytes = array;
    EXPECT_EQ(bytes[0], Probe::kFill) << "not cleared";
    EXPECT_EQ(bytes[GetParam().size - 1], Probe::kFill);
    result.reset();
    const std::vector<Seen> seen = probe.All();
    ASSERT_EQ(seen.size(), 2u) << "one array made, one deleted, no lock";
    EXPECT_EQ(seen[0].act, Act::kNewArray);
    EXPECT_EQ(seen[0].size, GetParam().size);
    EXPECT_EQ(seen[1].act, Act::kDeleteArray);
    EXPECT_EQ(seen[1].what, array);
    EXPECT_TRUE(ThreadHasNoTier());
  });
}

INSTANTIATE_TEST_SUITE_P(
    Bounds, SecondAllocBufferClassTest,
    ::testing::Values(SizeCase{1, 512}, SizeCase{2, 512}, SizeCase{100, 512}, SizeCase{511, 512},
                      SizeCase{512, 512}, SizeCase{513, 1024}, SizeCase{1023, 1024},
                      SizeCase{1024, 1024}, SizeCase{1025, 2048}, SizeCase{2047, 2048},
                      SizeCase{2048, 2048}, SizeCase{2049, 4096}, SizeCase{4095, 4096},
                      SizeCase{4096, 4096}, SizeCase{4097, 16384}, SizeCase{8191, 16384},
                      SizeCase{8192, 16384}, SizeCase{8193, 16384}, SizeCase{16383, 16384},
                      SizeCase{16384, 16384}, SizeCase{16385, 32768}, SizeCase{32767, 32768},
                      SizeCase{32768, 32768}, SizeCase{32769, 65536}, SizeCase{65535, 65536},
                      SizeCase{65536, 65536}, SizeCase{65537, 524288}, SizeCase{131072, 524288},
                      SizeCase{131073, 524288}, SizeCase{262144, 524288}, SizeCase{262145, 524288},
                      SizeCase{524287, 524288}, SizeCase{524288, 524288}, SizeCase{524289, 1048576},
                      SizeCase{1048575, 1048576}, SizeCase{1048576, 1048576}),
    SizeName);

// --- The other paths --------------------------------------------------------------------------

TEST(SecondAllocBufferTest, SizeZeroOnAnSdkThreadIsEmptyAndDroppingItDoesNothing) {
  OnThread(Thread::kSdk, [] {
    Probe probe;
    {
      const Result result = Alloc(0);

      EXPECT_EQ(result.get(), nullptr);
      EXPECT_EQ(result.get_deleter(), nullptr);
    }
    EXPECT_TRUE(probe.All().empty());
    EXPECT_TRUE(ThreadHasNoTier());
  });
}

TEST(SecondAllocBufferTest, SizeZeroOnAForeignThreadIsAZeroLengthArrayOfTheHeap) {
  OnThread(Thread::kForeign, [] {
    Probe probe;
    Result result = Alloc(0);

    EXPECT_NE(result.get(), nullptr);
    const void* const array = result.get();
    EXPECT_EQ(probe.Sizes(Act::kNewArray), std::vector<size_t>{0});
    result.reset();

    EXPECT_EQ(probe.Whats(Act::kDeleteArray), std::vector<const void*>{array});
    EXPECT_TRUE(ThreadHasNoTier());
  });
}

TEST(SecondAllocBufferTest, AboveTheLargestClassAnSdkThreadGetsExactlyTheSizeFromTheHeap) {
  for (uint32_t size : {kLargestClass + 1, kLargestClass + 2, 2 * kLargestClass}) {
    OnThread(Thread::kSdk, [size] {
      Probe probe;
      Result result = Alloc(size);

      ASSERT_NE(result, nullptr);
      const void* const array = result.get();
      const volatile uint8_t* const bytes = result.get();
      EXPECT_EQ(bytes[0], Probe::kFill) << "not cleared";
      EXPECT_EQ(bytes[size - 1], Probe::kFill);
      EXPECT_EQ(probe.Sizes(Act::kNewArray), std::vector<size_t>{size});
      result.reset();

      EXPECT_EQ(probe.Whats(Act::kDeleteArray), std::vector<const void*>{array});
      EXPECT_EQ(probe.Count(Act::kNewArray), 1u);
      EXPECT_EQ(probe.Count(Act::kNewNothrowArray), 0u);
      EXPECT_EQ(probe.Count(Act::kLock), 0u);
      EXPECT_TRUE(ThreadHasNoTier());
    });
  }
}

TEST(SecondAllocBufferTest, ElevenReleaseFunctionsWithoutCaptures) {
  std::set<Release> functions;
  OnThread(Thread::kSdk, [&] {
    for (uint32_t length : kClasses) functions.insert(Alloc(length).get_deleter());
    functions.insert(Alloc(kLargestClass + 1).get_deleter());
  });
  OnThread(Thread::kForeign, [&] { functions.insert(Alloc(1).get_deleter()); });

  EXPECT_EQ(functions.size(), 11u);
  EXPECT_EQ(functions.count(nullptr), 0u);
}

TEST(SecondAllocBufferTest, ThePlainReleaseFunctionsIgnoreNull) {
  Release oversize = nullptr;
  Release foreign = nullptr;
  OnThread(Thread::kSdk, [&] { oversize = Alloc(kLargestClass + 1).get_deleter(); });
  OnThread(Thread::kForeign, [&] { foreign = Alloc(1).get_deleter(); });

  oversize(nullptr);
  foreign(nullptr);

  auto* const one = new uint8_t[4];
  auto* const two = new uint8_t[4];
  Probe probe;
  oversize(one);
  foreign(two);
  EXPECT_EQ(probe.Whats(Act::kDeleteArray), (std::vector<const void*>{one, two}));
}

TEST(SecondAllocBufferTest, ThePooledReleaseFunctionOfNullDoesNothing) {
  OnThread(Thread::kSdk, [] {
    const Result result = Alloc(600);
    const size_t kept = Peer::FreeList(*internal::GetBufferObjPool(1024)).size();
    Probe probe;

    result.get_deleter()(nullptr);

    EXPECT_TRUE(probe.All().empty());
    EXPECT_EQ(Peer::FreeList(*internal::GetBufferObjPool(1024)).size(), kept);
  });
}

TEST(SecondAllocBufferTest, ForeignAndLargeAllocationsThrowWhenTheHeapIsExhausted) {
  OnThread(Thread::kForeign, [] {
    for (uint32_t size : {0u, 1u, 512u, kLargestClass, kLargestClass + 1, 0xFFFFFFFFu}) {
      Probe probe;
      probe.FailThrowingArrays();

      EXPECT_THROW(Alloc(size), std::bad_alloc) << size;
      EXPECT_EQ(probe.Sizes(Act::kNewArray), std::vector<size_t>{size});
    }
  });
  OnThread(Thread::kSdk, [] {
    for (uint32_t size : {kLargestClass + 1, 0x80000000u, 0xFFFFFFFFu}) {
      Probe probe;
      probe.FailThrowingArrays();

      EXPECT_THROW(Alloc(size), std::bad_alloc) << size;
      EXPECT_EQ(probe.Sizes(Act::kNewArray), std::vector<size_t>{size});
    }
  });
}

TEST(SecondAllocBufferTest, AnExhaustedPoolGivesANullArrayWithThePooledReleaseFunction) {
  for (uint32_t length : kClasses) {
    OnThread(Thread::kSdk, [length] {
      Probe probe;
      probe.FailNothrowArrays(1, 1000);
      {
        const Result result = Alloc(length);

        EXPECT_EQ(result.get(), nullptr);
        EXPECT_NE(result.get_deleter(), nullptr);
        probe.FailNothrowArrays(0, 0);
        while (Peer::FreeList(*internal::GetBufferObjPool(length)).size() > 0) {
          EXPECT_EQ(Alloc(length).get(), nullptr);
        }
        EXPECT_EQ(result.get_deleter(), Alloc(length).get_deleter());
        probe.Clear();
      }
      EXPECT_TRUE(probe.All().empty()) << "dropping a null array calls nothing";
    });
  }
}

TEST(SecondAllocBufferTest, AnArrayDroppedOnAnotherSdkThreadEndsInThatThreadsFreeList) {
  for (uint32_t length : kClasses) {
    Pool& pool = *internal::GetBufferObjPool(length);
    Worker maker;
    Worker dropper;
    Result result(nullptr, nullptr);
    maker.Do([&] { result = Alloc(length); });
    const void* const array = result.get();

    dropper.Do([&] {
      result.reset();
      EXPECT_EQ(Peer::FreeList(pool), Peer::Addresses{array});
    });

    maker.Do([&] {
      const Peer::Addresses kept = Peer::FreeList(pool);
      EXPECT_EQ(std::count(kept.begin(), kept.end(), array), 0);
    });
  }
}

TEST(SecondAllocBufferTest, APooledArrayDroppedOnAForeignThreadMakesThatThreadATier) {
  Pool& pool = *internal::GetBufferObjPool(16384);
  Result result(nullptr, nullptr);
  Worker maker;
  maker.Do([&] { result = Alloc(5000); });
  const void* const array = result.get();

  OnThread(Thread::kForeign, [&] {
    ASSERT_TRUE(ThreadHasNoTier());
    Probe probe;
    result.reset();

    EXPECT_EQ(probe.Count(Act::kDeleteArray), 0u);
    ASSERT_NE(Peer::Tier(pool), nullptr);
    EXPECT_EQ(Peer::FreeList(pool), Peer::Addresses{array});
  });
}

TEST(SecondAllocBufferTest, AForeignThreadWithATierStillAllocatesFromTheHeap) {
  Result result(nullptr, nullptr);
  Worker maker;
  maker.Do([&] { result = Alloc(100); });
  const void* const array = result.get();

  OnThread(Thread::kForeign, [&] {
    result.reset();
    Probe probe;

    const Result again = Alloc(100);

    EXPECT_NE(again.get(), array);
    EXPECT_EQ(probe.Sizes(Act::kNewArray), std::vector<size_t>{100});
  });
}

TEST(SecondAllocBufferTest, AForeignArrayDroppedOnAnSdkThreadIsDeleted) {
  Result result(nullptr, nullptr);
  OnThread(Thread::kForeign, [&] { result = Alloc(512); });
  const void* const array = result.get();

  OnThread(Thread::kSdk, [&] {
    Probe probe;
    result.reset();

    EXPECT_EQ(probe.Whats(Act::kDeleteArray), std::vector<const void*>{array});
    EXPECT_TRUE(ThreadHasNoTier());
  });
}

TEST(SecondAllocBufferTest, TheThreadsMarkIsReadAtEachAllocationAndNotAtRelease) {
  OnThread(Thread::kSdk, [] {
    Result pooled = Alloc(100);
    const void* const array = pooled.get();
    base::ThreadCreateFlag::SetThreadCreateByQuenor(false);
    Probe probe;

    pooled.reset();
    EXPECT_EQ(probe.Count(Act::kDeleteArray), 0u);
    EXPECT_EQ(Peer::FreeList(*internal::GetBufferObjPool(512)).back(), array);
    probe.Clear();
    const Result plain = Alloc(100);

    EXPECT_EQ(probe.Sizes(Act::kNewArray), std::vector<size_t>{100});
  });
}

TEST(SecondAllocBufferTest, TheMarkBelongsToOneThreadAndIsFalseOnANewOne) {
  bool marked = true;
  OnThread(Thread::kSdk, [&] {
    std::thread([&] { marked = base::ThreadCreateFlag::IsThreadCreateByQuenor(); }).join();
    EXPECT_TRUE(base::ThreadCreateFlag::IsThreadCreateByQuenor());
  });

  EXPECT_FALSE(marked);
}

TEST(SecondAllocBufferTest, ARepeatedAllocationIsServedWithoutHeapAndLock) {
  for (uint32_t length : kClasses) {
    OnThread(Thread::kSdk, [length] {
      Alloc(length).reset();
      Probe probe;

      for (int i = 0; i < 20; ++i) Alloc(length).reset();

      EXPECT_EQ(probe.Count(Act::kLock), 0u);
      EXPECT_EQ(probe.Count(Act::kNewNothrowArray), 0u);
      EXPECT_EQ(probe.Count(Act::kDeleteArray), 0u);
    });
  }
}

}  // namespace
}  // namespace quenor::test
