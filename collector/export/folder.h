// ExportFolder: exported messages in files of lines, each in one of them once, whatever was killed
// when, and of those with one id the one that came first. The file that is being written is
// NAME.part; one that is complete is NAME-FIRST-LAST.ndjson, by the least and the greatest sequence
// in it. Life: one per export, and one export per folder. Threads: one at a time.
#ifndef COLLECTOR_EXPORT_FOLDER_H_
#define COLLECTOR_EXPORT_FOLDER_H_

#include <chrono>
#include <cstdint>
#include <string>

#include "collector/clock.h"
#include "collector/export/known_ids.h"
#include "collector/export/ranges.h"

namespace quenor::collector {

class ExportFolder {
 public:
  struct Options {
    std::string path;
    std::string name;
    uint64_t rotate_bytes = 0;
    std::chrono::milliseconds rotate_after{0};
    uint64_t known_ids = 1;  // After so many others an id that comes again is still known.
  };

  // Makes the folder if need be and locks it. Throws Fatal.
  explicit ExportFolder(Options options);
  ~ExportFolder();
  ExportFolder(const ExportFolder&) = delete;
  ExportFolder& operator=(const ExportFolder&) = delete;

  // Learns what is there of the messages behind `acknowledged`, up to which nothing comes again,
  // and the latest ids, and cuts off what a kill left of a line at the end. A line that a power cut
  // has left without its middle is none: its message comes again. Throws Fatal.
  void Resume(uint64_t acknowledged, Time now);
  bool has_messages() const { return last_ > 0 || has_files_; }

  // `line` begins with {"sequence":N, has an "id" before its "body", and no line end. Not added if
  // the folder has that message, or had one of that id not long before.
  void Add(uint64_t sequence, const std::string& line);

  // Everything added is on the disk when it returns: it may be acknowledged. Begins a new file
  // where it is time. Throws Fatal; what was added is then taken back, as far as the disk lets it.
  void Sync(Time now);

  // Completes the file that is being written. Throws Fatal.
  void Complete();

  uint64_t lines() const { return lines_; }
  uint64_t repeats() const { return repeats_; }
  uint64_t bytes() const { return bytes_; }

 private:
  struct Scan {
    uint64_t whole_bytes = 0;  // Up to the end of the last whole line.
    uint64_t first = 0;
    uint64_t last = 0;
  };
  Scan ReadFile(const std::string& path);
  void ReadComplete(uint64_t acknowledged);
  void Open(Time now);
  void SyncFile();
  void SyncFolder() const;

  const Options options_;
  const std::string part_path_;
  int folder_fd_ = -1;
  int fd_ = -1;
  std::string buffer_;
  Ranges seen_;
  KnownIds ids_;
  bool has_files_ = false;   // Complete ones.
  uint64_t part_bytes_ = 0;  // On the disk.
  uint64_t first_ = 0;       // In the file that is being written; 0: none.
  uint64_t last_ = 0;
  Time opened_;
  uint64_t lines_ = 0;    // Since the start.
  uint64_t repeats_ = 0;  // Other messages of an id that had come.
  uint64_t bytes_ = 0;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_EXPORT_FOLDER_H_
