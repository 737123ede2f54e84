// What a collector of a tier counts, and GET /metrics answers. Threads: one at a time.
#ifndef COLLECTOR_TIER_METER_H_
#define COLLECTOR_TIER_METER_H_

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "collector/clock.h"
#include "collector/tier/ledger.h"

namespace quenor::collector {

class Meter {
 public:
  explicit Meter(Time now) : started_(now) {}

  // A report was answered, so long after it had arrived whole.
  void CountAnswer(int status, std::chrono::microseconds took);
  // A request that is no report.
  void CountRefused(int status) { ++refused_[status]; }
  void CountStored(uint64_t size_bytes);
  void CountRejected() { ++rejected_; }
  void CountPublishedAgain(uint64_t reports) { published_again_ += reports; }
  void CountControlRefused() { ++control_refused_; }
  void CountConnected() { ++connected_; }

  struct Present {
    TierState state = TierState::kConnecting;
    uint64_t held_reports = 0;
    uint64_t held_bytes = 0;
    uint64_t connections = 0;
    uint64_t control_revision = 0;
    uint64_t control_interval_ms = 0;
  };
  // Reports that were answered, whatever they were.
  uint64_t answered() const;
  uint64_t stored() const { return stored_; }
  // "requests=… stored=… bytes=… rejected=… late=… full=…"
  std::string Line() const;
  std::string Text(const Present& present, Time now) const;

 private:
  // Upper bounds in milliseconds; beyond the last there is one more.
  static constexpr std::array<uint32_t, 14> kBoundsMs = {1,   2,   5,   10,   20,   30,    50,
                                                         100, 200, 500, 1000, 5000, 10000, 20000};

  const Time started_;
  std::map<int, uint64_t> answered_;
  std::map<int, uint64_t> refused_;
  std::array<uint64_t, kBoundsMs.size() + 1> took_{};
  std::chrono::microseconds took_together_{0};
  uint64_t stored_ = 0;
  uint64_t stored_bytes_ = 0;
  uint64_t rejected_ = 0;
  uint64_t published_again_ = 0;
  uint64_t control_refused_ = 0;
  uint64_t connected_ = 0;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_TIER_METER_H_
