// Delivery: 1 KiB messages over TLS to a real nginx, `send_now`, so many in flight at a time,
// beside libcurl's own loop with the same options, on one thread and across two. The driver keeps
// the number in flight: each message that is acknowledged hands over the next. Further words than
// Area's:
//   --alone KIND http1|http2 IN_FLIGHT MESSAGES [CONNECTIONS]   in this process, for a profiler
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "benchmarks/delivery/server.h"
#include "benchmarks/delivery/worker.h"
#include "benchmarks/support/area.h"

namespace quenor::bench {
namespace {

constexpr int kDefaultConnections = 6;

// Each figure of a round comes from one run: the row that is measured first does it and keeps the
// rest for the others.
class Rounds {
 public:
  Rounds(Worker* worker, Job job) : worker_(worker), job_(job) {}

  double MessagesPerSecond() {
    const Figures figures = worker_->Run(job_);
    kept_.push_back({job_.messages / figures.seconds, figures.cpu_seconds * 1e6 / job_.messages,
                     figures.switches / job_.messages, figures.allocations / job_.messages});
    return kept_.back().rate;
  }
  double CpuMicroseconds() { return kept_.at(next_cpu_++).cpu_us; }
  double CpuMicrosecondsAgain() { return kept_.at(next_cpu_again_++).cpu_us; }

  double Switches() const { return MedianOf(&Kept::switches); }
  double Allocations() const { return MedianOf(&Kept::allocations); }
  std::string SwitchesText() const {
    char text[32];
    std::snprintf(text, sizeof(text), "%.2f", Switches());
    return text;
  }

 private:
  struct Kept {
    double rate, cpu_us, switches, allocations;
  };
  double MedianOf(double Kept::*figure) const {
    std::vector<double> all;
    for (const Kept& one : kept_) all.push_back(one.*figure);
    return Median(all);
  }
  Worker* worker_;
  Job job_;
  std::vector<Kept> kept_;
  size_t next_cpu_ = 0;
  size_t next_cpu_again_ = 0;
};

struct Workers {
  explicit Workers(const Nginx& server)
      : channel("channel", server),
        cached("channel-cached", server),
        libcurl("libcurl", server),
        crossing("libcurl-2", server) {}
  Worker channel;
  Worker cached;
  Worker libcurl;
  Worker crossing;
};

std::string Shape(const Job& job) {
  std::string text = std::string(job.http2 ? "HTTP/2" : "HTTP/1.1") + ", " +
                     std::to_string(job.in_flight) + " in flight";
  if (job.connections != kDefaultConnections) {
    text += " on " + std::to_string(job.connections) + " connections";
  }
  if (job.on_one_processor) text += ", on one processor";
  return text;
}

// The figure before `unit` in what h2load printed: "finished in 1.00s, 1234.56 req/s, ...".
double H2Load(const Nginx& server, const Job& job) {
  const int connections = job.http2 ? 1 : std::min(job.in_flight, job.connections);
  std::vector<std::string> arguments = {"h2load",
                                        "-n" + std::to_string(job.messages),
                                        "-c" + std::to_string(connections),
                                        "-m" + std::to_string(job.http2 ? job.in_flight : 1),
                                        "-t1",
                                        "-d" + server.folder().File("message"),
                                        "-HContent-Type: application/octet-stream"};
  if (!job.http2) arguments.push_back("--h1");
  arguments.push_back(server.url());
  const std::string output = OutputOf(arguments);
  const size_t end = output.find(" req/s");
  const size_t begin = end == std::string::npos ? end : output.rfind(' ', end - 1);
  Require(begin != std::string::npos &&
              output.find(std::to_string(job.messages) + " succeeded") != std::string::npos,
          "h2load did not deliver");
  return std::atof(output.c_str() + begin);
}

constexpr char kBare[] = "libcurl alone";
constexpr char kCrossing[] = "libcurl on a thread of its own";

// How fast, what a message costs, and the latter with the cache on. All rows come from the same
// runs.
void MeasureShape(Area* area, Workers* workers, const Nginx& server, const Job& job) {
  Rounds channel(&workers->channel, job);
  Rounds cached(&workers->cached, job);
  Rounds libcurl(&workers->libcurl, job);
  Rounds crossing(&workers->crossing, job);
  using Kind = Target::Kind;
  const auto speed = [](Rounds* r) { return [r] { return r->MessagesPerSecond(); }; };
  const auto cost = [](Rounds* r) { return [r] { return r->CpuMicroseconds(); }; };
  const auto cost_again = [](Rounds* r) { return [r] { return r->CpuMicrosecondsAgain(); }; };
  const std::string shape = Shape(job);
  Row rate{shape, "messages per s", true};
  rate.contenders = {{"channel", speed(&channel)},
                     {kBare, speed(&libcurl)},
                     {kCrossing, speed(&crossing)},
                     {"h2load", [&] { return H2Load(server, job); }},
                     {"channel, mapped cache", speed(&cached)}};
  if (job.in_flight > 1) rate.targets = {{Kind::kAtLeast, 0.9, {kBare}}};
  if (!area->Measure(rate)) return;
  area->Measure(
      {shape + ": processor time",
       "us per message",
       false,
       {{"channel", cost(&channel)}, {kCrossing, cost(&crossing)}, {kBare, cost(&libcurl)}},
       {{Kind::kAtMost, job.in_flight > 1 ? 1.2 : 1.25, {kCrossing}}}});
  area->Measure({shape + ", mapped cache: processor time",
                 "us per message",
                 false,
                 {{"channel", cost(&cached)}, {kCrossing, cost_again(&crossing)}},
                 {{Kind::kAtMost, 1.4, {kCrossing}}}});
  area->Tell({shape + ": context switches of the channel's process", "per message",
              channel.Switches(), -1,
              "libcurl alone: " + libcurl.SwitchesText() +
                  ", on a thread of its own: " + crossing.SwitchesText()});
  area->Tell({shape + ": allocations of the channel's process", "per message",
              channel.Allocations(), libcurl.Allocations() + 12,
              "At most 12 more than libcurl alone."});
}

// wrk measures for whole seconds only, and asks anew as soon as it has an answer.
void TellWrk(Area* area, const Nginx& server, int connections) {
  const std::string script = server.folder().File("wrk.lua");
  std::ofstream(script) << "wrk.method = 'POST'\nwrk.body = string.rep('Z', 1024)\n"
                           "wrk.headers['Content-Type'] = 'application/octet-stream'\n";
  const std::string output =
      OutputOf({"wrk", "-t1", "-c" + std::to_string(connections), area->quick() ? "-d1s" : "-d2s",
                "-s" + script, server.url()});
  const size_t at = output.find("Requests/sec:");
  Require(at != std::string::npos, "wrk did not deliver");
  area->Tell({"wrk, HTTP/1.1, " + std::to_string(connections) + " connections", "messages per s",
              std::atof(output.c_str() + at + std::strlen("Requests/sec:")), -1,
              "For orientation: it parses less and keeps nothing."});
}

int Alone(char** arguments, int count) {
  if (count < 4) return 64;
  const Nginx server;
  const std::unique_ptr<Deliverer> deliverer =
      MakeDeliverer(arguments[0], server.url(), server.ca_file(), server.folder().path());
  Job job;
  job.http2 = std::strcmp(arguments[1], "http2") == 0;
  job.in_flight = std::atoi(arguments[2]);
  job.connections = count > 4 ? std::atoi(arguments[4]) : kDefaultConnections;
  job.messages = job.in_flight;
  Measured(deliverer.get(), job);  // The connections.
  job.messages = std::atoi(arguments[3]);
  const Figures figures = Measured(deliverer.get(), job);
  std::printf("%.0f messages/s, %.2f us of processor time and %.2f context switches each\n",
              job.messages / figures.seconds, figures.cpu_seconds * 1e6 / job.messages,
              figures.switches / job.messages);
  return 0;
}

int Main(int argc, char** argv) {
  if (argc == 2 + kWorkerArguments && std::strcmp(argv[1], kWorkerFlag) == 0) {
    return WorkerMain(argv + 2);
  }
  if (argc > 1 && std::strcmp(argv[1], "--alone") == 0) return Alone(argv + 2, argc - 2);
  Area area(argc, argv, "delivery", "Delivery: messages over TLS to a server, and what each costs");
  const Nginx server;
  std::ofstream(server.folder().File("message")) << std::string(1024, 'Z');
  for (const bool http2 : {false, true}) {
    Workers workers(server);  // Their own: a connection of HTTP/1.1 would be used for HTTP/2.
    for (const int in_flight : {1, 8, 64}) {
      Job job;
      job.http2 = http2;
      job.in_flight = in_flight;
      job.messages = area.Scale(in_flight == 1 ? 800 : 1600, 200);
      MeasureShape(&area, &workers, server, job);
      if (in_flight > 1) continue;
      // With one message in flight the threads wake each other in turn, and what that costs depends
      // on where the system puts them.
      job.on_one_processor = true;
      MeasureShape(&area, &workers, server, job);
    }
  }
  Workers workers(server);
  Job wide;
  wide.in_flight = wide.connections = 64;
  wide.messages = area.Scale(1600, 200);
  MeasureShape(&area, &workers, server, wide);
  TellWrk(&area, server, 6);
  TellWrk(&area, server, 64);
  area.Say(
      "A round posts 1600 messages (800 with 1 in flight) after one that is not measured, over "
      "connections that stand; nginx has one worker, closes none for its age (keepalive_requests "
      "is "
      "beyond a run) and takes nothing for an HTTP/2 flood. Processor time is that of the "
      "contender's process alone, kernel included. libcurl on a thread of its own, with the "
      "requests "
      "made and the answers taken on another, is what two threads cannot go below. h2load's rounds "
      "include its handshakes.");
  return area.Finish();
}

}  // namespace
}  // namespace quenor::bench

int main(int argc, char** argv) { return quenor::bench::Main(argc, argv); }
