#include "tests/support/recording_log.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "quenor_base/platform/local_log.h"

namespace quenor::test {

namespace {

struct State {
  std::mutex mutex;
  std::vector<LogLine> lines;
  LogSink sink = nullptr;
  void* context = nullptr;
};

// Never destroyed: a queue's thread may log while the process exits.
State& TheState() {
  static auto* state = new State;
  return *state;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << "[" << line.level << "] " << line.file << ":" << line.line << " " << line.text;
}

std::vector<LogLine> RecordingLog::Lines() {
  std::lock_guard<std::mutex> hold(TheState().mutex);
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
  std::lock_guard<std::mutex> hold(TheState().mutex);
  TheState().lines.clear();
}

}  // namespace quenor::test

QUENOR_NAMESPACE_BEGIN

void LocalLog(int level, const char* file, int line, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int size = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text(size < 0 ? 0 : static_cast<size_t>(size), '\0');
  if (size > 0) std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);

  test::State& state = test::TheState();
  std::lock_guard<std::mutex> hold(state.mutex);
  if (state.sink != nullptr) {
    state.sink(state.context, level, file, line, text.c_str(), text.size());
  }
  state.lines.push_back({level, file, line, std::move(text)});
}

void SetLogSink(LogSink sink, void* context) {
  std::lock_guard<std::mutex> hold(test::TheState().mutex);
  test::TheState().sink = sink;
  test::TheState().context = context;
}

const char* LocalLogImplementationName() { return "recording"; }

QUENOR_NAMESPACE_END
