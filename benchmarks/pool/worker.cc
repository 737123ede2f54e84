#include "benchmarks/pool/worker.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

extern char** environ;

namespace quenor::bench {
namespace {

void Serve() {
  char who[32], what[32];
  Work work;
  while (std::scanf("%31s %31s %d %d %lf", who, what, &work.class_index, &work.depth,
                    &work.at_least_ms) == 5) {
    work.who = who;
    work.what = what;
    const Done done = DoWork(work);
    std::printf("%.17g %.17g\n", done.ns_each, done.allocations_each);
    std::fflush(stdout);
  }
}

[[noreturn]] void Fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

}  // namespace

Worker::Worker(const std::string& preload) {
  int to[2], from[2];
  if (pipe2(to, O_CLOEXEC) != 0 || pipe2(from, O_CLOEXEC) != 0) Fail("bench: pipe");
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_adddup2(&files, to[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&files, from[1], STDOUT_FILENO);
  const std::string variable = "LD_PRELOAD=" + preload;
  std::vector<char*> environment;
  if (!preload.empty()) environment.push_back(const_cast<char*>(variable.c_str()));
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, "LD_PRELOAD=", 11) != 0) environment.push_back(*entry);
  }
  environment.push_back(nullptr);
  char program[] = "/proc/self/exe", flag[] = "--worker";
  char* const arguments[] = {program, flag, nullptr};
  if (posix_spawn(&process_, program, &files, nullptr, arguments, environment.data()) != 0)
    Fail("bench: a worker's start");
  posix_spawn_file_actions_destroy(&files);
  close(to[0]);
  close(from[1]);
  to_ = fdopen(to[1], "w");
  from_ = fdopen(from[0], "r");
}

Worker::~Worker() {
  std::fclose(to_);
  std::fclose(from_);
  waitpid(process_, nullptr, 0);
}

Done Worker::Do(const Work& work) {
  std::fprintf(to_, "%s %s %d %d %.17g\n", work.who.c_str(), work.what.c_str(), work.class_index,
               work.depth, work.at_least_ms);
  std::fflush(to_);
  Done done;
  if (std::fscanf(from_, "%lf %lf", &done.ns_each, &done.allocations_each) != 2) return {};
  return done;
}

void WorkIfAsked(int argc, char** argv) {
  if (argc != 2 || std::strcmp(argv[1], "--worker") != 0) return;
  // Not the program's first thread: the SDK's work is done on threads of its own.
  std::thread(&Serve).join();
  std::exit(0);
}

}  // namespace quenor::bench
