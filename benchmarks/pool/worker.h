// A process for each contender, so that each allocator is what it is in real use: preloaded before
// the program starts, the only one in its process, its heap used by nobody else. The processes wait
// while it is another one's turn.
#ifndef QUENOR_BENCHMARKS_POOL_WORKER_H_
#define QUENOR_BENCHMARKS_POOL_WORKER_H_

#include <sys/types.h>

#include <cstdio>
#include <string>

#include "benchmarks/pool/work.h"

namespace quenor::bench {

class Worker {
 public:
  // Starts this program again with `preload` (may be empty), a library.
  explicit Worker(const std::string& preload);
  // Ends it and waits for its end.
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // Not done when the process has failed.
  Done Do(const Work& work);

 private:
  pid_t process_ = -1;
  std::FILE* to_ = nullptr;
  std::FILE* from_ = nullptr;
};

// What such a process does when its command line is `--worker`: its work, until its input ends.
// Returns otherwise.
void WorkIfAsked(int argc, char** argv);

}  // namespace quenor::bench

#endif  // QUENOR_BENCHMARKS_POOL_WORKER_H_
