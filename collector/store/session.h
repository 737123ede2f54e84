// The store's client library as this collector uses it: owners, names, connections and errors.
#ifndef COLLECTOR_STORE_SESSION_H_
#define COLLECTOR_STORE_SESSION_H_

#include <nats/nats.h>

#include <memory>
#include <string>

#include "collector/store/options.h"

namespace quenor::collector {

template <auto Destroy>
struct Destroyer {
  template <typename T>
  void operator()(T* object) const {
    Destroy(object);
  }
};
using ConnectionPtr = std::unique_ptr<natsConnection, Destroyer<natsConnection_Destroy>>;
using ContextPtr = std::unique_ptr<jsCtx, Destroyer<jsCtx_Destroy>>;
using MessagePtr = std::unique_ptr<natsMsg, Destroyer<natsMsg_Destroy>>;
using BucketPtr = std::unique_ptr<kvStore, Destroyer<kvStore_Destroy>>;
using WatcherPtr = std::unique_ptr<kvWatcher, Destroyer<kvWatcher_Destroy>>;
using ConnectPtr = std::unique_ptr<natsOptions, Destroyer<natsOptions_Destroy>>;

// The headers of a stored report.
constexpr char kPathHeader[] = "Quenor-Path";
constexpr char kTimeHeader[] = "Quenor-Time";
constexpr char kSha256Header[] = "Quenor-Sha256";
// The collector's process and its counter: what tells readers a message that is stored twice. It is
// not the header by which the store itself drops repeats: a node of it that catches up may take one
// for a repeat that the others do not, and lacks it then.
constexpr char kIdHeader[] = "Quenor-Id";
// As long as the counter says, in no order: two messages are seldom as long as each other, so a
// node that has one in the place of the other holds another number of bytes.
constexpr char kPadHeader[] = "Quenor-Pad";

// The one subject that the reports of a stream are published on.
std::string SubjectOf(const std::string& stream);

// The nodes as one text for messages: without users and passwords.
std::string NodesText(const StoreOptions& store);

// Settings of a connection that notices within three seconds that its node is gone, and looks for
// another one for ever. Throws Fatal.
ConnectPtr MakeConnectOptions(const StoreOptions& store);

// A connection that stands, for a command.
struct Session {
  ConnectionPtr connection;
  ContextPtr context;
};

// Throws Fatal if no node can be reached.
Session OpenSession(const StoreOptions& store);

// Throws Fatal unless `status` is NATS_OK: cannot `what`, by the library's words.
void Require(natsStatus status, const std::string& what);

}  // namespace quenor::collector

#endif  // COLLECTOR_STORE_SESSION_H_
