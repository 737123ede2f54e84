// The plain cache file of one owner.
// Threads: one thread at a time; the channel's queue thread.
#ifndef QUENOR_BASE_PLATFORM_RELIABLE_REPORT_CACHE_FILE_H_
#define QUENOR_BASE_PLATFORM_RELIABLE_REPORT_CACHE_FILE_H_

#include <cstdint>

#include "quenor_base/platform/base/file_path.h"

namespace quenor {

class ReliableReportCacheFile {
 public:
  // One record of the file. Null `data` or 0 `size` marks the end when reading.
  struct DataPacket {
    const uint8_t* data = nullptr;
    uint32_t size = 0;
  };

  // Nothing is opened.
  ReliableReportCacheFile();
  // As Close().
  ~ReliableReportCacheFile();
  ReliableReportCacheFile(const ReliableReportCacheFile&) = delete;
  ReliableReportCacheFile& operator=(const ReliableReportCacheFile&) = delete;

  // Closes; nothing when no file is open.
  void Close();

 private:
  struct State;
  State* state_;  // Owned; null while no file is open.
};

}  // namespace quenor

#endif  // QUENOR_BASE_PLATFORM_RELIABLE_REPORT_CACHE_FILE_H_
