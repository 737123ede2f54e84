// The threads that serve requests. So many tasks are at work at the same time as there are seats;
// one that waits for its peer gives its seat away until the wait is over, and another thread takes
// it, so that peers which trickle or do not read keep nobody from being served.
// Life: construct, Post as often as need be, Stop, Join, destroy. Page: docs/guide/collector.md.
#ifndef COLLECTOR_HTTP_CREW_H_
#define COLLECTOR_HTTP_CREW_H_

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace quenor::collector {

class Crew {
 public:
  // Starts `seats` threads; later up to `most_waiting` more while as many tasks wait. Throws
  // std::system_error.
  Crew(size_t seats, size_t most_waiting);
  ~Crew();
  Crew(const Crew&) = delete;
  Crew& operator=(const Crew&) = delete;

  // Any thread. Queues the task behind the others; after Stop it is dropped.
  void Post(std::function<void()> task);

  // The thread of a task, in turn: before it waits for its peer, and after. EndWait itself waits
  // until a seat is free, or Stop.
  void BeginWait();
  void EndWait();

  // Any thread. Drops the tasks that have not begun.
  void Stop();

  // After Stop: waits for the tasks that have begun. Not the thread of a task.
  void Join();

 private:
  void Work();
  void LeaveSeat();
  void AddThreadIfNeeded();

  const size_t seats_;
  const size_t most_threads_;
  std::mutex mutex_;  // Guards everything below.
  std::condition_variable work_cv_;
  std::condition_variable seat_cv_;
  std::deque<std::function<void()>> queue_;
  std::vector<std::thread> threads_;
  size_t working_ = 0;  // Tasks that have a seat.
  size_t resting_ = 0;  // Threads without a task.
  bool stopping_ = false;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_HTTP_CREW_H_
