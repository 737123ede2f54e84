// RecordingLog: the log of the process while quenor_recording_log is linked. Keeps every line.
// Threads: any.
#ifndef QUENOR_TESTS_SUPPORT_FAKES_RECORDING_LOG_H_
#define QUENOR_TESTS_SUPPORT_FAKES_RECORDING_LOG_H_

#include <ostream>
#include <string>
#include <vector>

namespace quenor::test {

struct LogLine {
  int level;
  std::string file;
  int line;
  std::string text;  // As a sink gets it: escaped, nothing cut.
};

std::ostream& operator<<(std::ostream& out, const LogLine& line);

class RecordingLog {
 public:
  // Any thread. Every line since the last Clear(), in the order written.
  static std::vector<LogLine> Lines();
  // Any thread. The texts alone; with `level`, those of that level.
  static std::vector<std::string> Texts();
  static std::vector<std::string> Texts(int level);
  static void Clear();
  // What a line of the log has in place of `text`.
  static std::string Escaped(const std::string& text);
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_FAKES_RECORDING_LOG_H_
