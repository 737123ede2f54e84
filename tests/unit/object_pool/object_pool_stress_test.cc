// Random operations on several threads, held against the simplest model: an array has at most one
// owner, and only the owner writes it. Most of the worth is in the run under the thread sanitizer.
#include <gtest/gtest.h>

#include <cstring>
#include <iostream>
#include <mutex>
#include <random>
#include <set>
#include <vector>

#include "pool_test_support.h"
#include "quenor_base/object_pool/alloc_buffer_from_pool.h"

QUENOR_NAMESPACE_BEGIN
namespace internal {
namespace {

using Buffer = std::unique_ptr<uint8_t[], void (*)(void*)>;

constexpr int kThreads = 8;
constexpr int kOperationsPerThread = 4000;
constexpr size_t kMostHeld = 40;  // beyond two lists of the smallest classes

// A buffer with the stamp that its owner wrote at both ends.
struct Held {
  Buffer buffer{nullptr, nullptr};
  uint32_t size = 0;
  uint64_t stamp = 0;
};

void Stamp(Held& held, uint64_t stamp) {
  held.stamp = stamp;
  std::memcpy(held.buffer.get(), &stamp, sizeof(stamp));
  std::memcpy(held.buffer.get() + held.size - sizeof(stamp), &stamp, sizeof(stamp));
}
bool IsIntact(const Held& held) {
  return std::memcmp(held.buffer.get(), &held.stamp, sizeof(held.stamp)) == 0 &&
         std::memcmp(held.buffer.get() + held.size - sizeof(held.stamp), &held.stamp,
                     sizeof(held.stamp)) == 0;
}

// Where threads leave buffers for each other.
class Mailbox {
 public:
  void Put(Held held) {
    std::lock_guard<std::mutex> lock(mutex_);
    held_.push_back(std::move(held));
  }
  bool Take(Held& held) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (held_.empty()) return false;
    held = std::move(held_.back());
    held_.pop_back();
    return true;
  }

 private:
  std::mutex mutex_;
  std::vector<Held> held_;
};

// The addresses that have an owner.
class OwnedArrays {
 public:
  bool Add(const uint8_t* array) {
    std::lock_guard<std::mutex> lock(mutex_);
    return owned_.insert(array).second;
  }
  bool Remove(const uint8_t* array) {
    std::lock_guard<std::mutex> lock(mutex_);
    return owned_.erase(array) == 1;
  }

 private:
  std::mutex mutex_;
  std::set<const uint8_t*> owned_;
};

class Worker {
 public:
  // `owned` may be null: its mutex orders the threads and so hides from the thread sanitizer what
  // the pool itself fails to order.
  Worker(uint32_t seed, Mailbox& mailbox, OwnedArrays* owned)
      : random_(seed), stamp_(uint64_t{seed} << 32), mailbox_(mailbox), owned_(owned) {}

  void Run() {
    for (int i = 0; i < kOperationsPerThread; ++i) {
      switch (random_() % 6) {
        case 0:
        case 1:
        case 2:
          if (held_.size() < kMostHeld) Alloc();
          break;
        case 3:
        case 4:
          if (!held_.empty()) Drop(TakeOne());
          break;
        default:
          Exchange();
      }
    }
    while (!held_.empty()) Drop(TakeOne());
  }
  void DrainMailbox() {
    Held held;
    while (mailbox_.Take(held)) Drop(std::move(held));
  }

  int broken() const { return broken_; }

 private:
  uint32_t RandomSize() {
    static constexpr uint32_t kUpTo[] = {512, 512, 512, 1024, 2048, 4096, 16384, 65536};
    return 16 + random_() % (kUpTo[random_() % std::size(kUpTo)] - 15);  // room for both stamps
  }

  void Alloc() {
    Held held;
    held.size = RandomSize();
    held.buffer = AllocBufferTFromPool<uint8_t[]>(held.size);
    if (held.buffer == nullptr) return;
    if (owned_ != nullptr && !owned_->Add(held.buffer.get())) ++broken_;
    Stamp(held, ++stamp_);
    held_.push_back(std::move(held));
  }

  void Drop(Held held) {
    if (!IsIntact(held)) ++broken_;
    if (owned_ != nullptr && !owned_->Remove(held.buffer.get())) ++broken_;
    held.buffer.reset();
  }

  void Exchange() {
    if (!held_.empty()) mailbox_.Put(TakeOne());
    Held held;
    if (!mailbox_.Take(held)) return;
    if (!IsIntact(held)) ++broken_;
    Stamp(held, ++stamp_);
    held_.push_back(std::move(held));
  }

  Held TakeOne() {
    std::swap(held_[random_() % held_.size()], held_.back());
    Held held = std::move(held_.back());
    held_.pop_back();
    return held;
  }

  std::mt19937 random_;
  uint64_t stamp_;
  Mailbox& mailbox_;
  OwnedArrays* const owned_;
  std::vector<Held> held_;
  int broken_ = 0;
};

// Six threads of the SDK and two foreign ones; each ends and is followed by another `rounds` times.
int BrokenAfter(uint32_t seed, int rounds, OwnedArrays* owned) {
  Mailbox mailbox;
  std::atomic<int> broken{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < rounds; ++round) {
        std::thread([&, i] {
          base::ThreadCreateFlag::SetThreadCreateByQuenor(i < 6);
          Worker worker(seed + static_cast<uint32_t>(round * kThreads + i), mailbox, owned);
          worker.Run();
          broken += worker.broken();
        }).join();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  OnSdkThread([&] {
    Worker worker(seed, mailbox, owned);
    worker.DrainMailbox();
    broken += worker.broken();
  });
  return broken;
}

uint32_t NewSeed() {
  const uint32_t seed = std::random_device{}();
  std::cout << "seed " << seed << std::endl;
  ::testing::Test::RecordProperty("seed", std::to_string(seed));
  return seed;
}

void ExpectNoSharedTierLeft() {
  for (const BufferClass& one : kBufferClasses) {
    EXPECT_FALSE(ObjectPoolTestPeer::SharedTierIsAlive(*GetBufferObjPool(one.length_bytes)))
        << one.length_bytes;
  }
}

TEST(ObjectPoolStressTest, NoArrayHasTwoOwnersAndContentsStay) {
  OwnedArrays owned;

  EXPECT_EQ(BrokenAfter(NewSeed(), 1, &owned), 0);

  ExpectNoSharedTierLeft();
}

TEST(ObjectPoolStressTest, ContentsStayWhenOnlyThePoolOrdersTheThreads) {
  EXPECT_EQ(BrokenAfter(NewSeed(), 1, nullptr), 0);

  ExpectNoSharedTierLeft();
}

TEST(ObjectPoolStressTest, ContentsStayWhileThreadsComeAndGo) {
  EXPECT_EQ(BrokenAfter(NewSeed(), 5, nullptr), 0);

  ExpectNoSharedTierLeft();
}

// Tiers and shared tiers die and are made anew all the time: each thread uses one array and ends.
TEST(ObjectPoolStressTest, SharedTierThatDiesWhileAnotherThreadAsksForItIsReplaced) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 300; ++round) {
        OnSdkThread([] {
          Buffer buffer = AllocBufferTFromPool<uint8_t[]>(40000);
          ASSERT_NE(buffer, nullptr);
          buffer[39999] = 1;
        });
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  ExpectNoSharedTierLeft();
}

}  // namespace
}  // namespace internal
QUENOR_NAMESPACE_END
