// The floor of the pool: the least that keeps arrays in two tiers with the pool's own bounds. Each
// thread has intrusive lists, whose links lie in the idle arrays themselves; whole chains pass
// through one shared stack under a mutex. Nothing is freed when a thread ends.
// Threads: any.
#ifndef QUENOR_BENCHMARKS_POOL_BARE_LIST_H_
#define QUENOR_BENCHMARKS_POOL_BARE_LIST_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <mutex>

#include "quenor_base/object_pool/alloc_buffer_from_pool.h"

namespace quenor::bench {

template <size_t kIndex>
class BareList {
 public:
  static void* Take() {
    Node* const node = free_.head;
    if (node == nullptr) return TakeWhenDry();
    free_.head = node->next;
    --free_.count;
    return node;
  }

  static void Give(void* array) {
    if (free_.count < kClass.capacity) {
      free_.Push(array);
      return;
    }
    pending_.Push(array);
    if (pending_.count >= kClass.capacity) HandOver();
  }

 private:
  static constexpr internal::BufferClass kClass = internal::kBufferClasses[kIndex];

  struct Node {
    Node* next;
  };
  struct Chain {
    void Push(void* array) {
      Node* const node = static_cast<Node*>(array);
      node->next = head;
      head = node;
      ++count;
    }
    Node* head = nullptr;
    uint32_t count = 0;
  };

  [[gnu::noinline]] static void* TakeWhenDry() {
    if (pending_.count > 0) {
      free_ = pending_;
      pending_ = {};
      return Take();
    }
    {
      std::lock_guard<std::mutex> hold(mutex_);
      if (batches_ > 0) free_ = shared_[--batches_];
    }
    return free_.count > 0 ? Take() : std::malloc(kClass.length_bytes);
  }

  [[gnu::noinline]] static void HandOver() {
    Chain chain = pending_;
    pending_ = {};
    {
      std::lock_guard<std::mutex> hold(mutex_);
      if (batches_ < kClass.max_batches) {
        shared_[batches_++] = chain;
        return;
      }
    }
    while (chain.head != nullptr) {
      Node* const node = chain.head;
      chain.head = node->next;
      std::free(node);
    }
  }

  inline static thread_local Chain free_;
  inline static thread_local Chain pending_;
  inline static std::mutex mutex_;
  inline static Chain shared_[kClass.max_batches];
  inline static uint32_t batches_ = 0;
};

}  // namespace quenor::bench

#endif  // QUENOR_BENCHMARKS_POOL_BARE_LIST_H_
