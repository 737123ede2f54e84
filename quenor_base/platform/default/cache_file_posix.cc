#include "quenor_base/platform/reliable_report_cache_file.h"

namespace quenor {

struct ReliableReportCacheFile::State {};

ReliableReportCacheFile::ReliableReportCacheFile() : state_(nullptr) {}

ReliableReportCacheFile::~ReliableReportCacheFile() { Close(); }

void ReliableReportCacheFile::Close() {
  delete state_;
  state_ = nullptr;
}

}  // namespace quenor
