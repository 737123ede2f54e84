#include "benchmarks/pool/work.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>
#include <iterator>
#include <list>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "benchmarks/pool/bare_list.h"
#include "benchmarks/support/area.h"
#include "quenor_base/object_pool/alloc_buffer_from_pool.h"
#include "quenor_base/platform/base/thread_create_flag.h"

namespace quenor::bench {
namespace {

constexpr int kMaxDepth = 16;
// Arrays between two looks at the clock; multiples of every depth and every group.
constexpr int kChunk = 4096;
constexpr int kStreamChunk = 1024;

// Each contender: what it hands out, and how it is taken and given back.

struct Pool {
  using Held = std::unique_ptr<uint8_t[], void (*)(void*)>;
  static Held Take(uint32_t size) { return internal::AllocBufferTFromPool<uint8_t[]>(size); }
  static const void* Address(const Held& held) { return held.get(); }
  static void Give(Held& held) { held.reset(); }
};

template <size_t kIndex>
struct Bare {
  using Held = void*;
  static Held Take(uint32_t /*size*/) { return BareList<kIndex>::Take(); }
  static const void* Address(Held held) { return held; }
  static void Give(Held& held) { BareList<kIndex>::Give(held); }
};

// Only the node that a list would need for the array.
struct Nodes {
  using Element = objpool::ObjUniquePtr<uint8_t[], objpool::DefaultDestroyer<uint8_t[]>>;
  using Held = std::list<Element>;
  static Held Take(uint32_t size) {
    Held list;
    list.emplace_back(nullptr, size);
    return list;
  }
  static const void* Address(const Held& held) { return &held.back(); }
  static void Give(Held& held) { held.pop_back(); }
};

// Only what moves a node that there is from one list to another and back.
struct Splices {
  using Held = void*;
  using List = std::list<Nodes::Element>;
  static Held Take(uint32_t /*size*/) {
    if (full_.empty()) full_.emplace_back();
    List& from = full_;
    empty_.splice(empty_.end(), from, std::prev(from.end()));
    return &empty_.back();
  }
  static const void* Address(Held held) { return held; }
  static void Give(Held& /*held*/) { full_.splice(full_.end(), empty_, std::prev(empty_.end())); }
  inline static thread_local List full_;
  inline static thread_local List empty_;
};

struct Malloc {
  using Held = void*;
  static Held Take(uint32_t size) { return std::malloc(size); }
  static const void* Address(Held held) { return held; }
  static void Give(Held& held) { std::free(held); }
};

template <typename Who>
void TakeAndGive(uint32_t size, int pairs) {
  for (int i = 0; i < pairs; ++i) {
    auto held = Who::Take(size);
    Keep(*static_cast<const char*>(Who::Address(held)));
    Who::Give(held);
  }
}

template <typename Who>
void TakeManyAndGive(uint32_t size, int depth, int pairs) {
  std::optional<typename Who::Held> held[kMaxDepth];
  for (int done = 0; done < pairs; done += depth) {
    for (int i = 0; i < depth; ++i) {
      held[i].emplace(Who::Take(size));
      Keep(*static_cast<const char*>(Who::Address(*held[i])));
    }
    for (int i = depth - 1; i >= 0; --i) Who::Give(*held[i]);
  }
}

// How often this process has asked its heap for memory, or 0 where that is not counted.
class Heap {
 public:
  static bool IsCounted() { return Counter() != nullptr; }
  static double Allocations() { return IsCounted() ? static_cast<double>(Counter()()) : 0; }

 private:
  using Function = uint64_t (*)();
  static Function Counter() {
    static const auto counter =
        reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, "QuenorBenchHeapAllocations"));
    return counter;
  }
};

// Runs `chunk`, which takes and gives back `count` arrays.
template <typename Chunk>
Done Run(int count, double at_least_ms, const Chunk& chunk) {
  chunk();
  double arrays = 0, allocations = 0;
  Done done;
  done.ns_each = MedianChunkNs(count, at_least_ms, [&] {
    const double before = Heap::Allocations();
    chunk();
    allocations += Heap::Allocations() - before;
    arrays += count;
  });
  if (Heap::IsCounted()) done.allocations_each = allocations / arrays;
  return done;
}

template <typename Who>
Done Pairs(uint32_t size, int depth, double at_least_ms) {
  return Run(kChunk, at_least_ms, [&] {
    depth == 1 ? TakeAndGive<Who>(size, kChunk) : TakeManyAndGive<Who>(size, depth, kChunk);
  });
}

// From one thread to another, in groups: what passing them on costs then hides less of what taking
// and giving back cost. Both threads wait awake, and let others run when it takes long.
template <typename Held>
class Passage {
 public:
  static constexpr int kGroup = 8;
  using Group = std::optional<Held>[kGroup];

  // The group to fill, once there is one. Passed on by PassOn.
  Group& ToFill() {
    // acquire: pairs with the release in Return(); the group has been emptied by then.
    Wait([this] { return filled_ - returned_.value.load(std::memory_order_acquire) < kRoom; });
    return groups_[filled_ % kRoom];
  }
  void PassOn() {
    passed_.value.store(++filled_, std::memory_order_release);  // release: pairs with ToEmpty().
  }
  // The group to empty, or null when that is the end: a group that is empty already.
  Group* ToEmpty() {
    // acquire: pairs with the release in PassOn(); the group has been filled by then.
    Wait([this] { return passed_.value.load(std::memory_order_acquire) != emptied_; });
    Group& group = groups_[emptied_ % kRoom];
    return group[0].has_value() ? &group : nullptr;
  }
  void Return() {
    returned_.value.store(++emptied_, std::memory_order_release);  // release: pairs with ToFill().
  }

 private:
  static constexpr uint32_t kRoom = 2;
  struct alignas(64) Counter {
    std::atomic<uint32_t> value{0};
  };

  template <typename Ready>
  static void Wait(const Ready& ready) {
    for (int i = 0; !ready(); ++i) {
      if (i > 2000) std::this_thread::yield();
    }
  }

  alignas(64) Group groups_[kRoom];
  Counter passed_;
  Counter returned_;
  alignas(64) uint32_t filled_ = 0;   // Of the thread that fills.
  alignas(64) uint32_t emptied_ = 0;  // Of the other one.
};

template <typename Who>
Done Stream(uint32_t size, double at_least_ms) {
  Passage<typename Who::Held> passage;
  std::thread giver([&passage] {
    base::ThreadCreateFlag::SetThreadCreateByQuenor(true);
    while (auto* const group = passage.ToEmpty()) {
      for (auto& held : *group) {
        Who::Give(*held);
        held.reset();
      }
      passage.Return();
    }
  });
  const Done done = Run(kStreamChunk, at_least_ms, [&] {
    for (int i = 0; i < kStreamChunk; i += Passage<typename Who::Held>::kGroup) {
      for (auto& held : passage.ToFill()) held.emplace(Who::Take(size));
      passage.PassOn();
    }
  });
  passage.ToFill();
  passage.PassOn();  // An empty group: the end.
  giver.join();
  return done;
}

template <typename Who>
Done Do(const Work& work) {
  const uint32_t size = internal::kBufferClasses[work.class_index].length_bytes;
  return work.what == "stream" ? Stream<Who>(size, work.at_least_ms)
                               : Pairs<Who>(size, work.depth, work.at_least_ms);
}

template <size_t... kIndex>
Done DoBare(const Work& work, std::index_sequence<kIndex...>) {
  using Function = Done (*)(const Work&);
  static constexpr Function kFunctions[] = {&Do<Bare<kIndex>>...};
  return kFunctions[work.class_index](work);
}

}  // namespace

Done DoWork(const Work& work) {
  base::ThreadCreateFlag::SetThreadCreateByQuenor(true);
  if (work.who == "pool") return Do<Pool>(work);
  if (work.who == "nodes") return Do<Nodes>(work);
  if (work.who == "splices") return Do<Splices>(work);
  if (work.who == "malloc") return Do<Malloc>(work);
  constexpr size_t kClasses = std::size(internal::kBufferClasses);
  return DoBare(work, std::make_index_sequence<kClasses>());
}

void TakeAndGivePooled(uint32_t size, int times) {
  base::ThreadCreateFlag::SetThreadCreateByQuenor(true);
  TakeAndGive<Pool>(size, times);
}

}  // namespace quenor::bench
