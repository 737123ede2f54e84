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
constexpr char kEnding[] = ".ndjson";

Fatal CannotUse(const std::string& path, int error) {
  return Fatal(kExitCannotCreate, "cannot write " + path + ": " + ErrnoText(error) +
                                      "; what was not written is not acknowledged, so give "
                                      "--out room and rights and start again");
}

uint64_t SequenceOf(const std::string& line) {
  if (line.compare(0, kBegin.size(), kBegin) != 0) return 0;
  return std::strtoull(line.c_str() + kBegin.size(), nullptr, 10);
}

// Empty: it has none. A quote inside of a string has a backslash before it, so this is no other's.
std::string_view IdOf(std::string_view line) {
  const size_t key = line.find(kId);
  if (key == std::string_view::npos) return {};
  const std::string_view rest = line.substr(key + kId.size());
  return rest.substr(0, rest.find('"'));
}

// 20 digits, so that names sort as their numbers do.
std::string Digits(uint64_t number) {
  const std::string digits = std::to_string(number);
  return std::string(20 - digits.size(), '0') + digits;
}

}  // namespace

ExportFolder::ExportFolder(Options options)
    : options_(std::move(options)),
      part_path_(options_.path + "/" + options_.name + ".part"),
      ids_(options_.known_ids) {
  if (::mkdir(options_.path.c_str(), 0755) != 0 && errno != EEXIST) {
    throw CannotUse(options_.path, errno);
  }
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
  const std::string begin = options_.name + "-";
  std::map<uint64_t, std::string> paths;  // By their last sequences.
  for (const auto& entry : std::filesystem::directory_iterator(options_.path)) {
    const std::string name = entry.path().filename().string();
    const bool is_ours = name.compare(0, begin.size(), begin) == 0 &&
                         entry.path().extension() == kEnding && name.size() > begin.size() + 21;
    if (!is_ours) continue;
    const uint64_t last = std::strtoull(name.c_str() + begin.size() + 21, nullptr, 10);
    if (last + options_.known_ids > acknowledged) paths.emplace(last, entry.path().string());
  }
  for (const auto& [last, path] : paths) ReadFile(path);
}

ExportFolder::Scan ExportFolder::ReadFile(const std::string& path) {
  Scan scan;
  std::ifstream file(path, std::ios::binary);
  std::string line;
  while (std::getline(file, line) && !file.eof()) {  // At the end: a line without its end.
    const uint64_t sequence = SequenceOf(line);
    scan.whole_bytes += line.size() + 1;
    if (sequence == 0) continue;
    seen_.Add(sequence);
    ids_.Add(IdOf(line));
    scan.first = scan.first == 0 ? sequence : std::min(scan.first, sequence);
    scan.last = std::max(scan.last, sequence);
  }
  return scan;
}

void ExportFolder::Open(Time now) {
  fd_ = ::open(part_path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd_ < 0) throw CannotUse(part_path_, errno);
  const Scan scan = ReadFile(part_path_);
  if (::ftruncate(fd_, static_cast<off_t>(scan.whole_bytes)) != 0) {
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
  if (!buffer_.empty()) {
    const int error = WriteAll(fd_, buffer_);
    if (error != 0) throw CannotUse(part_path_, error);
    part_bytes_ += buffer_.size();
    bytes_ += buffer_.size();
    buffer_.clear();
  }
  // Also if nothing was added: what an earlier export wrote may not be on the disk yet.
  if (::fdatasync(fd_) != 0) throw CannotUse(part_path_, errno);
  const bool is_old = now - opened_ >= options_.rotate_after && part_bytes_ > 0;
  if (part_bytes_ < options_.rotate_bytes && !is_old) return;
  Complete();
  Open(now);
}

void ExportFolder::Complete() {
  const int fd = std::exchange(fd_, -1);
  ::close(fd);
  if (part_bytes_ == 0) {
    ::unlink(part_path_.c_str());
    return;
  }
  const std::string path =
      options_.path + "/" + options_.name + "-" + Digits(first_) + "-" + Digits(last_) + kEnding;
  if (std::rename(part_path_.c_str(), path.c_str()) != 0) throw CannotUse(path, errno);
  SyncFolder();
}

void ExportFolder::SyncFolder() const {
  if (::fsync(folder_fd_) != 0) throw CannotUse(options_.path, errno);
}

}  // namespace quenor::collector
