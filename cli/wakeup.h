// Wakes the thread that waits in poll(): the one way in which signals and the channel's events
// reach the main loop.
#ifndef CLI_WAKEUP_H_
#define CLI_WAKEUP_H_

#include <atomic>

namespace quenor::cli {

class Wakeup {
 public:
  // Throws Fatal with kExitInternal when no descriptors are left.
  Wakeup();
  ~Wakeup();
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;

  // Any thread. Makes fd() readable until Clear(). Never blocks.
  void Notify();

  // The waiting thread. What led to a Notify() before this is to be looked at after it.
  void Clear();

  // Any thread. Readable after Notify().
  int fd() const { return read_fd_; }

 private:
  int read_fd_ = -1;
  int write_fd_ = -1;
  std::atomic<bool> notified_{false};  // At most one byte is ever in the pipe.
};

}  // namespace quenor::cli

#endif  // CLI_WAKEUP_H_
