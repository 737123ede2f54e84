// `quenor-collector export`: reads the stream into files, and acknowledges what is on the disk.
// Page: docs/guide/collectors.md.
#ifndef COLLECTOR_EXPORT_EXPORT_H_
#define COLLECTOR_EXPORT_EXPORT_H_

#include <cstdint>
#include <functional>
#include <string>

#include "collector/store/options.h"

namespace quenor::collector {

struct ExportOptions {
  StoreOptions store;
  std::string reader = "export";
  std::string out_dir;
  uint64_t rotate_bytes = uint64_t{256} << 20;
  uint64_t rotate_ms = 600'000;
  uint64_t progress_ms = 10'000;
  int batch = 2'000;
  bool once = false;  // End when everything is read.
};

// Reads until `stop_fd` is readable. Throws Fatal.
void RunExport(const ExportOptions& options, int stop_fd,
               const std::function<void(const std::string& line)>& print);

}  // namespace quenor::collector

#endif  // COLLECTOR_EXPORT_EXPORT_H_
