#include "collector/export/export.h"

#include <openssl/evp.h>
#include <poll.h>

#include <chrono>
#include <memory>
#include <utility>

#include "collector/clock.h"
#include "collector/export/folder.h"
#include "collector/fatal.h"
#include "collector/reports/json.h"
#include "collector/store/session.h"

namespace quenor::collector {
namespace {

using std::chrono::milliseconds;

using SubscriptionPtr = std::unique_ptr<natsSubscription, Destroyer<natsSubscription_Destroy>>;
using ReaderInfoPtr = std::unique_ptr<jsConsumerInfo, Destroyer<jsConsumerInfo_Destroy>>;

// A collector repeats a report for as long as it holds it, 20 s unless told otherwise: at 17,000
// reports a second less than half of it.
constexpr uint64_t kKnownIds = 1'000'000;

// What collectors named their ids before they had a header of their own.
constexpr char kStoreIdHeader[] = "Nats-Msg-Id";

constexpr int64_t kFetchWaitNs = 500'000'000;
// Of a batch, which is in memory twice. The store's files take no message of half as much.
constexpr int64_t kMostBatchBytes = int64_t{64} << 20;
constexpr int kLookAgainMs = 200;

std::string Base64(const char* data, size_t bytes) {
  std::string text((bytes + 2) / 3 * 4 + 1, '\0');  // With the NUL that OpenSSL writes.
  const int length =
      EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                      reinterpret_cast<const unsigned char*>(data), static_cast<int>(bytes));
  text.resize(static_cast<size_t>(length));
  return text;
}

std::string Header(natsMsg* message, const char* name) {
  const char* value = nullptr;
  return natsMsgHeader_Get(message, name, &value) == NATS_OK && value != nullptr ? value : "";
}

// Throws Fatal for what the stream did not send: that must not be acknowledged.
uint64_t SequenceOf(natsMsg* message) {
  jsMsgMetaData* found = nullptr;
  Require(natsMsg_GetMetaData(&found, message), "tell a message's place in the stream");
  const std::unique_ptr<jsMsgMetaData, Destroyer<jsMsgMetaData_Destroy>> data(found);
  return data->Sequence.Stream;
}

std::string IdOf(natsMsg* message) {
  const std::string id = Header(message, kIdHeader);
  return id.empty() ? Header(message, kStoreIdHeader) : id;
}

std::string LineOf(uint64_t sequence, natsMsg* message) {
  std::string line = JsonObject()
                         .AddNumber("sequence", sequence)
                         .Add("time", Header(message, kTimeHeader))
                         .Add("path", Header(message, kPathHeader))
                         .Add("sha256", Header(message, kSha256Header))
                         .Add("id", IdOf(message))
                         .Finish();
  line.back() = ',';  // Its members go on: base64 needs no quoting.
  line += "\"body\":\"";
  line += Base64(natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message)));
  line += "\"}";
  return line;
}

class Export {
 public:
  Export(const ExportOptions& options, int stop_fd,
         const std::function<void(const std::string& line)>& print);
  void Run();

 private:
  natsStatus Look(ReaderInfoPtr* info) const;
  Fatal ReaderIsGone() const;
  // Empty while the store does not answer, too.
  bool ReadBatch();
  bool IsDone() const;
  bool IsStopped(int wait_ms) const;
  void PrintProgress(const char* what);

  const ExportOptions& options_;
  const int stop_fd_;
  const std::function<void(const std::string& line)>& print_;
  Session session_;
  ExportFolder folder_;
  SubscriptionPtr subscription_;
  const Time started_ = Now();
  uint64_t read_ = 0;  // Messages, those that were here already too.
};

Export::Export(const ExportOptions& options, int stop_fd,
               const std::function<void(const std::string& line)>& print)
    : options_(options),
      stop_fd_(stop_fd),
      print_(print),
      session_(OpenSession(options.store)),
      folder_({options.out_dir, options.store.stream, options.rotate_bytes,
               milliseconds(options.rotate_ms), kKnownIds}) {
  ReaderInfoPtr info;
  const natsStatus status = Look(&info);
  if (status == NATS_NOT_FOUND) throw ReaderIsGone();
  Require(status, "look at reader " + options_.reader);
  folder_.Resume(info->AckFloor.Stream, Now());
  if (info->Delivered.Consumer == 0 && folder_.has_messages()) {
    throw Fatal(kExitCannotCreate,
                "cannot export to " + options.out_dir + ": it has messages of stream " +
                    options.store.stream + ", of which reader " + options.reader +
                    " has been given none, so they are another reader's or another stream's; give "
                    "--out another folder, or --reader the one that wrote there");
  }
  jsSubOptions how;
  jsSubOptions_Init(&how);
  how.Stream = options.store.stream.c_str();
  how.Consumer = options.reader.c_str();
  natsSubscription* made = nullptr;
  Require(js_PullSubscribe(&made, session_.context.get(), nullptr, options.reader.c_str(), nullptr,
                           &how, nullptr),
          "read stream " + options.store.stream);
  subscription_.reset(made);
}

natsStatus Export::Look(ReaderInfoPtr* info) const {
  jsConsumerInfo* found = nullptr;
  const natsStatus status =
      js_GetConsumerInfo(&found, session_.context.get(), options_.store.stream.c_str(),
                         options_.reader.c_str(), nullptr, nullptr);
  info->reset(found);
  return status;
}

Fatal Export::ReaderIsGone() const {
  return Fatal(kExitUnavailable, "reader " + options_.reader + " of stream " +
                                     options_.store.stream +
                                     " is not there; make it with quenor-collector provision");
}

void Export::Run() {
  Time next_line = started_ + milliseconds(options_.progress_ms);
  for (;;) {
    const bool any = ReadBatch();
    if (Now() >= next_line) {
      PrintProgress("exporting");
      next_line = Now() + milliseconds(options_.progress_ms);
    }
    if (!any && options_.once && IsDone()) break;
    if (IsStopped(any ? 0 : kLookAgainMs)) break;
  }
  folder_.Complete();
  PrintProgress("exported");
}

bool Export::ReadBatch() {
  jsFetchRequest request;
  jsFetchRequest_Init(&request);
  request.Batch = options_.batch;
  request.MaxBytes = kMostBatchBytes;
  request.Expires = kFetchWaitNs;
  natsMsgList list{};
  const natsStatus status = natsSubscription_FetchRequest(&list, subscription_.get(), &request);
  const std::unique_ptr<natsMsgList, Destroyer<natsMsgList_Destroy>> owner(&list);
  if (status == NATS_CONNECTION_CLOSED) Require(status, "read on");
  ReaderInfoPtr info;
  if (list.Count == 0 && Look(&info) == NATS_NOT_FOUND) throw ReaderIsGone();
  for (int i = 0; i < list.Count; ++i) {
    const uint64_t sequence = SequenceOf(list.Msgs[i]);
    folder_.Add(sequence, LineOf(sequence, list.Msgs[i]));
  }
  folder_.Sync(Now());
  // One that is lost on the way costs nothing: the message comes again, and is known then.
  for (int i = 0; i < list.Count; ++i) (void)natsMsg_Ack(list.Msgs[i], nullptr);
  read_ += static_cast<uint64_t>(list.Count);
  return list.Count > 0;
}

// Nothing is unread, and nothing waits for an acknowledgement: another export's may come again.
bool Export::IsDone() const {
  ReaderInfoPtr info;
  if (Look(&info) != NATS_OK) return false;
  return info->NumPending == 0 && info->NumAckPending == 0;
}

bool Export::IsStopped(int wait_ms) const {
  pollfd stop{stop_fd_, POLLIN, 0};
  return ::poll(&stop, 1, wait_ms) > 0;
}

void Export::PrintProgress(const char* what) {
  const int64_t took_ms = std::chrono::duration_cast<milliseconds>(Now() - started_).count();
  ReaderInfoPtr info;
  const natsStatus status = Look(&info);
  print_(what + std::string(" read=") + std::to_string(read_) + " written=" +
         std::to_string(folder_.lines()) + " repeats=" + std::to_string(folder_.repeats()) +
         " bytes=" + std::to_string(folder_.bytes()) +
         " per_second=" + std::to_string(read_ * 1000 / static_cast<uint64_t>(took_ms + 1)) +
         " unread=" + (status == NATS_OK ? std::to_string(info->NumPending) : "unknown"));
}

}  // namespace

void RunExport(const ExportOptions& options, int stop_fd,
               const std::function<void(const std::string& line)>& print) {
  Export(options, stop_fd, print).Run();
}

}  // namespace quenor::collector
