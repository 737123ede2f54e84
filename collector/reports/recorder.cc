#include "collector/reports/recorder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <optional>

#include "collector/fatal.h"
#include "collector/files.h"
#include "collector/reports/digest.h"
#include "collector/reports/inflate.h"
#include "collector/reports/json.h"
#include "collector/reports/reply.h"

namespace quenor::collector {
namespace {

namespace fs = std::filesystem;

constexpr size_t kNameDigestDigits = 16;

std::string RecordName(uint64_t seq, const std::string& sha256) {
  char number[24];
  std::snprintf(number, sizeof(number), "%010llu-", static_cast<unsigned long long>(seq));
  return number + sha256.substr(0, kNameDigestDigits);
}

// The number at the front of a record's file name, 0 if it is not a record's name.
uint64_t SeqOfName(const std::string& name) {
  uint64_t seq = 0;
  const char* end = name.data() + name.size();
  const auto [rest, error] = std::from_chars(name.data(), end, seq);
  return error == std::errc() && rest != end && *rest == '-' ? seq : 0;
}

uint64_t PrepareFolder(const std::string& dir) {
  std::error_code error;
  fs::create_directories(dir, error);
  if (!error && !fs::is_directory(dir, error) && !error) {
    error = std::make_error_code(std::errc::not_a_directory);
  }
  if (!error && ::access(dir.c_str(), W_OK | X_OK) != 0) {
    error = std::error_code(errno, std::generic_category());
  }
  uint64_t highest = 0;
  if (!error) {
    fs::directory_iterator entry(dir, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
      highest = std::max(highest, SeqOfName(entry->path().filename().string()));
    }
  }
  if (error) {
    throw Fatal(kExitCannotCreate, "cannot use output folder " + dir + ": " + error.message() +
                                       "; give --out a folder that can be created or written");
  }
  return highest;
}

int OpenLog(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) {
    throw Fatal(kExitCannotCreate, "cannot open log " + path + ": " + ErrnoText(errno) +
                                       "; give --log a file that can be created or appended to");
  }
  // A line torn by an earlier kill must not swallow the first line of this run.
  struct stat status {};
  char last = '\n';
  if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 &&
      ::pread(fd, &last, 1, status.st_size - 1) == 1 && last != '\n') {
    if (const int failed = WriteAll(fd, "\n"); failed != 0) {
      ::close(fd);
      throw Fatal(kExitCannotCreate, "cannot append to log " + path + ": " + ErrnoText(failed) +
                                         "; free space or give another --log");
    }
  }
  return fd;
}

JsonObject LogLine(const Received& received, uint64_t size_bytes, const std::string& sha256) {
  JsonObject line;
  line.AddNumber("seq", received.seq)
      .Add("time", received.time)
      .Add("peer", received.peer)
      .Add("path", received.path)
      .Add("content_type", received.content_type)
      .AddNumber("size", size_bytes)
      .Add("sha256", sha256)
      .AddNumber("status", static_cast<uint64_t>(received.status));
  if (!received.misbehaviour.empty()) line.Add("misbehaviour", received.misbehaviour);
  return line;
}

}  // namespace

Recorder::Recorder(const RecorderOptions& options) : options_(options) {
  if (!options_.out_dir.empty()) first_seq_ = PrepareFolder(options_.out_dir) + 1;
  next_seq_ = first_seq_;
  if (options_.log_path == "-") {
    log_fd_ = STDOUT_FILENO;
  } else if (!options_.log_path.empty()) {
    log_fd_ = OpenLog(options_.log_path);
    owns_log_fd_ = true;
  }
}

Recorder::~Recorder() {
  if (owns_log_fd_) ::close(log_fd_);
}

bool Recorder::Record(const Received& received) {
  const std::string sha256 = Sha256Hex(received.body);
  std::optional<Inflated> inflated;
  if (options_.inflate) inflated = InflateRaw(received.body, options_.max_inflated_bytes);

  Received answered = received;
  bool recorded = true;
  if (IsAccepted(received.status) && !options_.out_dir.empty()) {
    const bool keep_raw = inflated && inflated->verdict != InflateVerdict::kOk;
    recorded = FileBody(received, sha256, inflated ? &inflated->output : nullptr, keep_raw);
    if (!recorded) {
      answered.status = kCannotRecordStatus;
      answered.misbehaviour = "";
    }
  }
  JsonObject line = LogLine(answered, received.body.size(), sha256);
  if (inflated) {
    line.AddNumber("inflated_size", inflated->output.size())
        .Add("inflated_sha256", Sha256Hex(inflated->output))
        .Add("inflate", InflateVerdictName(inflated->verdict));
  }
  recorded = WriteLine(line.Finish()) && recorded;
  // What could not be recorded is refused, not done as the script says.
  const bool misbehaved =
      !received.misbehaviour.empty() && (recorded || !IsAccepted(received.status));
  const bool refused = !recorded && IsAccepted(received.status);
  Count(refused ? kCannotRecordStatus : received.status, misbehaved, received.body.size(), sha256);
  if (refused) CountRefused("record", kCannotRecordStatus);
  return recorded;
}

void Recorder::RecordRefused(const Received& received, uint64_t size_bytes) {
  // The answer is a refusal whether or not the line could be written.
  (void)WriteLine(LogLine(received, size_bytes, "").Finish());
  Count(received.status, !received.misbehaviour.empty(), 0, "");
}

bool Recorder::FileBody(const Received& received, const std::string& sha256,
                        const std::string* inflated, bool keep_raw) {
  const std::string stem = options_.out_dir + "/" + RecordName(received.seq, sha256);
  std::string path = stem + ".deflate";
  int error = keep_raw ? WriteFileWhole(path, received.body) : 0;
  if (error == 0) {
    path = stem + ".bin";
    error = WriteFileWhole(path, inflated != nullptr ? std::string_view(*inflated) : received.body);
  }
  if (error != 0) {
    std::fprintf(stderr, "quenor-collector: cannot write %s: %s; request %llu is answered 500\n",
                 path.c_str(), ErrnoText(error).c_str(),
                 static_cast<unsigned long long>(received.seq));
  }
  return error == 0;
}

bool Recorder::WriteLine(std::string line) {
  if (log_fd_ < 0) return true;
  line.push_back('\n');
  const std::lock_guard<std::mutex> lock(log_mutex_);
  // A disk that fills up may take half a line; the next one must not be appended to that half.
  if (log_torn_) line.insert(line.begin(), '\n');
  const int error = WriteAll(log_fd_, line);
  log_torn_ = error != 0;
  if (error != 0) {
    std::fprintf(stderr, "quenor-collector: cannot append to log %s: %s; request is answered 500\n",
                 options_.log_path.c_str(), ErrnoText(error).c_str());
  }
  return error == 0;
}

void Recorder::CountRefused(const std::string& part, int status) {
  const std::lock_guard<std::mutex> lock(counts_mutex_);
  ++counts_.refused[{part, status}];
}

void Recorder::Count(int status, bool misbehaved, size_t size_bytes, const std::string& sha256) {
  const std::lock_guard<std::mutex> lock(counts_mutex_);
  ++counts_.requests;
  ++counts_.by_status[status];
  counts_.misbehaved += misbehaved ? 1 : 0;
  if (!IsAccepted(status)) {
    ++counts_.failed;
    return;
  }
  ++counts_.accepted;
  counts_.bytes += size_bytes;
  distinct_.insert(sha256);
  counts_.distinct_sha256 = distinct_.size();
}

Counts Recorder::GetCounts() const {
  const std::lock_guard<std::mutex> lock(counts_mutex_);
  Counts counts = counts_;
  counts.incomplete = incomplete_.load(std::memory_order_relaxed);
  counts.misbehaved_connections = misbehaved_connections_.load(std::memory_order_relaxed);
  return counts;
}

std::string UtcNow() {
  using std::chrono::milliseconds;
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  const int64_t unix_ms = std::chrono::duration_cast<milliseconds>(since_epoch).count();
  const std::time_t unix_s = static_cast<std::time_t>(unix_ms / 1000);
  std::tm utc{};
  ::gmtime_r(&unix_s, &utc);
  char text[64];
  const size_t used = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + used, sizeof(text) - used, ".%03dZ", static_cast<int>(unix_ms % 1000));
  return text;
}

std::string CountsLine(const Counts& counts) {
  return "requests=" + std::to_string(counts.requests) +
         " accepted=" + std::to_string(counts.accepted) +
         " failed=" + std::to_string(counts.failed) +
         " distinct=" + std::to_string(counts.distinct_sha256) +
         " bytes=" + std::to_string(counts.bytes);
}

std::string CountsJson(const Counts& counts) {
  return JsonObject()
      .AddNumber("requests", counts.requests)
      .AddNumber("accepted", counts.accepted)
      .AddNumber("failed", counts.failed)
      .AddNumber("bytes", counts.bytes)
      .AddNumber("distinct_sha256", counts.distinct_sha256)
      .AddNumber("incomplete", counts.incomplete)
      .AddNumber("misbehaved", counts.misbehaved)
      .AddNumber("misbehaved_connections", counts.misbehaved_connections)
      .Finish();
}

}  // namespace quenor::collector
