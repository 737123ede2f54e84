#include "benchmarks/support/instructions.h"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace quenor::bench {
namespace {

std::string ThisProgram() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
  return length > 0 ? std::string(path, static_cast<size_t>(length)) : std::string();
}

// All instructions of a run, or below 0.
double Collected(const std::string& name, int times) {
  const std::string command = "valgrind --tool=callgrind --callgrind-out-file=/dev/null '" +
                              ThisProgram() + "' --count '" + name + "' " + std::to_string(times) +
                              " 2>&1";
  std::FILE* const output = popen(command.c_str(), "r");
  if (output == nullptr) return -1;
  double collected = -1;
  char line[512];
  while (std::fgets(line, sizeof(line), output) != nullptr) {
    const char* const found = std::strstr(line, "Collected : ");
    if (found != nullptr) collected = std::atof(found + std::strlen("Collected : "));
  }
  return pclose(output) == 0 ? collected : -1;
}

}  // namespace

void CountIfAsked(int argc, char** argv, const Countable& countable) {
  if (argc != 4 || std::strcmp(argv[1], "--count") != 0) return;
  const auto found = countable.find(argv[2]);
  if (found == countable.end()) {
    std::fprintf(stderr, "bench: nothing to count is called \"%s\"\n", argv[2]);
    std::exit(64);
  }
  found->second(std::atoi(argv[3]));
  std::exit(0);
}

double InstructionsOf(const std::string& name, int times) {
  const double few = Collected(name, times);
  const double many = Collected(name, 3 * times);
  return few < 0 || many < 0 ? -1 : (many - few) / (2.0 * times);
}

}  // namespace quenor::bench
