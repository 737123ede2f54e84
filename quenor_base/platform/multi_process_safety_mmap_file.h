// The memory-mapped cache file, which several processes may open at once.
// Threads: one thread at a time; the channel's queue thread.
#ifndef QUENOR_BASE_PLATFORM_MULTI_PROCESS_SAFETY_MMAP_FILE_H_
#define QUENOR_BASE_PLATFORM_MULTI_PROCESS_SAFETY_MMAP_FILE_H_

#include <cstdint>

#include "quenor_base/platform/base/file_path.h"
#include "quenor_base/platform/base/memory_mapped_file.h"

namespace quenor {

// One record of the file. Null `data` or 0 `size` marks the end when reading.
struct MmapDataPacket {
  const uint8_t* data = nullptr;
  uint32_t size = 0;
};

class MultiProcessSafetyMmapFile {
 public:
  // Nothing is opened or mapped.
  MultiProcessSafetyMmapFile();
  // As Close().
  ~MultiProcessSafetyMmapFile();
  MultiProcessSafetyMmapFile(const MultiProcessSafetyMmapFile&) = delete;
  MultiProcessSafetyMmapFile& operator=(const MultiProcessSafetyMmapFile&) = delete;

  // Unmaps and closes; nothing when no file is open.
  void Close();

 private:
  struct State;
  State* state_;  // Owned; null while no file is open.
};

}  // namespace quenor

#endif  // QUENOR_BASE_PLATFORM_MULTI_PROCESS_SAFETY_MMAP_FILE_H_
