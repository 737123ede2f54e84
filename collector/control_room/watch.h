// ControlWatch: brings what an operator sets in the store's bucket. It is told by a watcher of the
// client library's, and reads the revision every two seconds itself: after a node's death a watcher
// may hear nothing any more and say nothing about it; it is then made anew. A revision that has
// fallen, or is gone, and stays so for some looks is a bucket that was made anew, or a key that was
// deleted: what is there then holds.
// Life: one per collector, ends before the connection. Threads: one of its own, which leaves what
// it finds behind; Take() on any other.
#ifndef COLLECTOR_CONTROL_ROOM_WATCH_H_
#define COLLECTOR_CONTROL_ROOM_WATCH_H_

#include <nats/nats.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "collector/store/options.h"
#include "collector/store/session.h"

namespace quenor::collector {

class ControlWatch {
 public:
  struct Value {
    uint64_t revision = 0;  // 0: nothing is set any more.
    std::string json;
  };

  // `connection` outlives it. Throws Fatal.
  ControlWatch(const StoreOptions& store, natsConnection* connection);
  ~ControlWatch();
  ControlWatch(const ControlWatch&) = delete;
  ControlWatch& operator=(const ControlWatch&) = delete;

  // Readable when there is a value to take.
  int event_fd() const { return event_fd_; }

  // The newest value that has not been taken yet.
  std::optional<Value> Take();

 private:
  void Run();
  bool OpenBucket();
  void OpenWatcher();
  void Look();
  void Found(kvEntry* entry);
  void Leave(Value value);

  const StoreOptions store_;
  ContextPtr context_;
  int event_fd_ = -1;

  // The thread's own.
  BucketPtr bucket_;
  WatcherPtr watcher_;
  uint64_t revision_ = 0;  // The newest that was found.
  int older_looks_ = 0;    // In a row, each of which found an older one, or none.
  bool has_looked_ = false;

  std::mutex mutex_;  // Guards the one below.
  std::optional<Value> value_;
  std::atomic<bool> ends_{false};
  std::thread thread_;  // Last: everything above is there when it begins.
};

}  // namespace quenor::collector

#endif  // COLLECTOR_CONTROL_ROOM_WATCH_H_
