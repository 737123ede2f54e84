#include "benchmarks/hand_over/facts.h"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace quenor::bench {
namespace {

// Of the program beside this one; empty when that cannot be told.
std::string ProbePath() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  return length > 0 ? std::string(path, static_cast<size_t>(length)) + "_probe" : "";
}

// What `command` printed, standard error included; empty when it failed.
std::string OutputOf(const std::string& command) {
  std::string output;
  std::FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return "";
  char piece[1024];
  while (const size_t length = std::fread(piece, 1, sizeof piece, pipe)) {
    output.append(piece, length);
  }
  return pclose(pipe) == 0 ? output : "";
}

void TellProbed(Area* area, const std::string& arguments, Fact fact) {
  if (!area->Wants(fact.name)) return;
  const std::string output = OutputOf("'" + ProbePath() + "' " + arguments);
  if (output.empty()) {
    std::fprintf(stderr, "bench: %s_probe %s failed\n", ProbePath().c_str(), arguments.c_str());
    std::exit(1);
  }
  fact.value = std::atof(output.c_str());
  area->Tell(fact);
}

void TellInstructions(Area* area, int size) {
  constexpr char kCollected[] = "Collected : ";
  const Fact fact{"instructions per SendPacket, " + std::to_string(size) + " bytes", "", 0, -1,
                  "Counted by callgrind on the caller's thread, glibc's malloc included."};
  if (!area->Wants(fact.name)) return;
  const std::string output =
      OutputOf("valgrind --tool=callgrind --callgrind-out-file=/dev/null --collect-atstart=no '" +
               ProbePath() + "' instructions " + std::to_string(size));
  const size_t at = output.find(kCollected);
  if (at == std::string::npos) return area->Say("No " + fact.name + ": valgrind did not run.");
  Fact told = fact;
  told.value = std::atof(output.c_str() + at + std::strlen(kCollected)) / 1000;
  area->Tell(told);
}

}  // namespace

void TellFacts(Area* area) {
  for (const int size : {256, 4096}) {
    const std::string bytes = std::to_string(size);
    TellProbed(area, "allocations " + bytes,
               {"allocations per SendPacket, " + bytes + " bytes", "", 0, 2,
                "The most of 1000 calls, on the caller's thread. One is the body; a second comes "
                "when the queue's list of tasks grows."});
  }
  TellProbed(area, "bodies 65536",
             {"bodies made per message, 64 KiB", "", 0, 1,
              "Allocations of the body's size or more, on all threads, from the call until the "
              "message is in the store: the body is moved there."});
  TellProbed(area, "wakes",
             {"wake-ups per message, one every 50 us", "", 0, 1,
              "At most one for each time the queue has gone to sleep."});
  TellProbed(area, "wakes_awake", {"wake-ups by 100 messages to a queue at work", "", 0, 0, ""});
  TellProbed(area, "wakes_idle",
             {"wake-ups of an idle queue in a second", "", 0, 0,
              "Counted from 100 ms after a burst, by the times the thread gave its processor up."});
  if (area->quick()) return;
  for (const int size : {256, 4096}) TellInstructions(area, size);
}

}  // namespace quenor::bench
