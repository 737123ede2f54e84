// What a delivery is measured against: a real nginx on loopback over TLS, in a folder of its own.
// Threads: the one that made them. Whatever is started is ended, by its own process id, and the
// folder is removed, with the object.
#ifndef QUENOR_BENCHMARKS_DELIVERY_SERVER_H_
#define QUENOR_BENCHMARKS_DELIVERY_SERVER_H_

#include <sys/types.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/temp_folder.h"

namespace quenor::bench {

// Ends the program, with a line on standard error, unless `condition` holds.
void Require(bool condition, const char* what);

using test::TempFolder;

// A program that runs beside this one.
class Process {
 public:
  // `arguments[0]` is a path or is searched in PATH and the usual bin and sbin folders. `fds` are
  // pairs of (ours, its); its others are what it inherits.
  explicit Process(const std::vector<std::string>& arguments,
                   const std::vector<std::pair<int, int>>& fds = {},
                   const std::vector<std::string>& environment = {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  // Waits for its end. The exit code; -1 when a signal ended it.
  int Wait();
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

// Runs a program to its end. Its standard output; ends this program when it fails.
std::string OutputOf(const std::vector<std::string>& arguments);

// nginx with one worker process, which answers each POST, once it has the whole body, with 200 and
// {"bytes_errinfo":"success"}. Speaks HTTP/1.1 and HTTP/2 and closes no connection for its age.
class Nginx {
 public:
  Nginx();
  ~Nginx();
  const std::string& ca_file() const { return ca_file_; }
  // "https://127.0.0.1:PORT/"
  const std::string& url() const { return url_; }
  const TempFolder& folder() const { return folder_; }

 private:
  TempFolder folder_;
  std::string ca_file_;
  std::string url_;
  std::unique_ptr<Process> process_;
};

}  // namespace quenor::bench

#endif  // QUENOR_BENCHMARKS_DELIVERY_SERVER_H_
