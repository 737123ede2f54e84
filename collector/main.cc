// quenor-collector: the reference collection server. Page: docs/guide/collector.md.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <variant>

#include "collector/fatal.h"
#include "collector/files.h"
#include "collector/http/server.h"
#include "collector/http/tls.h"
#include "collector/options.h"
#include "collector/page/page.h"
#include "collector/reports/recorder.h"
#include "collector/tier/tier.h"

namespace quenor::collector {
namespace {

// Blocks SIGINT and SIGTERM in this and all later threads. Returns a descriptor that becomes
// readable when one of them arrives.
int OpenStopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  const int fd = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd < 0) {
    throw Fatal(kExitInternal, "cannot watch for signals: " + ErrnoText(errno) +
                                   "; raise the limit on open files");
  }
  return fd;
}

void AllowManyDescriptors() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

// Who starts us may have closed them: no socket and no file may get their numbers, and the lines
// that are meant for them.
void FillStandardDescriptors() {
  int fd = ::open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) fd = ::open("/dev/null", O_RDWR);
  if (fd >= 0) ::close(fd);
}

void Print(const std::string& line) {
  // A caller that has closed our standard output does not want the line; that is no failure.
  (void)WriteAll(STDOUT_FILENO, line + "\n");
}

void RunCollector(const Options& options) {
  std::signal(SIGPIPE, SIG_IGN);
  AllowManyDescriptors();
  const int stop_fd = OpenStopSignals();
  if (!options.tier.store.nodes.empty()) return RunTier(options.tier, stop_fd, Print);
  SslCtxPtr tls;
  if (!options.cert_path.empty()) tls = LoadTlsContext(options.cert_path, options.key_path);
  Recorder recorder(options.recorder);
  CollectorServer server(options.server, recorder, tls.get());
  server.Listen();
  if (!options.port_file.empty()) {
    const int error = WriteFileWhole(options.port_file, std::to_string(server.port()) + "\n");
    if (error != 0) {
      throw Fatal(kExitCannotCreate, "cannot write port file " + options.port_file + ": " +
                                         ErrnoText(error) +
                                         "; give --port-file a path in a writable folder");
    }
  }
  Print("listening url=" + server.url());
  server.Run(stop_fd);
  Print(CountsLine(recorder.GetCounts()));
  ::close(stop_fd);
}

int Main(int argc, const char* const* argv) {
  FillStandardDescriptors();
  try {
    const std::optional<Options> options = ParseCommandLine(argc, argv);
    if (!options) return kExitOk;
    if (const auto* provision = std::get_if<ProvisionOptions>(&options->command)) {
      return RunProvision(*provision, Print);
    }
    if (const auto* control = std::get_if<ControlOptions>(&options->command)) {
      RunControl(*control, Print);
    } else if (const auto* to_files = std::get_if<ExportOptions>(&options->command)) {
      RunExport(*to_files, OpenStopSignals(), Print);
    } else if (const auto* page = std::get_if<PageOptions>(&options->command)) {
      RunPage(*page, OpenStopSignals(), Print);
    } else {
      RunCollector(*options);
    }
    return kExitOk;
  } catch (const Fatal& fatal) {
    std::fprintf(stderr, "quenor-collector: %s\n", fatal.what());
    return fatal.exit_code();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "quenor-collector: cannot go on: %s; check memory and thread limits\n",
                 error.what());
    return kExitInternal;
  }
}

}  // namespace
}  // namespace quenor::collector

int main(int argc, char** argv) { return quenor::collector::Main(argc, argv); }
