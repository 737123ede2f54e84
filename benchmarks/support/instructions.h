// Instructions of one operation, counted by callgrind: a figure without noise, for a machine that
// has no counters of its own. The program runs itself again, as `PROGRAM --count NAME TIMES`.
#ifndef QUENOR_BENCHMARKS_SUPPORT_INSTRUCTIONS_H_
#define QUENOR_BENCHMARKS_SUPPORT_INSTRUCTIONS_H_

#include <functional>
#include <map>
#include <string>

namespace quenor::bench {

// What can be counted: each does its operation so many times.
using Countable = std::map<std::string, std::function<void(int times)>>;

// When the command line is `--count NAME TIMES`: does it and ends the program.
void CountIfAsked(int argc, char** argv, const Countable& countable);

// Mean instructions of one operation of `name`: the difference of two runs, so that starting up and
// the first operations count for nothing. Below 0 when valgrind could not be run.
double InstructionsOf(const std::string& name, int times);

}  // namespace quenor::bench

#endif  // QUENOR_BENCHMARKS_SUPPORT_INSTRUCTIONS_H_
