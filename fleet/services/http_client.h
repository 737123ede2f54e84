// The fleet's HTTP client: each exchange asks the model of a server, and takes its time on the
// clock. Thread: the fleet's.
#ifndef FLEET_SERVICES_HTTP_CLIENT_H_
#define FLEET_SERVICES_HTTP_CLIENT_H_

#include "fleet/model/server.h"

namespace quenor::fleet {

// Whom all requests ask from now on; borrowed. Null: no client is made.
void SetServer(Server* server);

}  // namespace quenor::fleet

#endif  // FLEET_SERVICES_HTTP_CLIENT_H_
