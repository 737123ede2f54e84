// Server: the model of a collector. It does one piece of work after the other, so many reports'
// worth a second; what would have to wait longer than its queue is refused with 503, which costs it
// something, too. It refuses for free what comes while its queue is full of refusals alone, as
// a kernel does whose backlog is full. Its replies bring what its policy says.
// Thread: the fleet's. Life cycle: one per run, before the channels.
#ifndef FLEET_MODEL_SERVER_H_
#define FLEET_MODEL_SERVER_H_

#include <cstdint>

#include "control/policy.h"
#include "fleet/engine/clock.h"
#include "fleet/model/books.h"
#include "fleet/model/random.h"
#include "fleet/scenario/scenario.h"
#include "quenor_base/buffer/copy_on_write_buffer.h"

namespace quenor::fleet {

// What a request that has come to the collector's door meets there.
struct Answer {
  enum class Kind { kAnswered, kUnreachable, kVanished };
  Kind kind = Kind::kAnswered;
  int status = 0;
  CopyOnWriteBuffer body;
  int64_t after_us = 0;  // Until the answer leaves.
};

class Server final : public Event {
 public:
  // Borrows both while it lives.
  Server(const Scenario& scenario, uint64_t seed, Books* books);
  ~Server() { Clock::Current().Cancel(this); }

  // How long the way to the collector and back takes now; a new connection goes it more often.
  int64_t DrawLatencyUs();
  // A request arrives now.
  Answer Arrive(const CopyOnWriteBuffer& body, bool is_new_connection);

  const ClientSettings& client() const { return scenario_.client; }
  // Its round trips on the way there, beside the request's own.
  int ConnectRoundTrips() const;

  double CapacityNow() const;

 private:
  void OnDue() override;  // The policy's tick.
  // The incident of that kind that holds now; null when there is none.
  const Incident* Now(Incident::Kind kind) const;
  Answer Refuse(int status);
  CopyOnWriteBuffer Reply();
  // Takes on `reports` worth of work.
  void Work(double reports);

  const Scenario& scenario_;
  Books* const books_;
  Random latency_random_;
  Random reply_random_;
  control::Policy policy_;
  control::Load load_;
  double asked_ = 0;       // Reports' worth since the last tick.
  double free_at_us_ = 0;  // When all work taken on is done.
  CopyOnWriteBuffer plain_reply_;
};

}  // namespace quenor::fleet

#endif  // FLEET_MODEL_SERVER_H_
