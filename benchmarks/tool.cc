// Delivery from a shell: `quenor-report send --lines` to quenor-collector, beside wrk, which asks
// the same collector as often as it can and keeps nothing.
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "benchmarks/delivery/server.h"
#include "benchmarks/support/area.h"

namespace quenor::bench {
namespace {

constexpr int kBytes = 256;

// On loopback, without TLS: both contenders do without what would be the same for them.
class Collector {
 public:
  Collector() : process_({QUENOR_COLLECTOR, "--port-file", port_file()}, {{kNowhere, 1}}) {
    std::string port;
    for (int i = 0; i < 5000 && port.empty(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      std::ifstream(port_file()) >> port;
    }
    Require(!port.empty(), "the collector does not start");
    url_ = "http://127.0.0.1:" + port + "/";
  }
  const std::string& url() const { return url_; }
  const TempFolder& folder() const { return folder_; }

 private:
  static constexpr int kNowhere = 2;  // Its lines go to standard error: ours is the table.
  std::string port_file() const { return folder_.File("port"); }

  TempFolder folder_;
  Process process_;
  std::string url_;
};

// Messages per second, the tool's start and end included.
double Send(const Collector& collector, const std::string& lines, int messages) {
  const double begin = NowNs();
  const std::string output = OutputOf(
      {"bash", "-c", "exec \"$0\" send --url \"$1\" --cache none --send-now --lines <\"$2\" 2>&1",
       QUENOR_REPORT, collector.url(), lines});
  const double seconds = (NowNs() - begin) / 1e9;
  Require(output.find(" delivered=" + std::to_string(messages) + " ") != std::string::npos,
          output.c_str());
  return messages / seconds;
}

double Wrk(const Collector& collector, const std::string& script, const std::string& duration) {
  const std::string output =
      OutputOf({"wrk", "-t1", "-c6", duration, "-s" + script, collector.url()});
  const char kWord[] = "Requests/sec:";
  const size_t at = output.find(kWord);
  Require(at != std::string::npos, "wrk did not deliver");
  return std::atof(output.c_str() + at + std::strlen(kWord));
}

int Main(int argc, char** argv) {
  Area area(argc, argv, "tool", "From a shell: quenor-report to quenor-collector");
  const Collector collector;
  const int messages = area.Scale(100000, 2000);
  const std::string lines = collector.folder().File("lines");
  {
    std::ofstream file(lines);
    for (int i = 0; i < messages; ++i) file << std::string(kBytes, 'Z') << '\n';
  }
  const std::string script = collector.folder().File("wrk.lua");
  std::ofstream(script) << "wrk.method = 'POST'\nwrk.body = string.rep('Z', 256)\n"
                           "wrk.headers['Content-Type'] = 'application/octet-stream'\n";
  area.Measure({std::to_string(messages) + " lines of 256 bytes",
                "messages per s",
                true,
                {{"quenor-report send --lines", [&] { return Send(collector, lines, messages); }},
                 {"wrk, 6 connections",
                  [&] { return Wrk(collector, script, area.quick() ? "-d1s" : "-d3s"); }}},
                {{Target::Kind::kAtLeast, 0.5, {"wrk, 6 connections"}}}});
  area.Say(
      "Over HTTP/1.1 without TLS to the same collector, which shares the two processors with its "
      "sender. A round of the tool is a whole process: start, every line acknowledged, end.");
  return area.Finish();
}

}  // namespace
}  // namespace quenor::bench

int main(int argc, char** argv) { return quenor::bench::Main(argc, argv); }
