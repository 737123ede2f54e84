// What a dispatch queue has to run. Internal to the dispatch queue.
#ifndef SERVICES_DISPATCH_QUEUE_PTHREAD_TASK_LIST_H_
#define SERVICES_DISPATCH_QUEUE_PTHREAD_TASK_LIST_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include "quenor_base/platform/base/callback.h"

QUENOR_NAMESPACE_BEGIN
namespace dispatch_queue {

using Task = base::OnceCallback<void()>;

// Tasks in a row, in blocks of room that are made beforehand. More room is one block more: no task
// is ever moved within the list, so that whoever makes it keeps the lock for no longer than others.
class TaskList {
 public:
  // Room for tasks, behind itself in the same memory.
  class alignas(Task) Block {
   public:
    // May throw.
    static std::unique_ptr<Block> Make(uint32_t capacity) {
      void* const memory = ::operator new(sizeof(Block) + capacity * sizeof(Task));
      return std::unique_ptr<Block>(new (memory) Block(capacity));
    }
    static void operator delete(void* memory) { ::operator delete(memory); }

   private:
    friend class TaskList;
    explicit Block(uint32_t capacity) : capacity_(capacity) {}
    Task* begin() { return reinterpret_cast<Task*>(this + 1); }
    Task* end() { return begin() + capacity_; }

    const uint32_t capacity_;
    std::unique_ptr<Block> next_;
  };
  static_assert(alignof(Task) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);

  TaskList() = default;
  ~TaskList() {
    Clear();
    KeepRoomFor(0);
  }
  TaskList(const TaskList&) = delete;
  TaskList& operator=(const TaskList&) = delete;

  bool empty() const { return first_ == nullptr || end_ == first_->begin(); }

  // There must be room.
  void Add(Task&& task) {
    new (end_++) Task(std::move(task));
    --left_;
  }
  bool HasRoom() { return left_ > 0 || GoOnInNextBlock(); }
  // Of the next block: as much again as there is, within bounds.
  uint32_t NextCapacity() const {
    constexpr uint32_t kLeast = 16, kMost = 256;
    return std::clamp(capacity_, kLeast, kMost);
  }
  // There must be no room.
  void AddRoom(std::unique_ptr<Block> block) {
    capacity_ += block->capacity_;
    (last_ == nullptr ? first_ : last_->next_) = std::move(block);
    GoOnInNextBlock();
  }

  // Calls `run` with each task, in order, until it answers false.
  template <typename Run>
  bool All(Run run) {
    for (Block* block = first_.get(); block != nullptr; block = block->next_.get()) {
      Task* const end = block == last_ ? end_ : block->end();
      for (Task* task = block->begin(); task != end; ++task) {
        if (!run(*task)) return false;
      }
      if (block == last_) break;
    }
    return true;
  }
  void Clear() {
    All([](Task& task) {
      task.~Task();
      return true;
    });
    last_ = nullptr;
    left_ = 0;
    GoOnInNextBlock();
  }
  void Swap(TaskList* other) {
    std::swap(first_, other->first_);
    std::swap(last_, other->last_);
    std::swap(end_, other->end_);
    std::swap(left_, other->left_);
    std::swap(capacity_, other->capacity_);
  }
  // Gives all other blocks of an empty list back.
  void KeepRoomFor(uint32_t tasks) {
    std::unique_ptr<Block>* rest = &first_;
    uint32_t kept = 0;
    while (*rest != nullptr && kept + (*rest)->capacity_ <= tasks) {
      kept += (*rest)->capacity_;
      rest = &(*rest)->next_;
    }
    for (; *rest != nullptr; *rest = std::move((*rest)->next_)) capacity_ -= (*rest)->capacity_;
  }

 private:
  bool GoOnInNextBlock() {
    Block* const next = last_ == nullptr ? first_.get() : last_->next_.get();
    if (next == nullptr) return false;
    last_ = next;
    end_ = next->begin();
    left_ = next->capacity_;
    return true;
  }

  std::unique_ptr<Block> first_;
  Block* last_ = nullptr;  // In which tasks are added; those before it are full, and none follow.
  Task* end_ = nullptr;
  uint32_t left_ = 0;      // Room for so many more in that block.
  uint32_t capacity_ = 0;  // Of all blocks.
};

}  // namespace dispatch_queue
QUENOR_NAMESPACE_END

#endif  // SERVICES_DISPATCH_QUEUE_PTHREAD_TASK_LIST_H_
