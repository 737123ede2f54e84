#include "collector/export/folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string_view>
#include <utility>

#include "collector/fatal.h"
#include "collector/files.h"

namespace quenor::collector {
namespace {

constexpr std::string_view kBegin = "{\"sequence\":";
constexpr std::string_view kId = "\"id\":\"";
constexpr std::string_view kEnd = "\"}";
constexpr char kEnding[] = ".ndjson";

Fatal CannotUse(const std::string& path, int error) {
  return Fatal(kExitCannotCreate, "cannot write " + path + ": " + ErrnoText(error) +
                                      "; what was not written is not acknowledged, so give "
                                      "--out room and rights and start again");
}

// 0: it is no whole line of ours.
uint64_t SequenceOf(const std::string& line) {
  const bool is_whole = line.size() > kBegin.size() + kEnd.size() &&
                        line.compare(0, kBegin.size(), kBegin) == 0 &&
                        line.compare(line.size() - kEnd.size(), kEnd.size(), kEnd) == 0 &&
                        line.find('\0') == std::string::npos;
  if (!is_whole) return 0;
  return std::strtoull(line.c_str() + kBegin.size(), nullptr, 10);
}

// Empty: it has none. A quote inside of a string has a backslash before it, so this is no other's.
std::string_view IdOf(std::string_view line) {
  const size_t key = line.find(kId);
  if (key == std::string_view::npos) return {};
  const std::string_view rest = line.substr(key + kId.size());
  return rest.substr(0, rest.find('"'));
}

// So that names sort as their numbers do.
constexpr size_t kDigits = 20;

std::string Digits(uint64_t number) {
  const std::string digits = std::to_string(number);
  return std::string(kDigits - digits.size(), '0') + digits;
}

std::string NameOf(const std::string& stream, uint64_t first, uint64_t last) {
  return stream + "-" + Digits(first) + "-" + Digits(last) + kEnding;
}

// The last message of the complete file `name`; 0: it is none of this stream's.
uint64_t LastOf(const std::string& stream, const std::string& name) {
  const size_t at = stream.size() + 1;
  if (name.size() != NameOf(stream, 0, 0).size()) return 0;
  const uint64_t first = std::strtoull(name.substr(at, kDigits).c_str(), nullptr, 10);
  const uint64_t last = std::strtoull(name.substr(at + kDigits + 1).c_str(), nullptr, 10);
  return name == NameOf(stream, first, last) ? last : 0;
}

// Of a folder that was made just now. Returns an error number or 0.
int SyncParent(const std::string& path) {
  const int fd = ::open((path + "/..").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return errno;
  const int error = ::fsync(fd) == 0 ? 0 : errno;
  ::close(fd);
  return error;
}

}  // namespace

ExportFolder::ExportFolder(Options options)
    : options_(std::move(options)),
      part_path_(options_.path + "/" + options_.name + ".part"),
      ids_(options_.known_ids) {
  int error = 0;
  if (::mkdir(options_.path.c_str(), 0755) == 0) {
    error = SyncParent(options_.path);
  } else if (errno != EEXIST) {
    error = errno;
  }
  if (error != 0) throw CannotUse(options_.path, error);
  folder_fd_ = ::open(options_.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder_fd_ < 0) throw CannotUse(options_.path, errno);
  if (::flock(folder_fd_, LOCK_EX | LOCK_NB) != 0) {
    ::close(folder_fd_);
    throw Fatal(kExitCannotCreate, "cannot export to " + options_.path +
                                       ": another export writes there; give --out another folder");
  }
}

ExportFolder::~ExportFolder() {
  if (fd_ >= 0) ::close(fd_);
  ::close(folder_fd_);
}

void ExportFolder::Resume(uint64_t acknowledged, Time now) {
  seen_ = Ranges(acknowledged);
  ReadComplete(acknowledged);
  Open(now);
}

// Those that have more than `acknowledged`, and of those before it the ones with the latest ids.
void ExportFolder::ReadComplete(uint64_t acknowledged) {
  std::map<uint64_t, std::string> paths;  // By their last sequences.
  for (const auto& entry : std::filesystem::directory_iterator(options_.path)) {
    const uint64_t last = LastOf(options_.name, entry.path().filename().string());
    has_files_ = has_files_ || last > 0;
    if (last + options_.known_ids > acknowledged && last > 0) {
      paths.emplace(last, entry.path().string());
    }
  }
  for (const auto& [last, path] : paths) ReadFile(path);
}

ExportFolder::Scan ExportFolder::ReadFile(const std::string& path) {
  Scan scan;
  std::ifstream file(path, std::ios::binary);
  std::string line;
  uint64_t read_bytes = 0;
  while (std::getline(file, line) && !file.eof()) {  // At the end: a line without its end.
    const uint64_t sequence = SequenceOf(line);
    read_bytes += line.size() + 1;
    if (sequence == 0) continue;
    scan.whole_bytes = read_bytes;
    seen_.Add(sequence);
    ids_.Add(IdOf(line));
    scan.first = scan.first == 0 ? sequence : std::min(scan.first, sequence);
    scan.last = std::max(scan.last, sequence);
  }
  if (!file.eof()) {
    throw Fatal(kExitCannotCreate,
                "cannot read " + path +
                    ", which tells what has been exported; look after the disk, "
                    "or give --out another folder and read with another --reader");
  }
  return scan;
}

void ExportFolder::Open(Time now) {
  fd_ = ::open(part_path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd_ < 0) throw CannotUse(part_path_, errno);
  const Scan scan = ReadFile(part_path_);
  // What an earlier export wrote, too, may not be on the disk yet.
  if (::ftruncate(fd_, static_cast<off_t>(scan.whole_bytes)) != 0 || ::fdatasync(fd_) != 0) {
    throw CannotUse(part_path_, errno);
  }
  part_bytes_ = scan.whole_bytes;
  first_ = scan.first;
  last_ = scan.last;
  opened_ = now;
  SyncFolder();
}

void ExportFolder::Add(uint64_t sequence, const std::string& line) {
  if (!seen_.Add(sequence)) return;
  if (!ids_.Add(IdOf(line))) {
    ++repeats_;
    return;
  }
  buffer_ += line;
  buffer_ += '\n';
  first_ = first_ == 0 ? sequence : std::min(first_, sequence);
  last_ = std::max(last_, sequence);
  ++lines_;
}

void ExportFolder::Sync(Time now) {
  if (!buffer_.empty()) SyncFile();
  const bool is_old = now - opened_ >= options_.rotate_after && part_bytes_ > 0;
  if (part_bytes_ < options_.rotate_bytes && !is_old) return;
  Complete();
  Open(now);
}

void ExportFolder::SyncFile() {
  int error = WriteAll(fd_, buffer_);
  if (error == 0 && ::fdatasync(fd_) != 0) error = errno;
  if (error != 0) {
    // The next export finds what the disk has not taken in memory still, and would acknowledge it.
    (void)!::ftruncate(fd_, static_cast<off_t>(part_bytes_));
    throw CannotUse(part_path_, error);
  }
  part_bytes_ += buffer_.size();
  bytes_ += buffer_.size();
  buffer_.clear();
}

void ExportFolder::Complete() {
  const int fd = std::exchange(fd_, -1);
  ::close(fd);
  if (part_bytes_ == 0) {
    ::unlink(part_path_.c_str());
    return;
  }
  const std::string path = options_.path + "/" + NameOf(options_.name, first_, last_);
  if (std::rename(part_path_.c_str(), path.c_str()) != 0) throw CannotUse(path, errno);
  SyncFolder();
}

void ExportFolder::SyncFolder() const {
  if (::fsync(folder_fd_) != 0) throw CannotUse(options_.path, errno);
}

}  // namespace quenor::collector
