// What a dispatch queue has to run. Internal to the dispatch queue.
#ifndef SERVICES_DISPATCH_QUEUE_PTHREAD_TASK_LIST_H_
#define SERVICES_DISPATCH_QUEUE_PTHREAD_TASK_LIST_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include "quenor_base/platform/base/callback.h"

QUENOR_NAMESPACE_BEGIN
namespace dispatch_queue {

using Task = base::OnceCallback<void()>;

// Tasks in a row, in room that is made beforehand. Smaller than a vector, to be on one cache line
// with all else that a post writes.
class TaskList {
 public:
  TaskList() = default;
  ~TaskList() {
    Clear();
    if (tasks_ != nullptr) std::allocator<Task>().deallocate(tasks_, capacity_);
  }
  TaskList(const TaskList&) = delete;
  TaskList& operator=(const TaskList&) = delete;

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  size_t capacity() const { return capacity_; }
  Task* begin() { return tasks_; }
  Task* end() { return tasks_ + size_; }

  // There must be room.
  void Add(Task&& task) {
    new (tasks_ + size_) Task(std::move(task));
    ++size_;
  }
  void Clear() {
    for (Task& task : *this) task.~Task();
    size_ = 0;
  }
  void Swap(TaskList* other) {
    std::swap(tasks_, other->tasks_);
    std::swap(size_, other->size_);
    std::swap(capacity_, other->capacity_);
  }
  // Takes the room of `roomy`, an empty one with more of it, which is left with this one's.
  void MoveInto(TaskList* roomy) {
    for (Task& task : *this) roomy->Add(std::move(task));
    Swap(roomy);
  }
  // An empty one's.
  [[gnu::cold]] void SetCapacity(size_t capacity) {
    Task* const room = std::allocator<Task>().allocate(capacity);  // May throw: the old stays.
    if (tasks_ != nullptr) std::allocator<Task>().deallocate(tasks_, capacity_);
    tasks_ = room;
    capacity_ = static_cast<uint32_t>(capacity);
  }

 private:
  Task* tasks_ = nullptr;
  uint32_t size_ = 0;
  uint32_t capacity_ = 0;
};

}  // namespace dispatch_queue
QUENOR_NAMESPACE_END

#endif  // SERVICES_DISPATCH_QUEUE_PTHREAD_TASK_LIST_H_
