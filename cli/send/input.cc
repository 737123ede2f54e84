#include "cli/send/input.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "cli/text.h"

namespace quenor::cli {
namespace {

constexpr size_t kReadBytes = 64 << 10;
constexpr char kStdinName[] = "standard input";

bool IsStdin(const std::string& path) { return path == "-"; }

std::string NameOf(const std::string& path) { return IsStdin(path) ? kStdinName : Printable(path); }

[[noreturn]] void FailToRead(const std::string& name, const std::string& reason) {
  throw InputError("cannot read " + name + ": " + reason);
}

[[noreturn]] void FailTooLong(const std::string& name) {
  FailToRead(name, "it is longer than 64 MiB, the most that one message may have");
}

void CheckDescriptor(int fd, const std::string& name) {
  struct stat status;
  if (::fstat(fd, &status) != 0) FailToRead(name, ErrnoText(errno));
  if (S_ISDIR(status.st_mode)) FailToRead(name, ErrnoText(EISDIR));
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags >= 0 && (flags & O_ACCMODE) == O_WRONLY)
    FailToRead(name, "it is closed, or open for writing only");
}

int OpenToRead(const std::string& path) {
  // Non-blocking: opening a named pipe must not wait for its writer.
  return ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
}

void CheckFile(const std::string& path) {
  struct stat status;
  if (::stat(path.c_str(), &status) != 0) FailToRead(NameOf(path), ErrnoText(errno));
  if (S_ISDIR(status.st_mode)) FailToRead(NameOf(path), ErrnoText(EISDIR));
  if (!S_ISREG(status.st_mode)) {
    // Opening and closing a pipe here would end its writer.
    if (::access(path.c_str(), R_OK) != 0) FailToRead(NameOf(path), ErrnoText(errno));
    return;
  }
  if (static_cast<uint64_t>(status.st_size) > kMaxMessageBytes) FailTooLong(NameOf(path));
  const int fd = OpenToRead(path);
  if (fd < 0) FailToRead(NameOf(path), ErrnoText(errno));
  ::close(fd);
}

}  // namespace

ByteSource::Result ByteSource::ReadSome(std::string* out) {
  pollfd ready{fd_, POLLIN, 0};
  if (::poll(&ready, 1, 0) == 0) return Result::kWouldBlock;
  const size_t old_size = out->size();
  out->resize(old_size + kReadBytes);
  ssize_t got;
  do {
    got = ::read(fd_, &(*out)[old_size], kReadBytes);
  } while (got < 0 && errno == EINTR);
  const int error = errno;
  out->resize(old_size + static_cast<size_t>(std::max<ssize_t>(got, 0)));
  if (got > 0) return Result::kBytes;
  if (got == 0) return Result::kEnd;
  if (error == EAGAIN) return Result::kWouldBlock;
  FailToRead(name_, ErrnoText(error));
}

void LineInput::NameLine(Message* message) {
  message->id = std::to_string(++lines_);
  message->name = "line " + message->id;
}

bool LineInput::TakeLine(Message* message) {
  const void* found = std::memchr(buffer_.data() + scanned_, '\n', buffer_.size() - scanned_);
  if (found == nullptr) {
    scanned_ = buffer_.size();
    if (scanned_ - begin_ > kMaxMessageBytes) FailTooLong("line " + std::to_string(lines_ + 1));
    return false;
  }
  const size_t end = static_cast<size_t>(static_cast<const char*>(found) - buffer_.data());
  if (end - begin_ > kMaxMessageBytes) FailTooLong("line " + std::to_string(lines_ + 1));
  NameLine(message);
  message->bytes.assign(buffer_, begin_, end - begin_);
  begin_ = scanned_ = end + 1;
  return true;
}

Input::Result LineInput::Next(Message* message) {
  while (!TakeLine(message)) {
    if (at_end_) {
      if (begin_ == buffer_.size()) return Result::kEnd;
      NameLine(message);
      message->bytes.assign(buffer_, begin_);
      begin_ = scanned_ = buffer_.size();
      return Result::kMessage;
    }
    buffer_.erase(0, begin_);
    scanned_ -= begin_;
    begin_ = 0;
    const ByteSource::Result result = source_.ReadSome(&buffer_);
    if (result == ByteSource::Result::kWouldBlock) return Result::kWouldBlock;
    at_end_ = result == ByteSource::Result::kEnd;
  }
  return Result::kMessage;
}

FileInput::~FileInput() { Close(); }

void FileInput::Open(const std::string& path) {
  if (IsStdin(path)) {
    CheckStandardInput();
    fd_ = STDIN_FILENO;
    return;
  }
  fd_ = OpenToRead(path);
  if (fd_ < 0) FailToRead(NameOf(path), ErrnoText(errno));
}

void FileInput::Close() {
  if (fd_ > STDIN_FILENO) ::close(fd_);
  fd_ = -1;
}

Input::Result FileInput::Next(Message* message) {
  if (next_ == paths_.size()) return Result::kEnd;
  const std::string name = NameOf(paths_[next_]);
  if (fd_ < 0) Open(paths_[next_]);
  ByteSource source(fd_, name);
  for (;;) {
    const ByteSource::Result result = source.ReadSome(&bytes_);
    if (result == ByteSource::Result::kWouldBlock) return Result::kWouldBlock;
    if (result == ByteSource::Result::kEnd) break;
    if (bytes_.size() > kMaxMessageBytes) FailTooLong(name);
  }
  Close();
  ++next_;
  message->name = name;
  message->id = name;
  message->bytes = std::move(bytes_);
  bytes_.clear();
  return Result::kMessage;
}

void CheckStandardInput() { CheckDescriptor(STDIN_FILENO, kStdinName); }

void CheckFiles(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    if (IsStdin(path)) {
      CheckStandardInput();
    } else {
      CheckFile(path);
    }
  }
}

}  // namespace quenor::cli
