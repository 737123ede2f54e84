// Publisher: the connection to the store. It publishes under a number that the caller gives and
// tells later what the store said; what that means is the ledger's to decide.
// Life: one per collector. Threads: the methods on one thread; the client library's threads only
// leave events behind, which make event_fd() readable.
#ifndef COLLECTOR_TIER_PUBLISHER_H_
#define COLLECTOR_TIER_PUBLISHER_H_

#include <nats/nats.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "collector/store/session.h"
#include "collector/tier/ledger.h"
#include "collector/tier/options.h"

namespace quenor::collector {

class Publisher {
 public:
  struct Report {
    std::string_view body;
    std::string path;
    std::string time;
    std::string sha256;
  };
  struct Completion {
    uint64_t id = 0;
    StoreOutcome outcome = StoreOutcome::kFailed;
    std::string words;  // The store's own, if it was none of the first two outcomes.
  };
  struct Events {
    std::vector<Completion> completions;
    bool is_connected = false;
    bool is_new = false;     // The connection is another one than at the last call.
    bool is_closed = false;  // For good: the nodes refuse who connects.
  };

  // Begins to connect, and does so again until it is refused. Throws Fatal.
  Publisher(const StoreOptions& store, const HoldOptions& hold);
  ~Publisher();
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  int event_fd() const { return event_fd_; }
  natsConnection* connection() const { return connection_.get(); }

  // What has happened since the last call.
  Events TakeEvents();

  // Forgets what was published and not answered, of which the client library keeps a copy each
  // time: on a new connection, where all of it is published again.
  void Renew();

  // What becomes of it is an event, also if it cannot be handed over at all.
  void Publish(uint64_t id, const Report& report);

 private:
  static void OnAnswer(jsCtx* context, natsMsg* message, jsPubAck* acknowledgement,
                       jsPubAckErr* error, void* self);
  static void OnConnected(natsConnection* connection, void* self);
  static void OnDisconnected(natsConnection* connection, void* self);
  static void OnClosed(natsConnection* connection, void* self);

  void Connect(const StoreOptions& store);
  void SetConnected(bool connected);
  void Leave(Completion completion);
  void Wake();

  const HoldOptions hold_;
  const std::string stream_;
  const std::string subject_;
  const std::string process_;  // Drawn: no two processes number alike.
  int event_fd_ = -1;
  ConnectionPtr connection_;
  ContextPtr context_;

  std::mutex mutex_;  // Guards the one below.
  Events events_;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_TIER_PUBLISHER_H_
