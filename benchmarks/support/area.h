// One area of the benchmark: rows of contenders that are measured in turn, round by round, in the
// same run, so that a noisy machine disturbs all of them alike; the figures that count are ratios.
// Prints a table while it runs and leaves a JSON file for scripts/bench_report.py.
// Threads: the main one. A program has one Area:
//   --quick        few rounds and little work: that it builds, runs and has its shape
//   --json FILE    where the figures go
//   --row TEXT     only rows whose name contains TEXT
#ifndef QUENOR_BENCHMARKS_SUPPORT_AREA_H_
#define QUENOR_BENCHMARKS_SUPPORT_AREA_H_

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace quenor::bench {

// Something that is measured: `round` does its work once and answers the figure in the row's unit.
// A figure below 0 says that the round failed, which ends the program.
struct Contender {
  std::string name;
  std::function<double()> round;
};

// What our figure, divided by another contender's, may be.
struct Target {
  enum class Kind { kAtMost, kAtLeast };
  Kind kind = Kind::kAtMost;
  double limit = 1;
  // Names of contenders of the row; of several the best one counts, in each round.
  std::vector<std::string> against = {};
};

struct Row {
  std::string name;
  std::string unit;  // "ns", "us", "per s", ...
  bool more_is_better = false;
  std::vector<Contender> contenders = {};  // The first is ours.
  std::vector<Target> targets = {};
  std::string note = {};  // A sentence for the page; may be empty.
};

// A figure that is no ratio: a count, a size. `limit` below 0: none is set.
struct Fact {
  std::string name;
  std::string unit;
  double value = 0;
  double limit = -1;  // At most.
  std::string note = {};
};

// How a cost grows: lines of points over one x.
struct Plot {
  std::string name;  // Becomes a file name: letters, digits, '_'.
  std::string title;
  std::string x_label;
  std::string y_label;
  struct Line {
    std::string name;
    std::vector<std::pair<double, double>> points;
  };
  std::vector<Line> lines = {};
  std::string note = {};  // What the picture shows, each step explained.
};

class Area {
 public:
  // `name` is the program's word ("pool"), `title` a person's ("Pooled buffers").
  Area(int argc, char** argv, std::string name, std::string title);
  ~Area();
  Area(const Area&) = delete;
  Area& operator=(const Area&) = delete;

  bool quick() const { return quick_; }
  // `full` of something, or a part of it that is enough to see that it works.
  int Scale(int full, int quick) const { return quick_ ? quick : full; }

  // Runs each contender once unmeasured and then in rounds (11, or 3 when quick), in an order that
  // turns by one from round to round. Prints the row. False when --row leaves it out.
  bool Measure(const Row& row);
  bool Wants(const std::string& row_name) const;
  void Tell(const Fact& fact);
  void Draw(const Plot& plot);
  // A line of text for the page.
  void Say(const std::string& text);

  // Writes the JSON file, if one was asked for. The program's exit code: a missed target is told,
  // not failed.
  int Finish();

 private:
  struct Results;
  bool quick_ = false;
  std::string json_path_;
  std::string only_;
  Results* results_;
};

double Median(std::vector<double> values);

// Nanoseconds of a clock that only goes forward.
double NowNs();

// Mean nanoseconds of `call` over `count` runs in a row.
template <typename Call>
double MeanNs(int count, const Call& call) {
  const double begin = NowNs();
  for (int i = 0; i < count; ++i) call();
  return (NowNs() - begin) / count;
}

// Calls `chunk`, which does `count` operations, until `at_least_ms` are over. The median chunk's
// mean nanoseconds of one operation: chunks that lost the processor to others do not count.
template <typename Chunk>
double MedianChunkNs(int count, double at_least_ms, const Chunk& chunk) {
  std::vector<double> chunks;
  double now = NowNs();
  const double end = now + at_least_ms * 1e6;
  while (now < end) {
    const double begin = now;
    chunk();
    now = NowNs();
    chunks.push_back((now - begin) / count);
  }
  return Median(std::move(chunks));
}

// Keeps a value from being computed in vain.
template <typename T>
inline void Keep(const T& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

}  // namespace quenor::bench

#endif  // QUENOR_BENCHMARKS_SUPPORT_AREA_H_
