// Fleet: the channels of a run with their owners, the collector's model and the books, from the
// first channel's start to the last one's end.
// Thread: one. Life cycle: one at a time; it makes the clock.
#ifndef FLEET_MODEL_FLEET_H_
#define FLEET_MODEL_FLEET_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fleet/engine/clock.h"
#include "fleet/model/books.h"
#include "fleet/model/random.h"
#include "fleet/model/server.h"
#include "fleet/scenario/scenario.h"
#include "quenor_base/data_report/https/reliable_report_channel_https.h"

namespace quenor::fleet {

class Fleet {
 public:
  // Borrows the scenario while it lives.
  Fleet(const Scenario& scenario, uint64_t seed);
  ~Fleet();
  Fleet(const Fleet&) = delete;
  Fleet& operator=(const Fleet&) = delete;

  // To be called once; `progress` is told the virtual time, now and then; null for nothing.
  void Run(const std::function<void(int64_t now_us)>& progress);
  // Ends all channels. False when the books do not close: a report that is nowhere, or twice.
  [[nodiscard]] bool End();

  const Books& books() const { return books_; }
  Books& books() { return books_; }
  // Unacknowledged when the run's time was over.
  uint64_t waiting_at_end() const { return waiting_at_end_; }
  uint64_t events_run() const { return clock_.events_run(); }
  uint32_t channels() const { return static_cast<uint32_t>(owner_count_); }

 private:
  class Owner;
  class Restarts;

  void EndOwners();

  Clock clock_;
  const Scenario& scenario_;
  Books books_;
  Server server_;
  Random random_;
  size_t owner_count_ = 0;
  std::unique_ptr<Owner[]> owners_;
  std::unique_ptr<Restarts> restarts_;
  uint64_t waiting_at_end_ = 0;
};

}  // namespace quenor::fleet

#endif  // FLEET_MODEL_FLEET_H_
