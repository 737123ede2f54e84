// The collector as a child process, and clients of it.
// Threads: one thread per object; NewClient from any thread once Start has returned.
#ifndef TESTS_COLLECTOR_SUPPORT_CHILD_H_
#define TESTS_COLLECTOR_SUPPORT_CHILD_H_

#include <httplib.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/certificates.h"
#include "tests/support/process.h"
#include "tests/support/temp_folder.h"

namespace quenor::collector::test {

using quenor::test::Certificate;
using quenor::test::CertificateAuthority;
using quenor::test::FileNames;
using quenor::test::ReadWholeFile;
using quenor::test::TempFolder;
using quenor::test::WriteWholeFile;

// What is left of a process that has ended.
struct Ended {
  int exit_code = -1;  // -1: killed by a signal.
  std::string out;     // Standard output that ReadLine had not yet taken.
  std::string err;     // All of standard error.
};

// Starts quenor-collector. If the object ends before the process, the process is killed.
class Child {
 public:
  explicit Child(const std::vector<std::string>& arguments);

  // The next line of standard output; empty optional at its end.
  std::optional<std::string> ReadLine() { return process_.out().TakeLine(); }

  void Signal(int number) const { process_.Signal(number); }

  // From now on, until called again, the process gets no descriptor of this number or higher.
  void LimitDescriptors(unsigned limit) const;

  // How often its main thread has gone to sleep.
  long CountSleeps() const;

  // Waits until the process ends by itself or by an earlier Signal.
  Ended Wait();

 private:
  quenor::test::Process process_;
};

// A collector that is up. Serves HTTPS with a certificate of its own unless `plain`.
class Collector {
 public:
  enum class Transport { kTls, kPlain };

  // Listens on a free port of 127.0.0.1; `dir` receives the certificate. Throws if the collector
  // does not come up.
  Collector(const std::string& dir, Transport transport, std::vector<std::string> arguments);

  // A client with one keep-alive connection that verifies the certificate.
  std::unique_ptr<httplib::Client> NewClient() const;

  int port() const { return port_; }
  const std::string& url() const { return url_; }
  Child& child() { return child_; }

  // SIGTERM, then Wait.
  Ended Stop();

 private:
  const std::string ca_path_;  // Empty: plain.
  Child child_;
  std::string url_;
  int port_ = 0;
};

// Posts `body` to /report; the status, or 0 if no answer came.
int Post(httplib::Client& client, const std::string& body);

}  // namespace quenor::collector::test

#endif  // TESTS_COLLECTOR_SUPPORT_CHILD_H_
