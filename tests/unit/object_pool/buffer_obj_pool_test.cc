// The registry of the nine pools.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <set>
#include <thread>
#include <vector>

#include "pool_test_support.h"
#include "quenor_base/object_pool/alloc_buffer_from_pool.h"

QUENOR_NAMESPACE_BEGIN
namespace internal {
namespace {

using Peer = ObjectPoolTestPeer;

constexpr uint32_t kLengths[] = {512, 1024, 2048, 4096, 16384, 32768, 65536, 524288, 1048576};

TEST(BufferObjPoolTest, NineClassesHaveAPoolOfTheirLength) {
  std::set<BufferObjPool*> pools;
  for (uint32_t length : kLengths) {
    BufferObjPool* pool = GetBufferObjPool(length);
    ASSERT_NE(pool, nullptr) << length;
    EXPECT_EQ(Peer::ObjectSize(*pool), length);
    pools.insert(pool);
  }

  EXPECT_EQ(pools.size(), 9u);
}

TEST(BufferObjPoolTest, PoolsAreBuiltWithTheNumbersOfTheHeader) {
  ASSERT_EQ(std::size(kBufferClasses), 9u);
  for (size_t i = 0; i < 9; ++i) {
    const BufferClass& buffer_class = kBufferClasses[i];
    EXPECT_EQ(buffer_class.length_bytes, kLengths[i]);
    BufferObjPool* pool = GetBufferObjPool(buffer_class.length_bytes);
    EXPECT_EQ(Peer::Capacity(*pool), buffer_class.capacity);
    EXPECT_EQ(Peer::MaxBatches(*pool), buffer_class.max_batches);
  }
}

TEST(BufferObjPoolTest, OtherLengthsHaveNone) {
  for (uint32_t length :
       {0u, 1u, 511u, 513u, 8192u, 131072u, 262144u, 1048575u, 1048577u, 2097152u, UINT32_MAX}) {
    EXPECT_EQ(GetBufferObjPool(length), nullptr) << length;
  }
}

TEST(BufferObjPoolTest, EveryThreadGetsTheSamePoolEveryTime) {
  for (uint32_t length : kLengths) {
    BufferObjPool* const pool = GetBufferObjPool(length);
    OnSdkThread([&] { EXPECT_EQ(GetBufferObjPool(length), pool); });
    OnForeignThread([&] { EXPECT_EQ(GetBufferObjPool(length), pool); });
    EXPECT_EQ(GetBufferObjPool(length), pool);
  }
}

TEST(BufferObjPoolTest, ThreadsThatAskAtTheSameTimeGetTheSamePool) {
  std::vector<std::vector<BufferObjPool*>> answers(4);
  std::vector<std::thread> threads;
  for (auto& answer : answers) {
    threads.emplace_back([&answer] {
      for (uint32_t length : kLengths) answer.push_back(GetBufferObjPool(length));
    });
  }
  for (std::thread& thread : threads) thread.join();

  for (const auto& answer : answers) EXPECT_EQ(answer, answers[0]);
}

// Exits with the number of classes of which the threads that asked for it together got two pools.
void AskWhileTheProcessExits() {
  int classes_with_two = 0;
  for (const BufferClass& one : kBufferClasses) {
    std::atomic<int> waiting{0};
    std::vector<BufferObjPool*> answers(4);
    std::vector<std::thread> threads;
    for (BufferObjPool*& answer : answers) {
      threads.emplace_back([&waiting, &answer, &one] {
        ++waiting;
        while (waiting < 4) std::this_thread::yield();
        answer = GetBufferObjPool(one.length_bytes);
      });
    }
    for (std::thread& thread : threads) thread.join();
    if (std::set<BufferObjPool*>(answers.begin(), answers.end()).size() > 1) ++classes_with_two;
  }
  _exit(classes_with_two);
}

// The handler is older than the pools, so it runs after whatever these have registered for the
// exit.
TEST(BufferObjPoolDeathTest, ThreadsThatAskWhileTheProcessExitsGetTheSamePool) {
  for (int i = 0; i < 5; ++i) {
    const auto ask = [] {
      std::atexit(&AskWhileTheProcessExits);
      (void)GetBufferObjPool(512);
      std::exit(1);
    };
    EXPECT_EXIT(ask(), ::testing::ExitedWithCode(0), "");
  }
}

// What docs/design/pooled-buffers.md and the header promise.
TEST(BufferObjPoolTest, IdleMemoryStaysBelowThePromisedBounds) {
  uint64_t thread_bytes = 0, shared_bytes = 0;
  for (const BufferClass& one : kBufferClasses) {
    thread_bytes += (2ull * one.capacity - 1) * one.length_bytes;
    shared_bytes += uint64_t{one.max_batches} * one.capacity * one.length_bytes;
    // A dry thread makes `capacity` arrays: of those that it does not use, one page each is
    // touched.
    EXPECT_LE(one.capacity * std::min<uint64_t>(one.length_bytes, 4096), 32768u)
        << one.length_bytes;
    EXPECT_LE(uint64_t{one.capacity} * one.length_bytes, 2097152u) << one.length_bytes;
  }

  EXPECT_EQ(thread_bytes, (6424u * 1024) + 512);
  EXPECT_EQ(shared_bytes, 28736u * 1024);
}

}  // namespace
}  // namespace internal
QUENOR_NAMESPACE_END
