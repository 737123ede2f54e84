// A pool against a model of it: random steps of several threads in turn, the lists compared after
// each. Written without sight of the implementation, from the promises alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <random>
#include <vector>

#include "quenor_base/object_pool/alloc_buffer_from_pool.h"
#include "quenor_base/object_pool/object_pool.h"
#include "tests/unit/second/pools/pool_peer.h"
#include "tests/unit/second/pools/probe.h"
#include "tests/unit/second/pools/worker.h"

namespace quenor::test {
namespace {

using Pool = ObjectPool<uint8_t[], objpool::DefaultResetter<uint8_t[]>,
                        objpool::DefaultAllocator<uint8_t[]>, objpool::DefaultDestroyer<uint8_t[]>>;
using Peer = ObjectPoolTestPeer;
using Addresses = Peer::Addresses;

constexpr uint32_t kLength = 40;

struct Shape {
  uint32_t capacity;
  uint32_t max_batches;
  uint32_t seed;
};

std::ostream& operator<<(std::ostream& out, const Shape& shape) {
  return out << "capacity " << shape.capacity << ", max_batches " << shape.max_batches << ", seed "
             << shape.seed;
}

struct ModelThread {
  Addresses free_list;
  Addresses pending;
};

// What a step has to do with the heap.
struct Expected {
  size_t made = 0;
  Addresses freed;
  size_t locks = 0;
};

class Model {
 public:
  explicit Model(const Shape& shape) : shape_(shape) {}

  // How many arrays AllocRaw has to make, before it is called.
  size_t ArraysToMake(const ModelThread& thread) const {
    if (!thread.free_list.empty() || !thread.pending.empty()) return 0;
    const size_t found = batches.empty() ? 0 : batches.back().size();
    return found < shape_.capacity ? shape_.capacity - found : 0;
  }
  // One AllocRaw that made `made`; answers the array that it has to hand out.
  const void* Alloc(ModelThread* thread, const Addresses& made, Expected* expected) {
    if (thread->free_list.empty() && !thread->pending.empty()) {
      thread->free_list.swap(thread->pending);
    }
    if (thread->free_list.empty()) {
      expected->locks = 1;
      if (!batches.empty()) {
        thread->free_list = batches.back();
        batches.pop_back();
      }
      thread->free_list.insert(thread->free_list.end(), made.begin(), made.end());
    }
    const void* const array = thread->free_list.back();
    thread->free_list.pop_back();
    return array;
  }
  void Reuse(ModelThread* thread, const void* array, Expected* expected) {
    if (thread->free_list.size() < shape_.capacity) {
      thread->free_list.push_back(array);
      return;
    }
    thread->pending.push_back(array);
    if (thread->pending.size() < shape_.capacity) return;
    expected->locks = 1;
    batches.push_back(thread->pending);
    thread->pending.clear();
    if (batches.size() <= shape_.max_batches) return;
    while (batches.size() > shape_.max_batches * 3 / 4) {
      const Addresses& oldest = batches.front();
      expected->freed.insert(expected->freed.end(), oldest.begin(), oldest.end());
      batches.pop_front();
    }
  }

  std::deque<Addresses> batches;  // oldest first

 private:
  const Shape shape_;
};

class SecondPoolModelTest : public ::testing::TestWithParam<Shape> {};

TEST_P(SecondPoolModelTest, RandomStepsOfThreeThreadsAgreeWithTheModel) {
  constexpr size_t kThreads = 3;
  constexpr int kSteps = 1500;
  const Shape shape = GetParam();
  SCOPED_TRACE(::testing::Message() << shape);
  Pool pool(kLength, shape.capacity, shape.max_batches);
  std::vector<std::unique_ptr<Worker>> workers;
  for (size_t i = 0; i < kThreads; ++i) {
    workers.push_back(std::make_unique<Worker>());
    workers.back()->Do([&] { pool.Reuse(nullptr); });
  }
  Model model(shape);
  ModelThread threads[kThreads];
  std::vector<uint8_t*> in_use;
  std::mt19937 random(shape.seed);

  uint32_t draining = 0;
  for (int step = 0; step < kSteps && !::testing::Test::HasFailure(); ++step) {
    SCOPED_TRACE(::testing::Message() << "step " << step);
    if (step % 60 == 0) draining = random() % 2;  // Long runs either way fill and empty the tiers.
    const size_t who = random() % kThreads;
    const bool take = in_use.empty() || random() % 10 < (draining != 0 ? 2u : 7u);
    uint8_t* returned = nullptr;
    if (!take) {
      const size_t index = random() % in_use.size();
      returned = in_use[index];
      in_use.erase(in_use.begin() + static_cast<std::ptrdiff_t>(index));
    }
    workers[who]->Do([&] {
      ModelThread& thread = threads[who];
      Expected expected;
      Probe probe;
      if (take) {
        expected.made = model.ArraysToMake(thread);
        uint8_t* const taken = pool.AllocRaw();
        const Addresses made = probe.Whats(Act::kNewNothrowArray);
        ASSERT_EQ(made.size(), expected.made);
        EXPECT_EQ(taken, model.Alloc(&thread, made, &expected));
        in_use.push_back(taken);
      } else {
        pool.Reuse(returned);
        model.Reuse(&thread, returned, &expected);
        EXPECT_EQ(probe.Count(Act::kNewNothrowArray), 0u);
      }
      EXPECT_EQ(probe.Whats(Act::kDeleteArray), expected.freed);
      EXPECT_EQ(probe.Count(Act::kLock), expected.locks);
      EXPECT_EQ(Peer::FreeList(pool), thread.free_list);
      EXPECT_EQ(Peer::Pending(pool), thread.pending);
      EXPECT_LE(thread.free_list.size(), shape.capacity);
      EXPECT_LT(thread.pending.size(), shape.capacity);
    });
    EXPECT_EQ(Peer::Batches(pool),
              std::vector<Addresses>(model.batches.begin(), model.batches.end()));
    EXPECT_LE(model.batches.size(), shape.max_batches);
  }

  for (uint8_t* array : in_use) delete[] array;
  for (auto& worker : workers) worker->End();
  EXPECT_EQ(Peer::Shared(pool), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Shapes, SecondPoolModelTest,
                         ::testing::Values(Shape{1, 0, 101}, Shape{1, 1, 102}, Shape{1, 4, 103},
                                           Shape{2, 2, 104}, Shape{2, 8, 105}, Shape{3, 1, 106},
                                           Shape{4, 3, 107}, Shape{4, 8, 108}, Shape{16, 8, 109}));

}  // namespace
}  // namespace quenor::test
