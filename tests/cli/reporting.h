// What the end-to-end tests have in common: a throw-away certificate authority, a collector that
// speaks TLS on a free port, and runs of quenor-report.
#ifndef TESTS_CLI_REPORTING_H_
#define TESTS_CLI_REPORTING_H_

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/certificates.h"
#include "tests/support/process.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {

using Arguments = std::vector<std::string>;

// A folder with what a server needs; gone with the object.
class Certificates {
 public:
  const std::string& ca_file() const { return authority_.ca_file(); }
  const Certificate& server() const { return server_; }
  std::string Path(const std::string& name) const { return folder_.File(name); }

  // A new file in the folder.
  std::string Write(const std::string& name, const std::string& content) const;

 private:
  const TempFolder folder_;
  CertificateAuthority authority_{folder_.path(), "ca"};
  const Certificate server_ = authority_.Issue("server", "DNS:localhost,IP:127.0.0.1,IP:::1");
};

// How many messages there are of each SHA-256.
using Digests = std::map<std::string, int>;

std::string Sha256Hex(const std::string& bytes);

class Collector {
 public:
  // Starts it and waits until it listens.
  Collector(const Certificates& certificates, const Arguments& more);

  const std::string& url() const { return url_; }

  // Waits until it has put `count` requests on record.
  void WaitForRequests(size_t count);

  // Ends it in order. What it answered 200 to, and how many requests it got. With "--inflate" the
  // digests are of the inflated bodies, and of a body that is no whole stream the word for it.
  Digests Stop();
  size_t requests() const { return requests_; }

 private:
  Process process_;
  std::string url_;
  size_t requests_ = 0;
};

struct Result {
  int exit_code = 0;
  std::string out;
  std::string err;
};

// "quenor-report send --url URL --cacert ..." and what `more` adds.
Arguments SendCommand(const Certificates& certificates, const std::string& url,
                      const Arguments& more);

// Waits for the end of a run.
Result ResultOf(Process* process);

// Runs it whole.
Result RunWhole(const Arguments& arguments, const std::string& standard_input);

// A port of 127.0.0.1 that refuses connections for as long as the object lives.
class RefusingPort {
 public:
  RefusingPort();
  std::string Address() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  Fd socket_;
  int port_ = 0;
};

// The number behind "name=" in a closing line; -1 when it is not there.
int Field(const std::string& out, const std::string& name);

// One line each.
std::string Joined(const std::vector<std::string>& lines);
std::vector<std::string> NumberedLines(int count);
Digests DigestsOf(const std::vector<std::string>& messages);

// With retries a message may arrive twice, but each must arrive, and nothing else.
void ExpectEachArrived(const std::vector<std::string>& messages, const Digests& arrived);

bool Mentions(const std::string& text, const std::string& part);

class ReportTest : public ::testing::Test {
 protected:
  Result Send(const std::string& url, const Arguments& more, const std::string& input) {
    return RunWhole(SendCommand(certificates_, url, more), input);
  }

  const Certificates certificates_{};
};

}  // namespace quenor::test

#endif  // TESTS_CLI_REPORTING_H_
