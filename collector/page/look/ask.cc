#include "collector/page/look/ask.h"

#include <httplib.h>
#include <nats/nats.h>

#include <exception>
#include <memory>
#include <utility>

#include "collector/control_room/room.h"
#include "collector/fatal.h"

namespace quenor::collector {
namespace {

constexpr int kPatienceSeconds = 3;
// Of each of the store's answers: four of them are asked for in turn.
constexpr int64_t kStoreWaitMs = 1'500;

using StreamInfoPtr = std::unique_ptr<jsStreamInfo, Destroyer<jsStreamInfo_Destroy>>;
using ReaderInfoPtr = std::unique_ptr<jsConsumerInfo, Destroyer<jsConsumerInfo_Destroy>>;

// Empty, or the words that it ends with.
template <typename Do>
std::string ProblemOfDoing(Do something) {
  try {
    something();
  } catch (const Fatal& fatal) {
    return fatal.what();
  }
  return std::string();
}

uint64_t NoneBelowZero(int64_t number) { return number < 0 ? 0 : static_cast<uint64_t>(number); }

CollectorLook AskForMetrics(const std::string& url) {
  httplib::Client client(url);
  client.set_connection_timeout(kPatienceSeconds);
  client.set_read_timeout(kPatienceSeconds);
  const httplib::Result result = client.Get("/metrics");
  CollectorLook look;
  look.problem.clear();
  if (!result) {
    look.problem = "does not answer (" + httplib::to_string(result.error()) + ")";
  } else if (result->status != 200) {
    look.problem = "answers with status " + std::to_string(result->status);
  } else {
    look.samples = Samples(result->body);
    if (look.samples.By("quenor_collector_state", "state").empty()) {
      look.problem = "answers what no collector with a store would";
    }
  }
  return look;
}

}  // namespace

CollectorLook AskCollector(const std::string& url) {
  CollectorLook look;
  try {
    look = AskForMetrics(url);
  } catch (const std::exception& error) {  // An address that is none.
    look.problem = std::string("cannot be asked (") + error.what() + ")";
  }
  return look;
}

StoreLook StoreAsker::Ask() {
  StoreLook look;
  look.problem.clear();
  try {
    Connect();
    AskStream(&look);
    // After a change of leaders the reader is away for longer than the stream.
    look.reader_problem = ProblemOfDoing([&] { AskReader(&look); });
    look.control_problem =
        ProblemOfDoing([&] { look.control = ControlRoom(options_.store, *session_).Read(); });
  } catch (const std::exception& error) {
    look.problem = std::string("does not answer (") + error.what() + ")";
  }
  return look;
}

// The client library looks for a node for ever, but gives up where one refuses it for good.
void StoreAsker::Connect() {
  if (session_ && !natsConnection_IsClosed(session_->connection.get())) return;
  session_.reset();
  Session session = OpenSession(options_.store);
  jsOptions patience;
  jsOptions_Init(&patience);
  patience.Wait = kStoreWaitMs;
  jsCtx* context = nullptr;
  Require(natsConnection_JetStream(&context, session.connection.get(), &patience),
          "ask the store " + NodesText(options_.store));
  session.context.reset(context);
  session_ = std::move(session);
}

void StoreAsker::AskStream(StoreLook* look) const {
  const std::string& stream = options_.store.stream;
  jsStreamInfo* found = nullptr;
  Require(js_GetStreamInfo(&found, session_->context.get(), stream.c_str(), nullptr, nullptr),
          "look at stream " + stream);
  const StreamInfoPtr info(found);
  look->bytes = info->State.Bytes;
  look->messages = info->State.Msgs;
  look->replicas = NoneBelowZero(info->Config->Replicas);
  look->max_bytes = NoneBelowZero(info->Config->MaxBytes);
}

void StoreAsker::AskReader(StoreLook* look) const {
  jsConsumerInfo* found = nullptr;
  const natsStatus status =
      js_GetConsumerInfo(&found, session_->context.get(), options_.store.stream.c_str(),
                         options_.reader.c_str(), nullptr, nullptr);
  if (status == NATS_NOT_FOUND) {
    throw Fatal(kExitUnavailable, "reader " + options_.reader +
                                      " is not there; make it with quenor-collector provision");
  }
  Require(status, "look at reader " + options_.reader);
  const ReaderInfoPtr info(found);
  look->unread = info->NumPending;
  look->unacknowledged = NoneBelowZero(info->NumAckPending);
}

}  // namespace quenor::collector
