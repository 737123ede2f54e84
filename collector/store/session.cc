#include "collector/store/session.h"

#include <vector>

#include "collector/fatal.h"

namespace quenor::collector {
namespace {

constexpr int64_t kConnectWaitMs = 2'000;
constexpr int64_t kReconnectWaitMs = 100;
constexpr int64_t kReconnectJitterMs = 100;
constexpr int64_t kPingIntervalMs = 1'000;
constexpr int kMaxPings = 2;

// A node that is stopped takes no bytes: the thread that publishes waits this long at most, then
// the connection ends and another node is asked.
constexpr int64_t kWriteDeadlineMs = 1'000;

}  // namespace

std::string SubjectOf(const std::string& stream) { return stream + ".report"; }

std::string NodesText(const StoreOptions& store) {
  std::string text;
  for (const std::string& node : store.nodes) {
    const size_t host = node.find("://") + 3;
    const size_t at = node.rfind('@');
    text += (text.empty() ? "" : ",") + node.substr(at == std::string::npos ? host : at + 1);
  }
  return text;
}

void Require(natsStatus status, const std::string& what) {
  if (status == NATS_OK) return;
  natsStatus last = NATS_OK;
  const char* const detail = nats_GetLastError(&last);
  const bool has_detail = last == status && detail != nullptr && *detail != '\0';
  throw Fatal(kExitUnavailable, "cannot " + what + ": " + natsStatus_GetText(status) +
                                    (has_detail ? std::string(" (") + detail + ")" : "") +
                                    "; check --store and --stream, and that the nodes run");
}

ConnectPtr MakeConnectOptions(const StoreOptions& store) {
  natsOptions* made = nullptr;
  Require(natsOptions_Create(&made), "prepare a connection");
  ConnectPtr options(made);
  std::vector<const char*> nodes;
  for (const std::string& node : store.nodes) nodes.push_back(node.c_str());
  Require(natsOptions_SetServers(made, nodes.data(), static_cast<int>(nodes.size())),
          "use --store " + NodesText(store));
  const natsStatus steps[] = {
      natsOptions_SetName(made, "quenor-collector"),
      natsOptions_SetTimeout(made, kConnectWaitMs),
      natsOptions_SetMaxReconnect(made, -1),
      natsOptions_SetReconnectWait(made, kReconnectWaitMs),
      natsOptions_SetReconnectJitter(made, kReconnectJitterMs, kReconnectJitterMs),
      natsOptions_SetPingInterval(made, kPingIntervalMs),
      natsOptions_SetMaxPingsOut(made, kMaxPings),
      natsOptions_SetWriteDeadline(made, kWriteDeadlineMs),
  };
  for (const natsStatus step : steps) Require(step, "prepare a connection");
  return options;
}

Session OpenSession(const StoreOptions& store) {
  const std::string what = "connect to the store " + NodesText(store);
  const ConnectPtr options = MakeConnectOptions(store);
  natsConnection* connection = nullptr;
  Require(natsConnection_Connect(&connection, options.get()), what);
  Session session;
  session.connection.reset(connection);
  jsCtx* context = nullptr;
  Require(natsConnection_JetStream(&context, connection, nullptr), what);
  session.context.reset(context);
  return session;
}

}  // namespace quenor::collector
