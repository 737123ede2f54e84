#include "collector/control_room/watch.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "collector/clock.h"
#include "collector/fatal.h"
#include "collector/files.h"

namespace quenor::collector {
namespace {

using std::chrono::milliseconds;

constexpr int64_t kPatienceMs = 1'000;  // For an answer of the store.
constexpr int64_t kWaitMs = 100;        // For the watcher; how late the end may be noticed.
constexpr milliseconds kLookEvery{2'000};
constexpr milliseconds kFirstLookEvery{100};  // Until one was answered: nobody waits for control.
constexpr int kOlderLooks = 3;                // One alone may be a node's that lags.

}  // namespace

ControlWatch::ControlWatch(const StoreOptions& store, natsConnection* connection) : store_(store) {
  jsOptions settings;
  jsOptions_Init(&settings);
  settings.Wait = kPatienceMs;
  jsCtx* context = nullptr;
  Require(natsConnection_JetStream(&context, connection, &settings), "watch the bucket");
  context_.reset(context);
  event_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (event_fd_ < 0) {
    throw Fatal(kExitInternal,
                "cannot watch the bucket: " + ErrnoText(errno) + "; raise the limit on open files");
  }
  thread_ = std::thread([this] { Run(); });
}

ControlWatch::~ControlWatch() {
  ends_ = true;
  thread_.join();
  watcher_.reset();
  bucket_.reset();
  ::close(event_fd_);
}

std::optional<ControlWatch::Value> ControlWatch::Take() {
  eventfd_t count = 0;
  (void)::eventfd_read(event_fd_, &count);
  const std::lock_guard<std::mutex> lock(mutex_);
  return std::exchange(value_, std::nullopt);
}

// ---- Its thread --------------------------------------------------------------------------------

void ControlWatch::Run() {
  Time next_look = Now();
  while (!ends_) {
    if (Now() >= next_look) {
      Look();
      next_look = Now() + (has_looked_ ? kLookEvery : kFirstLookEvery);
    }
    if (!watcher_) {
      nats_Sleep(kWaitMs);
      continue;
    }
    kvEntry* entry = nullptr;
    const natsStatus status = kvWatcher_Next(&entry, watcher_.get(), kWaitMs);
    if (status == NATS_OK) {
      if (entry != nullptr) Found(entry);  // Null: all that was there has been told.
    } else if (status != NATS_TIMEOUT) {
      watcher_.reset();  // The next look makes another one.
    }
  }
}

bool ControlWatch::OpenBucket() {
  if (bucket_) return true;
  kvStore* found = nullptr;
  const natsStatus status = js_KeyValue(&found, context_.get(), store_.bucket.c_str());
  bucket_.reset(found);
  has_looked_ = has_looked_ || status == NATS_NOT_FOUND;
  return bucket_ != nullptr;
}

void ControlWatch::OpenWatcher() {
  kvWatcher* made = nullptr;
  watcher_.reset();
  if (kvStore_Watch(&made, bucket_.get(), store_.stream.c_str(), nullptr) == NATS_OK) {
    watcher_.reset(made);
  }
}

// What the watcher should have told by now it never will.
void ControlWatch::Look() {
  if (!OpenBucket()) return;
  kvEntry* entry = nullptr;
  const natsStatus status = kvStore_Get(&entry, bucket_.get(), store_.stream.c_str());
  if (status != NATS_OK && status != NATS_NOT_FOUND) return;
  has_looked_ = true;
  const uint64_t revision = entry == nullptr ? 0 : kvEntry_Revision(entry);
  older_looks_ = revision < revision_ ? older_looks_ + 1 : 0;
  const bool is_anew = older_looks_ == kOlderLooks;
  if (is_anew) {
    older_looks_ = 0;
    revision_ = 0;
    if (revision == 0) Leave(Value());
  }
  const bool lags = revision > revision_;
  if (entry != nullptr) Found(entry);
  if (lags || is_anew || !watcher_) OpenWatcher();
}

void ControlWatch::Found(kvEntry* owned) {
  const std::unique_ptr<kvEntry, Destroyer<kvEntry_Destroy>> entry(owned);
  const uint64_t revision = kvEntry_Revision(owned);
  if (revision <= revision_ || kvEntry_Operation(owned) != kvOp_Put) return;
  revision_ = revision;
  Value value;
  value.revision = revision;
  value.json.assign(static_cast<const char*>(kvEntry_Value(owned)),
                    static_cast<size_t>(kvEntry_ValueLen(owned)));
  Leave(std::move(value));
}

void ControlWatch::Leave(Value value) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    value_ = std::move(value);
  }
  (void)::eventfd_write(event_fd_, 1);
}

}  // namespace quenor::collector
