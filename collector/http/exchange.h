// What a worker knows about the request at hand beside httplib's view of it. Internal to the
// server.
#ifndef COLLECTOR_HTTP_EXCHANGE_H_
#define COLLECTOR_HTTP_EXCHANGE_H_

#include <cstdint>

#include "collector/http/server.h"

namespace quenor::collector {

struct CollectorServer::Exchange {
  Connection* connection = nullptr;
  uint64_t seq = 0;  // Of a POST.
  Plan plan;
  EndKind end = EndKind::kNone;           // How the connection ends now,
  EndKind end_at_input = EndKind::kNone;  // or when the next bytes arrive.
  bool inspected = false;  // False after process_request: the head could not be parsed.
  BodyFraming framing;
  int refusal = 0;      // Status to answer without reading the body; 0: none.
  bool close = false;   // After the reply.
  bool unread = false;  // The peer may still be sending what we will not read.
  bool drop = false;    // Close without a reply.
};

}  // namespace quenor::collector

#endif  // COLLECTOR_HTTP_EXCHANGE_H_
