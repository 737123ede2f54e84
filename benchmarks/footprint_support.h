// What the areas idle, start_stop and size share: programs that they start and talk to, a server
// over TLS, and what /proc tells of a process. Threads: the main one. A failure ends the program
// with a line on standard error.
#ifndef QUENOR_BENCHMARKS_FOOTPRINT_SUPPORT_H_
#define QUENOR_BENCHMARKS_FOOTPRINT_SUPPORT_H_

#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quenor_base/platform/report_events.h"
#include "tests/support/temp_folder.h"

namespace quenor::bench {

[[noreturn]] void Fail(const std::string& what);

using test::TempFolder;

// A program with a pipe to its standard input and from its standard output. It ends with us.
class Child {
 public:
  explicit Child(const std::vector<std::string>& arguments);
  ~Child();  // Kills it when it still runs.
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  void Tell(const std::string& line);
  // The next line that it prints.
  std::string Answer();
  // Everything that it prints until it ends.
  std::string Rest();
  // Closes its input, waits for its end and answers its exit code.
  int Finish();

 private:
  pid_t pid_ = -1;
  int to_ = -1;
  int from_ = -1;
  std::string read_;
};

// What a program prints; it must exit with 0.
std::string OutputOf(const std::vector<std::string>& arguments);

// The path of the running program.
std::string OwnPath();

// Makes a throw-away authority, ca.pem, and server.pem and server.key for this machine in `folder`.
void MakeCertificates(const std::string& folder);

// nginx on a free port of the loopback, over TLS with a throw-away authority, in HTTP/1.1 and
// HTTP/2; it answers everything with success and keeps connections open for an hour.
class TlsServer {
 public:
  TlsServer();
  const std::string& url() const { return url_; }
  std::string ca_file() const { return folder_.path() + "/ca.pem"; }

 private:
  TempFolder folder_;
  std::string url_;
  int placeholder_ = -1;
  std::unique_ptr<Child> nginx_;
};

// Private memory of a process, in KiB.
struct Memory {
  double anonymous = 0;  // Its own pages: heap, stacks, what it has written in mapped programs.
  double cache_files =
      0;  // Pages of mapped cache files; the kernel can write them back and drop them.
};
Memory MemoryOf(pid_t pid);

// Context switches, of both kinds, of each thread.
std::map<pid_t, uint64_t> SwitchesOf(pid_t pid);

// Counts events, and waits for them.
class EventCounter : public ReportEventListener {
 public:
  void OnReportEvent(const ReportEvent& event) override;
  void WaitFor(ReportEventKind kind, uint64_t count);
  void Reset();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<ReportEventKind, uint64_t> counts_;
};

}  // namespace quenor::bench

#endif  // QUENOR_BENCHMARKS_FOOTPRINT_SUPPORT_H_
