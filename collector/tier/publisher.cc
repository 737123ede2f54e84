#include "collector/tier/publisher.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <random>
#include <utility>

#include "collector/fatal.h"
#include "collector/files.h"

namespace quenor::collector {
namespace {

// The client library waits in the caller's thread when more is under way than it may have: never
// so here, where the ledger's own bounds are reached first.
constexpr int64_t kMaxPending = std::numeric_limits<int32_t>::max();
constexpr int64_t kStallWaitMs = 1;

// What the store says in an answer, by its number.
enum StoreError : int {
  kAccountResourcesExceeded = 10002,
  kStorageResourcesExceeded = 10047,
  kMessageExceedsMaximum = 10054,
  kStreamStoreFailed = 10077,
};

// Eight bytes that no other process draws.
std::string DrawProcess() {
  std::random_device device;
  const uint64_t drawn = (uint64_t{device()} << 32) | device();
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (int shift = 60; shift >= 0; shift -= 4) text.push_back(kDigits[(drawn >> shift) & 15]);
  return text;
}

// 1 to 16 characters; the multiplier is 2^64 divided by the golden ratio, as in Fibonacci hashing.
std::string PadOf(uint64_t id) { return std::string(1 + (id * 0x9e3779b97f4a7c15 >> 60), '0'); }

// The number behind the last hyphen of a message's id.
uint64_t NumberOf(natsMsg* message) {
  const char* text = nullptr;
  if (natsMsgHeader_Get(message, kIdHeader, &text) != NATS_OK) return 0;
  const std::string id = text;
  return std::strtoull(id.c_str() + id.rfind('-') + 1, nullptr, 10);
}

StoreOutcome OutcomeOf(const jsPubAckErr& error) {
  const std::string words = error.ErrText == nullptr ? "" : error.ErrText;
  if (error.Err == NATS_NO_RESPONDERS) return StoreOutcome::kAbsent;
  switch (static_cast<int>(error.ErrCode)) {
    case kMessageExceedsMaximum:
      return StoreOutcome::kRejected;
    case kAccountResourcesExceeded:
    case kStorageResourcesExceeded:
      return StoreOutcome::kFull;
    case kStreamStoreFailed:
      // The same number for a stream that has reached its bound and for a disk that fails.
      if (words.find("maximum") != std::string::npos) return StoreOutcome::kFull;
      break;
    default:
      break;
  }
  return StoreOutcome::kFailed;
}

}  // namespace

Publisher::Publisher(const StoreOptions& store, const HoldOptions& hold)
    : hold_(hold),
      stream_(store.stream),
      subject_(SubjectOf(store.stream)),
      process_(DrawProcess()) {
  event_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (event_fd_ < 0) {
    throw Fatal(kExitInternal,
                "cannot watch the store: " + ErrnoText(errno) + "; raise the limit on open files");
  }
  Connect(store);
}

Publisher::~Publisher() {
  // First of all: no thread of the library's leaves an event behind any more.
  if (connection_) natsConnection_Close(connection_.get());
  context_.reset();
  connection_.reset();
  nats_CloseAndWait(0);
  ::close(event_fd_);
}

void Publisher::Connect(const StoreOptions& store) {
  const std::string what = "connect to the store " + NodesText(store);
  const ConnectPtr options = MakeConnectOptions(store);
  Require(natsOptions_SetRetryOnFailedConnect(options.get(), true, &OnConnected, this), what);
  Require(natsOptions_SetReconnectedCB(options.get(), &OnConnected, this), what);
  Require(natsOptions_SetDisconnectedCB(options.get(), &OnDisconnected, this), what);
  Require(natsOptions_SetClosedCB(options.get(), &OnClosed, this), what);
  natsConnection* made = nullptr;
  const natsStatus status = natsConnection_Connect(&made, options.get());
  connection_.reset(made);
  if (status == NATS_OK) SetConnected(true);  // The handler is told of later ones only.
  if (status != NATS_NOT_YET_CONNECTED) Require(status, what);
  Renew();
}

void Publisher::Renew() {
  context_.reset();
  jsOptions settings;
  jsOptions_Init(&settings);
  settings.PublishAsync.MaxPending = kMaxPending;
  settings.PublishAsync.StallWait = kStallWaitMs;
  settings.PublishAsync.AckHandler = &OnAnswer;
  settings.PublishAsync.AckHandlerClosure = this;
  jsCtx* context = nullptr;
  Require(natsConnection_JetStream(&context, connection_.get(), &settings), "publish");
  context_.reset(context);
}

void Publisher::Publish(uint64_t id, const Report& report) {
  natsMsg* made = nullptr;
  natsStatus status = natsMsg_Create(&made, subject_.c_str(), nullptr, report.body.data(),
                                     static_cast<int>(report.body.size()));
  MessagePtr message(made);
  const std::string number = process_ + "-" + std::to_string(id);
  const std::string pad = PadOf(id);
  const std::pair<const char*, const char*> headers[] = {{kIdHeader, number.c_str()},
                                                         {kPathHeader, report.path.c_str()},
                                                         {kTimeHeader, report.time.c_str()},
                                                         {kSha256Header, report.sha256.c_str()},
                                                         {kPadHeader, pad.c_str()}};
  for (const auto& [name, value] : headers) {
    if (status == NATS_OK) status = natsMsgHeader_Set(made, name, value);
  }
  jsPubOptions options;
  jsPubOptions_Init(&options);
  options.ExpectStream = stream_.c_str();
  // Without it an attempt that is never answered would be kept for ever. That it is over tells
  // nothing: the ledger counts the time itself.
  options.MaxWait = hold_.hold.count();
  if (status == NATS_OK) {
    natsMsg* given = message.release();
    status = js_PublishMsgAsync(context_.get(), &given, &options);
    message.reset(given);  // Null once the library has taken it.
  }
  if (status == NATS_OK) return;
  const bool is_too_large = status == NATS_MAX_PAYLOAD;
  Leave({id, is_too_large ? StoreOutcome::kRejected : StoreOutcome::kFailed,
         natsStatus_GetText(status)});
}

Publisher::Events Publisher::TakeEvents() {
  eventfd_t count = 0;
  (void)::eventfd_read(event_fd_, &count);
  const std::lock_guard<std::mutex> lock(mutex_);
  Events taken;
  taken.is_connected = events_.is_connected;
  taken.is_closed = events_.is_closed;
  taken.is_new = std::exchange(events_.is_new, false);
  taken.completions.swap(events_.completions);
  return taken;
}

// ---- The client library's threads --------------------------------------------------------------

void Publisher::OnAnswer(jsCtx*, natsMsg* owned, jsPubAck* acknowledgement, jsPubAckErr* error,
                         void* closure) {
  const MessagePtr message(owned);  // The handler owns it.
  auto* const self = static_cast<Publisher*>(closure);
  Completion completion;
  completion.id = NumberOf(owned);
  if (acknowledgement != nullptr) {
    completion.outcome = StoreOutcome::kStored;
  } else if (error->Err == NATS_TIMEOUT) {
    return;
  } else {
    completion.outcome = OutcomeOf(*error);
    completion.words = error->ErrText == nullptr ? natsStatus_GetText(error->Err) : error->ErrText;
  }
  self->Leave(std::move(completion));
}

void Publisher::OnConnected(natsConnection*, void* closure) {
  static_cast<Publisher*>(closure)->SetConnected(true);
}

void Publisher::OnDisconnected(natsConnection*, void* closure) {
  static_cast<Publisher*>(closure)->SetConnected(false);
}

// The library does so by itself when a node has refused user and password twice.
void Publisher::OnClosed(natsConnection*, void* closure) {
  auto* const self = static_cast<Publisher*>(closure);
  {
    const std::lock_guard<std::mutex> lock(self->mutex_);
    self->events_.is_closed = true;
  }
  self->Wake();
}

void Publisher::SetConnected(bool connected) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    events_.is_connected = connected;
    events_.is_new = events_.is_new || connected;
  }
  Wake();
}

void Publisher::Leave(Completion completion) {
  bool is_first = false;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    is_first = events_.completions.empty();
    events_.completions.push_back(std::move(completion));
  }
  if (is_first) Wake();
}

void Publisher::Wake() { (void)::eventfd_write(event_fd_, 1); }

}  // namespace quenor::collector
