#include "cli/send/channel_log.h"

#include <string>
#include <string_view>

#include "cli/advice.h"

namespace quenor::cli {
namespace {

constexpr int kErrorLevel = 2;
// The channel's words, whichever kind of cache it is, and whatever they seem to say.
constexpr std::string_view kCannotOpen = "open mmap file failed!";
constexpr std::string_view kNotOpen[] = {"mmap file has been loaded!",
                                         "cache file has been loaded!"};

}  // namespace

void ChannelLog::Sink(void* channel_log, int level, const char*, int, const char* text,
                      size_t size) {
  if (level != kErrorLevel) return;
  auto* const log = static_cast<ChannelLog*>(channel_log);
  const std::string_view line(text, size);
  if (line == kCannotOpen) {
    log->cache_failed_.store(true, std::memory_order_release);
    return;
  }
  for (const std::string_view known : kNotOpen) {
    if (line == known && log->cache_failed()) return;
  }
  log->console_->LogLine(InOptions(std::string(line)));
}

}  // namespace quenor::cli
