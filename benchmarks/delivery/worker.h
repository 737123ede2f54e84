// The contenders of a delivery, each in a process of its own, so that what one costs is not counted
// for another, and because the cache option holds for a whole process. A worker is this program run
// again; it gets jobs through a pipe and answers figures.
// Threads: a Worker belongs to the one that made it.
#ifndef QUENOR_BENCHMARKS_DELIVERY_WORKER_H_
#define QUENOR_BENCHMARKS_DELIVERY_WORKER_H_

#include <cstdint>
#include <memory>
#include <string>

#include "benchmarks/delivery/server.h"

namespace quenor::bench {

struct Job {
  bool http2 = false;
  int in_flight = 1;
  int connections = 6;  // At most so many to the server.
  int messages = 0;
  bool on_one_processor = false;  // All threads of the contender.
};

struct Figures {
  double seconds = 0;
  double cpu_seconds = 0;  // Of all threads of the process.
  double switches = 0;     // Context switches, likewise.
  double allocations = 0;  // Likewise; 0 where they are not counted.
};

// What a worker drives: a channel or libcurl alone. One thread calls it.
class Deliverer {
 public:
  Deliverer() = default;
  virtual ~Deliverer() = default;
  Deliverer(const Deliverer&) = delete;
  Deliverer& operator=(const Deliverer&) = delete;
  // Posts `job.messages` of 1 KiB, `job.in_flight` at a time; returns when each was answered with
  // 200. False when one was not.
  virtual bool Deliver(const Job& job) = 0;
};

// Kinds: "channel", "channel-cached" (mapped), "libcurl" (one thread), "libcurl-2" (on a thread of
// its own).
std::unique_ptr<Deliverer> MakeDeliverer(const std::string& kind, const std::string& url,
                                         const std::string& ca_file, const std::string& folder);
std::unique_ptr<Deliverer> MakeLibcurl(bool two_threads, const std::string& url,
                                       const std::string& ca_file);

// Runs the job and measures it; ends the program when a message was not delivered.
Figures Measured(Deliverer* deliverer, const Job& job);

class Worker {
 public:
  Worker(const std::string& kind, const Nginx& server);
  ~Worker();
  Figures Run(const Job& job);

 private:
  int to_worker_ = -1;
  int from_worker_ = -1;
  std::unique_ptr<Process> process_;
};

// The other end: this program as it was started by Worker. Its exit code.
int WorkerMain(char** arguments);
inline constexpr char kWorkerFlag[] = "--worker";
inline constexpr int kWorkerArguments = 4;  // Kind, URL, CA file, folder.

}  // namespace quenor::bench

#endif  // QUENOR_BENCHMARKS_DELIVERY_WORKER_H_
