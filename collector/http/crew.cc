#include "collector/http/crew.h"

#include <algorithm>
#include <system_error>
#include <utility>

namespace quenor::collector {

Crew::Crew(size_t seats, size_t most_waiting) : seats_(seats), most_threads_(seats + most_waiting) {
  try {
    for (size_t i = 0; i < seats_; ++i) threads_.emplace_back([this] { Work(); });
  } catch (const std::system_error&) {
    Stop();
    Join();
    throw;
  }
}

Crew::~Crew() {
  Stop();
  Join();
}

void Crew::Post(std::function<void()> task) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (stopping_) return;
  queue_.push_back(std::move(task));
  AddThreadIfNeeded();
  work_cv_.notify_one();
}

void Crew::BeginWait() {
  const std::lock_guard<std::mutex> lock(mutex_);
  LeaveSeat();
  if (!stopping_) AddThreadIfNeeded();
}

void Crew::EndWait() {
  std::unique_lock<std::mutex> lock(mutex_);
  seat_cv_.wait(lock, [this] { return stopping_ || working_ < seats_; });
  ++working_;
}

void Crew::Stop() {
  const std::lock_guard<std::mutex> lock(mutex_);
  stopping_ = true;
  queue_.clear();
  work_cv_.notify_all();
  seat_cv_.notify_all();
}

void Crew::Join() {
  // No thread is added once stopping_ is set.
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

void Crew::Work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    ++resting_;
    work_cv_.wait(lock, [this] { return stopping_ || (!queue_.empty() && working_ < seats_); });
    --resting_;
    if (stopping_) return;
    const std::function<void()> task = std::move(queue_.front());
    queue_.pop_front();
    ++working_;
    lock.unlock();
    task();
    lock.lock();
    LeaveSeat();
  }
}

// The mutex is held.
void Crew::LeaveSeat() {
  --working_;
  seat_cv_.notify_one();
  work_cv_.notify_one();
}

// The mutex is held. Makes up for threads that wait.
void Crew::AddThreadIfNeeded() {
  const size_t can_begin = std::min(queue_.size(), seats_ - std::min(seats_, working_));
  if (can_begin <= resting_ || threads_.size() >= most_threads_) return;
  try {
    threads_.emplace_back([this] { Work(); });
  } catch (const std::system_error&) {
    // No thread to be had: the task waits for one of those that there are.
  }
}

}  // namespace quenor::collector
