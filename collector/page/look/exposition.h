// What a collector's GET /metrics says, read back: samples by name and label, and quantiles of a
// histogram between two looks at it. No clock, thread or network.
#ifndef COLLECTOR_PAGE_LOOK_EXPOSITION_H_
#define COLLECTOR_PAGE_LOOK_EXPOSITION_H_

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quenor::collector {

struct Sample {
  std::string name;
  std::map<std::string, std::string> labels;
  double value = 0;
};

class Samples {
 public:
  Samples() = default;
  // Lines that are no sample, or whose value no collector has, are left out.
  explicit Samples(std::string_view text);

  bool is_empty() const { return samples_.empty(); }

  // Of the sample of that name without labels; empty: there is none.
  std::optional<double> Value(const std::string& name) const;

  // Of the samples of that name, by what stands in their label.
  std::map<std::string, double> By(const std::string& name, const std::string& label) const;

 private:
  std::vector<Sample> samples_;
};

// How much a counter has risen. A lower one began anew from 0: its process did.
double Rise(double before, double now);

// Upper bounds in seconds, each with how many took so long at most; the last bound is infinite.
using Buckets = std::map<double, double>;

Buckets BucketsOf(const Samples& samples, const std::string& histogram);
// What came to `now` since `before`.
Buckets RiseOf(const Buckets& before, const Buckets& now);
// Adds `more` to *sum.
void AddTo(const Buckets& more, Buckets* sum);

struct Quantile {
  double seconds = 0;
  bool is_beyond = false;  // Longer than that: the greatest bound that is finite.
};

// Which `part` of them took so long at most, even between two bounds. Empty: there are none.
std::optional<Quantile> QuantileOf(const Buckets& buckets, double part);

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_LOOK_EXPOSITION_H_
