// Standard error: whole lines, and on a terminal one line of progress that stays below them.
// Threads: any.
#ifndef CLI_CONSOLE_H_
#define CLI_CONSOLE_H_

#include <cstddef>
#include <mutex>
#include <string>

namespace quenor::cli {

class Console {
 public:
  // Borrows `fd`.
  explicit Console(int fd);
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  bool is_terminal() const { return is_terminal_; }

  // Writes "quenor-report: TEXT" as a line of its own.
  void Line(const std::string& text);

  // As Line(), unless the last line written here said the same: for logs that repeat themselves.
  void LogLine(const std::string& text);

  // Replaces the progress line, cut to the terminal's width. For terminals only.
  void ShowProgress(const std::string& text);

  // Leaves the progress line, if there is one, standing above what comes next.
  void EndProgress();

 private:
  void WriteLine(const std::string& text);

  const int fd_;
  const bool is_terminal_;
  std::mutex mutex_;  // Guards what follows and keeps lines whole.
  std::string progress_;
  std::string last_log_;
};

// Columns of the terminal behind `fd`; 80 when it is none or does not say.
size_t WidthOf(int fd);

// Writes all of `text`. False when that is not possible, errno saying why.
[[nodiscard]] bool WriteAll(int fd, const std::string& text);

}  // namespace quenor::cli

#endif  // CLI_CONSOLE_H_
