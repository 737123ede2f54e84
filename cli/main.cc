// quenor-report: delivers lines or files through a report channel. Page:
// docs/guide/quenor-report.md.

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "cli/cache/command.h"
#include "cli/connection.h"
#include "cli/console.h"
#include "cli/doctor/doctor.h"
#include "cli/fatal.h"
#include "cli/options/cache_use.h"
#include "cli/options/options.h"
#include "cli/send/channel_log.h"
#include "cli/send/input.h"
#include "cli/send/saved_list.h"
#include "cli/send/session.h"
#include "cli/stop_signals.h"
#include "cli/wakeup.h"
#include "quenor_base/platform/local_log.h"

namespace quenor::cli {
namespace {

// A descriptor that is opened later must not become standard output or error by its number.
// Standard input, if it is closed, gets one that cannot be read, so that its absence is noticed.
void FillStandardDescriptors() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(fd, F_GETFD) < 0) ::open("/dev/null", O_WRONLY);
  }
}

// Opens nothing that cannot be read, as far as that can be told beforehand.
std::unique_ptr<Input> MakeInput(const Options& options) {
  try {
    if (options.files.empty()) {
      CheckStandardInput();
      return std::make_unique<LineInput>(STDIN_FILENO, "standard input");
    }
    CheckFiles(options.files);
    return std::make_unique<FileInput>(options.files);
  } catch (const InputError& error) {
    throw Fatal(kExitUnreadable,
                std::string(error.what()) + "; nothing was sent; correct it and start again");
  }
}

ExitCode Send(const Options& options, Console& console, const ChannelLog& log) {
  ApplyConnection(options);
  const CacheUse cache = ApplyCache(options);
  const std::unique_ptr<Input> input = MakeInput(options);
  static Wakeup* const wakeup = new Wakeup;  // The signals' thread keeps it for the process.
  const StopSignals* const signals = StopSignals::Start(wakeup);
  std::optional<SavedList> saved_list;
  if (!options.saved_list.empty()) saved_list.emplace(options.saved_list);
  Session session(options, cache, *input, console, log, saved_list ? &*saved_list : nullptr,
                  *wakeup, *signals);
  return session.Run();
}

int Main(int argc, const char* const* argv) {
  FillStandardDescriptors();
  std::signal(SIGPIPE, SIG_IGN);
  static Console* const console = new Console(STDERR_FILENO);  // Threads may log until the end.
  static ChannelLog* const log = new ChannelLog(console);
  SetLogSink(&ChannelLog::Sink, log);
  try {
    const std::optional<Command> command = ParseCommandLine(argc, argv);
    if (!command) return kExitOk;
    if (const auto* cache = std::get_if<CacheCommand>(&*command)) {
      return RunCacheCommand(*cache, STDOUT_FILENO, *console);
    }
    if (const auto* doctor = std::get_if<DoctorCommand>(&*command)) {
      return RunDoctor(*doctor, STDOUT_FILENO);
    }
    return Send(std::get<Options>(*command), *console, *log);
  } catch (const Fatal& fatal) {
    console->Line(fatal.what());
    return fatal.exit_code();
  } catch (const std::exception& error) {
    console->Line(std::string("cannot go on: ") + error.what() +
                  "; check the limits on memory and threads");
    return kExitInternal;
  }
}

}  // namespace
}  // namespace quenor::cli

int main(int argc, char** argv) { return quenor::cli::Main(argc, argv); }
