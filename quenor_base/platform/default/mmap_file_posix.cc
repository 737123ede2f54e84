#include "quenor_base/platform/multi_process_safety_mmap_file.h"

namespace quenor {

struct MultiProcessSafetyMmapFile::State {};

MultiProcessSafetyMmapFile::MultiProcessSafetyMmapFile() : state_(nullptr) {}

MultiProcessSafetyMmapFile::~MultiProcessSafetyMmapFile() { Close(); }

void MultiProcessSafetyMmapFile::Close() {
  delete state_;
  state_ = nullptr;
}

}  // namespace quenor
