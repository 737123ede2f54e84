#include "collector/provision/provision.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>

#include "collector/clock.h"
#include "collector/fatal.h"
#include "collector/provision/nodes.h"
#include "collector/store/session.h"

namespace quenor::collector {
namespace {

using std::chrono::milliseconds;

using StreamInfoPtr = std::unique_ptr<jsStreamInfo, Destroyer<jsStreamInfo_Destroy>>;
using ReaderInfoPtr = std::unique_ptr<jsConsumerInfo, Destroyer<jsConsumerInfo_Destroy>>;
using BucketStatusPtr = std::unique_ptr<kvStatus, Destroyer<kvStatus_Destroy>>;

constexpr int64_t kNanosecondsPerMillisecond = 1'000'000;
constexpr int64_t kDuplicateWindowMs = 100;
constexpr uint8_t kBucketHistory = 16;  // Earlier settings, to look back at.
constexpr int64_t kBucketMaxBytes = 16 << 20;

// A reader that has not acknowledged for so long is taken for dead, and gets them again.
constexpr int64_t kReaderPatienceMs = 60'000;
constexpr int64_t kReaderMaxPending = 100'000;

// What a stream may take of a node's storage, in per cent: the rest is for what a cluster keeps
// beside it.
constexpr uint64_t kMostOfStorage = 80;

constexpr milliseconds kLookAgain{200};
constexpr int kLooks = 5;

class Provision {
 public:
  Provision(const ProvisionOptions& options, const PrintLine& print)
      : options_(options), print_(print), session_(OpenSession(options.store)) {}

  int Run() {
    ProvideStream();
    ProvideBucket();
    ProvideReader();
    return exit_code_;
  }

 private:
  void ProvideStream();
  StreamInfoPtr MakeStream();
  void ProvideBucket();
  void ProvideReader();
  void Compare(const std::string& what, int64_t found, int64_t asked);

  const ProvisionOptions& options_;
  const PrintLine& print_;
  const Session session_;
  int exit_code_ = kExitOk;
};

// Says so where they differ: what is there stays as it is.
void Provision::Compare(const std::string& what, int64_t found, int64_t asked) {
  if (found == asked) return;
  print_("differs " + what + "=" + std::to_string(found) + " asked=" + std::to_string(asked));
  exit_code_ = kExitMismatch;
}

void Provision::ProvideStream() {
  const std::string& name = options_.store.stream;
  jsStreamInfo* found = nullptr;
  const natsStatus status =
      js_GetStreamInfo(&found, session_.context.get(), name.c_str(), nullptr, nullptr);
  if (status != NATS_NOT_FOUND) Require(status, "look for stream " + name);
  StreamInfoPtr info(found);
  const char* const how = info ? "found" : "made";
  if (!info) info = MakeStream();
  const jsStreamConfig& config = *info->Config;
  const bool has_leader = info->Cluster != nullptr && info->Cluster->Leader != nullptr;
  print_("stream " + name + " " + how + " replicas=" + std::to_string(config.Replicas) +
         " max_bytes=" + std::to_string(config.MaxBytes) +
         " max_age_s=" + std::to_string(config.MaxAge / kNanosecondsPerMillisecond / 1000) +
         " first=" + std::to_string(info->State.FirstSeq) + " messages=" +
         std::to_string(info->State.Msgs) + " bytes=" + std::to_string(info->State.Bytes) +
         (has_leader ? std::string(" leader=") + info->Cluster->Leader : ""));
  Compare("replicas", config.Replicas, options_.replicas);
  Compare("storage_is_file", config.Storage == js_FileStorage, 1);
  Compare("discard_is_new", config.Discard == js_DiscardNew, 1);
  const std::string subject = name + ".>";
  Compare("subject_is_" + subject, config.SubjectsLen == 1 && config.Subjects[0] == subject, 1);
  Compare("keeps_until_its_limits", config.Retention == js_LimitsPolicy, 1);
  Compare("acknowledges", !config.NoAck && !config.Sealed, 1);
  Compare("max_msgs", config.MaxMsgs, -1);
  Compare("max_msgs_per_subject", config.MaxMsgsPerSubject, -1);
  Compare("max_msg_size", config.MaxMsgSize, -1);
  if (options_.max_bytes != 0) {
    Compare("max_bytes", config.MaxBytes, static_cast<int64_t>(options_.max_bytes));
  }
  Compare("max_age_s", config.MaxAge / kNanosecondsPerMillisecond / 1000,
          static_cast<int64_t>(options_.max_age_ms / 1000));
}

// Throws Fatal if the size leaves too little of a node's storage.
void CheckRoom(const ProvisionOptions& options) {
  if (options.max_bytes == 0) {
    throw Fatal(kExitUsage, "stream " + options.store.stream +
                                " is not there and is to have no size; give --max-bytes, at most "
                                "80 per cent of the smallest node's disk");
  }
  for (const std::string& url : options.monitors) {
    const NodeState node = AskNode(url, options.store.stream);
    if (node.max_storage_bytes == 0) {
      throw Fatal(kExitUnavailable, "cannot learn how much node " + url + " may store: it " +
                                        node.problem + "; check --monitor");
    }
    if (options.max_bytes > node.max_storage_bytes / 100 * kMostOfStorage) {
      throw Fatal(kExitUsage, "--max-bytes " + std::to_string(options.max_bytes) +
                                  " is more than 80 per cent of what node " + url +
                                  " may store; give at most " +
                                  std::to_string(node.max_storage_bytes / 100 * kMostOfStorage));
    }
  }
}

StreamInfoPtr Provision::MakeStream() {
  CheckRoom(options_);
  const std::string& name = options_.store.stream;
  const std::string subjects = name + ".>";
  const char* subject = subjects.c_str();
  jsStreamConfig config;
  jsStreamConfig_Init(&config);
  config.Name = name.c_str();
  config.Subjects = &subject;
  config.SubjectsLen = 1;
  config.Storage = js_FileStorage;
  config.Discard = js_DiscardNew;
  config.Replicas = options_.replicas;
  config.MaxBytes = static_cast<int64_t>(options_.max_bytes);
  config.MaxAge = static_cast<int64_t>(options_.max_age_ms) * kNanosecondsPerMillisecond;
  // The least that the server takes: none of our messages has the header that it looks for.
  config.Duplicates = kDuplicateWindowMs * kNanosecondsPerMillisecond;
  jsStreamInfo* made = nullptr;
  Require(js_AddStream(&made, session_.context.get(), &config, nullptr, nullptr),
          "make stream " + name);
  return StreamInfoPtr(made);
}

void Provision::ProvideBucket() {
  const std::string& name = options_.store.bucket;
  kvStore* found = nullptr;
  natsStatus status = js_KeyValue(&found, session_.context.get(), name.c_str());
  const char* how = "found";
  if (status == NATS_NOT_FOUND) {
    kvConfig config;
    kvConfig_Init(&config);
    config.Bucket = name.c_str();
    config.History = kBucketHistory;
    config.MaxBytes = kBucketMaxBytes;
    config.StorageType = js_FileStorage;
    config.Replicas = options_.replicas;
    status = js_CreateKeyValue(&found, session_.context.get(), &config);
    how = "made";
  }
  Require(status, "have bucket " + name);
  const BucketPtr bucket(found);
  kvStatus* described = nullptr;
  Require(kvStore_Status(&described, found), "look at bucket " + name);
  const BucketStatusPtr owner(described);
  print_("bucket " + name + " " + how +
         " replicas=" + std::to_string(kvStatus_Replicas(described)) +
         " values=" + std::to_string(kvStatus_Values(described)));
  Compare("bucket_replicas", kvStatus_Replicas(described), options_.replicas);
}

void Provision::ProvideReader() {
  const std::string& stream = options_.store.stream;
  const std::string& name = options_.reader;
  jsConsumerInfo* found = nullptr;
  natsStatus status = js_GetConsumerInfo(&found, session_.context.get(), stream.c_str(),
                                         name.c_str(), nullptr, nullptr);
  const char* how = "found";
  if (status == NATS_NOT_FOUND) {
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.Durable = name.c_str();
    config.AckPolicy = js_AckExplicit;
    config.DeliverPolicy = js_DeliverAll;
    config.AckWait = kReaderPatienceMs * kNanosecondsPerMillisecond;
    config.MaxAckPending = kReaderMaxPending;
    status =
        js_AddConsumer(&found, session_.context.get(), stream.c_str(), &config, nullptr, nullptr);
    how = "made";
  }
  Require(status, "have reader " + name);
  const ReaderInfoPtr info(found);
  print_("reader " + name + " " + how + " unread=" + std::to_string(info->NumPending) +
         " unacknowledged=" + std::to_string(info->NumAckPending) +
         " read_up_to=" + std::to_string(info->AckFloor.Stream));
  const jsConsumerConfig& config = *info->Config;
  Compare("reader_acknowledges_each", config.AckPolicy == js_AckExplicit, 1);
  Compare("reader_begins_at_the_first", config.DeliverPolicy == js_DeliverAll, 1);
  Compare("reader_max_deliver", config.MaxDeliver, -1);
  const bool has_filter = config.FilterSubject != nullptr && *config.FilterSubject != '\0';
  Compare("reader_filters", has_filter, 0);
  Compare("reader_reads_bodies", !config.HeadersOnly, 1);
}

void PrintNode(const NodeState& node, const PrintLine& print) {
  if (!node.problem.empty()) return print("node " + node.url + " " + node.problem);
  print("node " + node.url + " first=" + std::to_string(node.first_sequence) +
        " last=" + std::to_string(node.last_sequence) +
        " messages=" + std::to_string(node.messages) + " bytes=" + std::to_string(node.bytes) +
        (node.leader.empty() ? "" : " leader=" + node.leader));
}

// Empty if each of a stream's nodes was asked, and once.
std::string ThoseNotAsked(const std::vector<NodeState>& nodes) {
  uint64_t replicas = 0;
  for (const NodeState& node : nodes) replicas = std::max(replicas, node.replicas);
  for (auto node = nodes.begin(); node != nodes.end(); ++node) {
    const auto again = std::find_if(node + 1, nodes.end(), [&](const NodeState& other) {
      return !other.id.empty() && other.id == node->id;
    });
    if (again == nodes.end()) continue;
    return node->url + " and " + again->url +
           " are one node; give --monitor for each node of the store";
  }
  if (nodes.size() >= replicas) return std::string();
  return "the stream has " + std::to_string(replicas) + " replicas, and only " +
         std::to_string(nodes.size()) + " were asked; give --monitor for each node of the store";
}

// What one node had at the first look, each must come to have: under traffic they never are at the
// same message in the same moment.
int CheckNodes(const ProvisionOptions& options, const PrintLine& print) {
  const auto ask = [&options] {
    std::vector<NodeState> nodes;
    for (const std::string& url : options.monitors) {
      nodes.push_back(AskNode(url, options.store.stream));
    }
    return nodes;
  };
  std::vector<NodeState> nodes = ask();
  uint64_t first_sequence = 0;
  uint64_t last_sequence = 0;
  for (const NodeState& node : nodes) {
    first_sequence = std::max(first_sequence, node.first_sequence);
    last_sequence = std::max(last_sequence, node.last_sequence);
  }
  const Time end = Now() + milliseconds(options.settle_ms);
  std::string mismatch = MismatchOf(nodes, first_sequence, last_sequence);
  std::string divergence = DivergenceOf(nodes);
  // One look may fall into a change of leaders, a few do not.
  for (int looks = 1; looks < kLooks || (!mismatch.empty() && Now() < end); ++looks) {
    std::this_thread::sleep_for(kLookAgain);
    nodes = ask();
    mismatch = MismatchOf(nodes, first_sequence, last_sequence);
    divergence = DivergenceOf(nodes);
  }
  if (!divergence.empty()) mismatch = divergence;
  if (mismatch.empty()) mismatch = ThoseNotAsked(nodes);
  for (const NodeState& node : nodes) PrintNode(node, print);
  print(mismatch.empty() ? "check passed: " + std::to_string(nodes.size()) + " nodes hold the same"
                         : "check failed: " + mismatch);
  return mismatch.empty() ? kExitOk : kExitMismatch;
}

}  // namespace

int RunProvision(const ProvisionOptions& options, const PrintLine& print) {
  if (options.check) return CheckNodes(options, print);
  return Provision(options, print).Run();
}

}  // namespace quenor::collector
