// Puts requests on record: one file each, one log line each, and the counts.
// Life: opened before the server starts, shared by all its workers, outlives it.
// Threads: every method on any thread. Page: docs/guide/collector.md.
#ifndef COLLECTOR_REPORTS_RECORDER_H_
#define COLLECTOR_REPORTS_RECORDER_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace quenor::collector {

// What a request is answered that should have been accepted but could not be put on record.
constexpr int kCannotRecordStatus = 500;

struct RecorderOptions {
  std::string out_dir;   // Empty: no files.
  std::string log_path;  // Empty: no log; "-": standard output.
  bool inflate = false;
  size_t max_inflated_bytes = size_t{256} << 20;
};

// One request as it came in. The views are borrowed until Record returns.
struct Received {
  uint64_t seq = 0;
  std::string time;  // RFC 3339, see UtcNow().
  std::string_view peer;
  std::string_view path;
  std::string_view content_type;
  std::string_view body;
  std::string_view misbehaviour;  // What a script does to it; empty: nothing.
  int status = 0;                 // What will be answered; 0 when nothing will be.
};

struct Counts {
  uint64_t requests = 0;
  uint64_t accepted = 0;
  uint64_t failed = 0;
  uint64_t bytes = 0;            // Of accepted bodies, as received.
  uint64_t distinct_sha256 = 0;  // Of accepted bodies, as received.
  uint64_t incomplete = 0;       // Requests whose body never arrived whole; in no other count.
  uint64_t misbehaved = 0;       // Requests that a script did something to.
  uint64_t misbehaved_connections = 0;  // Connections ended by a script before their first request.
  std::map<int, uint64_t> by_status;    // Requests by what they are answered; 0: not at all.
  // What the collector refuses by itself, whatever a script says, also what is no request: by the
  // part that was at fault ("head", "body", "record") and the status.
  std::map<std::pair<std::string, int>, uint64_t> refused;
};

class Recorder {
 public:
  // Creates the folder and opens the log. Throws Fatal.
  explicit Recorder(const RecorderOptions& options);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // The number of the next request: 1, 2, 3 …, continuing after the highest number that the folder
  // already holds, so that no record of an earlier run is overwritten.
  uint64_t NextSeq() { return next_seq_.fetch_add(1, std::memory_order_relaxed); }

  // What NextSeq returned or will return first.
  uint64_t first_seq() const { return first_seq_; }

  // Files the body if the status accepts it, writes the log line and counts. When it returns true,
  // all of it has been handed to the kernel, so a kill cannot undo it. False when a file or the log
  // could not be written: the reason is on standard error, the request counts as failed and must
  // be answered with kCannotRecordStatus instead of 200. A body file may then exist without its log
  // line.
  [[nodiscard]] bool Record(const Received& received);

  // Logs and counts as failed a request whose body was not taken. `size_bytes` is the announced
  // size, or what arrived.
  void RecordRefused(const Received& received, uint64_t size_bytes);

  void CountIncomplete() { incomplete_.fetch_add(1, std::memory_order_relaxed); }

  void CountMisbehavedConnection() {
    misbehaved_connections_.fetch_add(1, std::memory_order_relaxed);
  }

  void CountRefused(const std::string& part, int status);

  Counts GetCounts() const;

 private:
  bool FileBody(const Received& received, const std::string& sha256, const std::string* inflated,
                bool keep_raw);
  bool WriteLine(std::string line);
  void Count(int status, bool misbehaved, size_t size_bytes, const std::string& sha256);

  const RecorderOptions options_;
  int log_fd_ = -1;
  bool owns_log_fd_ = false;
  std::mutex log_mutex_;   // Keeps lines whole; guards log_torn_.
  bool log_torn_ = false;  // The last line could not be written, or not all of it.

  uint64_t first_seq_ = 1;  // Set before any worker runs.
  // relaxed: plain numbers that order nothing.
  std::atomic<uint64_t> next_seq_{1};
  std::atomic<uint64_t> incomplete_{0};
  std::atomic<uint64_t> misbehaved_connections_{0};

  mutable std::mutex counts_mutex_;  // Guards the two below.
  Counts counts_;
  std::unordered_set<std::string> distinct_;
};

// The present time as RFC 3339 in UTC with milliseconds: 2024-05-01T12:34:56.789Z.
std::string UtcNow();

// "requests=… accepted=… failed=… distinct=… bytes=…"
std::string CountsLine(const Counts& counts);

// The same and more as a JSON object.
std::string CountsJson(const Counts& counts);

}  // namespace quenor::collector

#endif  // COLLECTOR_REPORTS_RECORDER_H_
