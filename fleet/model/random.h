// Random: the numbers of one seed, the same on every machine.
#ifndef FLEET_MODEL_RANDOM_H_
#define FLEET_MODEL_RANDOM_H_

#include <cmath>
#include <cstdint>

namespace quenor::fleet {

class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}

  // A counter, well mixed: neighbouring seeds have nothing in common.
  uint64_t Next() {
    uint64_t mixed = state_ += 0x9e3779b97f4a7c15;
    mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9;
    mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111eb;
    return mixed ^ (mixed >> 31);
  }
  // Evenly from [0, 1).
  double Unit() { return static_cast<double>(Next() >> 11) * 0x1p-53; }
  // Evenly from [0, count).
  uint64_t Below(uint64_t count) {
    return static_cast<uint64_t>(Unit() * static_cast<double>(count));
  }
  double Normal() {
    const double radius = std::sqrt(-2 * std::log(1 - Unit()));
    return radius * std::cos(2 * M_PI * Unit());
  }
  // The time to the next of events that come `per_us` at any moment.
  double Exponential(double per_us) { return -std::log(1 - Unit()) / per_us; }

 private:
  uint64_t state_;
};

}  // namespace quenor::fleet

#endif  // FLEET_MODEL_RANDOM_H_
