#include "cli/console.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

namespace quenor::cli {
namespace {

constexpr char kPrefix[] = "quenor-report: ";
constexpr char kClearLine[] = "\r\x1b[K";
constexpr size_t kUnknownWidth = 80;

}  // namespace

size_t WidthOf(int fd) {
  winsize size{};
  if (::ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUnknownWidth;
  return size.ws_col;
}

bool WriteAll(int fd, const std::string& text) {
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t step = ::write(fd, text.data() + written, text.size() - written);
    if (step >= 0) {
      written += static_cast<size_t>(step);
    } else if (errno == EAGAIN) {
      pollfd writable{fd, POLLOUT, 0};
      ::poll(&writable, 1, -1);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

Console::Console(int fd) : fd_(fd), is_terminal_(::isatty(fd) == 1) {}

void Console::WriteLine(const std::string& text) {
  const std::string line = kPrefix + text + "\n";
  // Whoever has closed our standard error does not want to read it; that is no failure.
  (void)WriteAll(fd_, progress_.empty() ? line : kClearLine + line + progress_);
}

void Console::Line(const std::string& text) {
  std::lock_guard<std::mutex> hold(mutex_);
  WriteLine(text);
}

void Console::LogLine(const std::string& text) {
  std::lock_guard<std::mutex> hold(mutex_);
  if (text == last_log_) return;
  last_log_ = text;
  WriteLine(text);
}

void Console::ShowProgress(const std::string& text) {
  std::lock_guard<std::mutex> hold(mutex_);
  progress_ = text.substr(0, WidthOf(fd_) - 1);
  (void)WriteAll(fd_, kClearLine + progress_);
}

void Console::EndProgress() {
  std::lock_guard<std::mutex> hold(mutex_);
  if (progress_.empty()) return;
  progress_.clear();
  (void)WriteAll(fd_, "\n");
}

}  // namespace quenor::cli
