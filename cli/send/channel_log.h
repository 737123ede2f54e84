// The log of the channel and of what it stands on, as a person is to see it: errors and warnings on
// the console, the rest nowhere (the closing lines tell it better). Of a cache that could not be
// opened the channel says the same at every save; it is kept out and remembered instead.
#ifndef CLI_SEND_CHANNEL_LOG_H_
#define CLI_SEND_CHANNEL_LOG_H_

#include <atomic>
#include <cstddef>

#include "cli/console.h"

namespace quenor::cli {

class ChannelLog {
 public:
  // Borrows `console`.
  explicit ChannelLog(Console* console) : console_(console) {}
  ChannelLog(const ChannelLog&) = delete;
  ChannelLog& operator=(const ChannelLog&) = delete;

  // A LogSink; `channel_log` is a ChannelLog.
  static void Sink(void* channel_log, int level, const char* file, int line, const char* text,
                   size_t size);

  // Any thread. True once the channel has said that it could not open its cache.
  bool cache_failed() const { return cache_failed_.load(std::memory_order_acquire); }

 private:
  Console* const console_;
  std::atomic<bool> cache_failed_{false};  // release: pairs with the acquire in cache_failed().
};

}  // namespace quenor::cli

#endif  // CLI_SEND_CHANNEL_LOG_H_
