#include "tests/support/fakes/recording_log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "quenor_base/platform/local_log.h"

namespace quenor::test {

namespace {

struct State {
  std::recursive_mutex mutex;  // A sink may log, and replace itself.
  std::vector<LogLine> lines;
  LogSink sink = nullptr;
  void* context = nullptr;
  bool is_in_sink = false;
};
using Hold = std::lock_guard<std::recursive_mutex>;

// Never destroyed: a queue's thread may log while the process exits.
State& TheState() {
  static auto* state = new State;
  return *state;
}

std::string Formatted(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int size = std::vsnprintf(nullptr, 0, format, arguments);
  std::string text(size < 0 ? 0 : static_cast<size_t>(size), '\0');
  if (size > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return size < 0 ? "cannot format " + std::string(format) : text;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << "[" << line.level << "] " << line.file << ":" << line.line << " " << line.text;
}

std::string RecordingLog::Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    char code[5] = {c, 0};
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) std::snprintf(code, 5, "\\x%02x", c);
    escaped += c == '\n' ? "\\n" : c == '\r' ? "\\r" : c == '\t' ? "\\t" : code;
  }
  return escaped;
}

std::vector<LogLine> RecordingLog::Lines() {
  const Hold hold(TheState().mutex);
  return TheState().lines;
}

std::vector<std::string> RecordingLog::Texts() {
  std::vector<std::string> texts;
  for (LogLine& line : Lines()) texts.push_back(std::move(line.text));
  return texts;
}

std::vector<std::string> RecordingLog::Texts(int level) {
  std::vector<std::string> texts;
  for (LogLine& line : Lines()) {
    if (line.level == level) texts.push_back(std::move(line.text));
  }
  return texts;
}

void RecordingLog::Clear() {
  const Hold hold(TheState().mutex);
  TheState().lines.clear();
}

}  // namespace quenor::test

QUENOR_NAMESPACE_BEGIN

void LocalLog(int level, const char* file, int line, const char* format, ...) {
  const int callers_errno = errno;
  va_list arguments;
  va_start(arguments, format);
  const std::string text = test::RecordingLog::Escaped(test::Formatted(format, arguments));
  va_end(arguments);

  test::State& state = test::TheState();
  const test::Hold hold(state.mutex);
  state.lines.push_back({level, file, line, text});
  if (state.sink != nullptr && !state.is_in_sink) {
    state.is_in_sink = true;
    state.sink(state.context, level, file, line, text.c_str(), text.size());
    state.is_in_sink = false;
  }
  errno = callers_errno;
}

void SetLogSink(LogSink sink, void* context) {
  const test::Hold hold(test::TheState().mutex);
  test::TheState().sink = sink;
  test::TheState().context = context;
}

const char* LocalLogImplementationName() { return "recording"; }

QUENOR_NAMESPACE_END
