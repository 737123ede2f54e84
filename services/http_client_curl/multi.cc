#include "services/http_client_curl/multi.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <set>
#include <utility>

#include "quenor_base/platform/base/monotonic_time.h"

QUENOR_NAMESPACE_BEGIN
namespace http_engine {
namespace {

using http_lines::kNever;
using Change = http_network::Watch::Change;

constexpr long kIdleConnections = 32;  // Kept open, over all hosts.
constexpr int kFruitlessRounds = 16;   // Then the I/O thread pauses: 1 ms, 2 ms, ...
constexpr int kSpinPauseMs = 10;       // ... up to this.
constexpr int kPollFailurePauseMs = 100;
constexpr int kSettleMs = 200;
constexpr int kLookAgainMs = 10;  // How long a request may be forgotten beside an idle connection.

// Whether the exchange ended because its connection is of no more use, to other HTTP/2 streams too.
bool BrokeItsConnection(const Transfer& transfer) {
  return transfer.state == HttpClient::State::kFailed &&
         (transfer.code == CURLE_RECV_ERROR || transfer.code == CURLE_SEND_ERROR ||
          transfer.code == CURLE_HTTP2);
}

}  // namespace

Multi::~Multi() {
  if (wake_fd_ >= 0) close(wake_fd_);
  for (const Shared& shared : shared_) curl_share_cleanup(shared.handle);
  if (multi_ != nullptr) curl_multi_cleanup(multi_);
}

bool Multi::Open(std::string* problem) {
  multi_ = curl_multi_init();
  if (multi_ == nullptr) {
    *problem = "libcurl has no memory";
    return false;
  }
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, kIdleConnections);
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd_ < 0 || !connections_.hang_ups.Open()) {
    *problem = "no descriptors are left";
    return false;
  }
  http_connection::SetWakeUpPairCloseOnExec(multi_);
  return true;
}

// libcurl knows one limit for all: the largest of those that are under way. Over HTTP/1.1 it is the
// lines that keep each to its own.
void Multi::LimitHostConnections(uint32_t count) {
  if (!active_.empty()) count = std::max(count, host_connections_);
  if (host_connections_ == count) return;
  host_connections_ = count;
  const long connections = static_cast<long>(count);
  curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, connections);
  // With fewer, connections of one busy host would be closed and opened again all the time.
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, std::max(kIdleConnections, connections));
}

// ---- What a set's exchanges share --------------------------------------------------------------

// While an exchange is under way its handle is in the share of its set; without memory it is not
// begun, as it would find the connections of others.
bool Multi::Join(Transfer* transfer) {
  const std::shared_ptr<const HttpSet>& set = transfer->settings->set;
  auto shared = std::find_if(shared_.begin(), shared_.end(), [&](const Shared& other) {
    return !other.set.owner_before(set) && !set.owner_before(other.set);
  });
  if (shared == shared_.end()) {
    CloseUnused();
    CURLSH* const handle = curl_share_init();
    if (handle == nullptr) return false;
    for (const auto what :
         {CURL_LOCK_DATA_CONNECT, CURL_LOCK_DATA_SSL_SESSION, CURL_LOCK_DATA_DNS}) {
      if (curl_share_setopt(handle, CURLSHOPT_SHARE, what) == CURLSHE_OK) continue;
      curl_share_cleanup(handle);
      return false;
    }
    shared_.push_back({set, handle, 0});
    shared = shared_.end() - 1;
  }
  if (curl_easy_setopt(transfer->easy, CURLOPT_SHARE, shared->handle) != CURLE_OK) return false;
  ++shared->users;
  transfer->share = shared->handle;
  return true;
}

void Multi::Leave(Transfer* transfer) {
  curl_easy_setopt(transfer->easy, CURLOPT_SHARE, nullptr);
  for (Shared& shared : shared_) {
    if (shared.handle == transfer->share) --shared.users;
  }
  transfer->share = nullptr;
}

// Of sets that nobody will send by again.
void Multi::CloseUnused() {
  for (size_t i = shared_.size(); i-- > 0;) {
    if (shared_[i].users > 0 || !shared_[i].set.expired()) continue;
    curl_share_cleanup(shared_[i].handle);
    shared_.erase(shared_.begin() + static_cast<ptrdiff_t>(i));
  }
}

// ---- Transfers ----------------------------------------------------------------------------------

bool Multi::Start(Transfer* transfer) {
  LimitHostConnections(transfer->settings->values().max_connections_per_host);
  transfer->Begin(&connections_);
  if (transfer->IsCancelled() || !Join(transfer)) {
    transfer->code = CURLE_OUT_OF_MEMORY;
    return false;
  }
  if (curl_multi_add_handle(multi_, transfer->easy) != CURLM_OK) {
    Leave(transfer);
    transfer->code = CURLE_OUT_OF_MEMORY;
    return false;
  }
  transfer->active_index = active_.size();
  active_.push_back(transfer);
  next_deadline_ms_ = std::min(next_deadline_ms_, transfer->deadline_ms);
  return true;
}

void Multi::Perform(std::vector<Transfer*>* ended) {
  int left = 0;
  curl_multi_perform(multi_, &left);
  while (const CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    const CURLcode code = message->data.result;  // The message dies with the handle's removal.
    Transfer* transfer = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
    const bool is_flood = EndedByCut(transfer->easy, code);
    if (is_flood) transfer->limit = HttpLimit::kFlood;
    transfer->Conclude(is_flood && code == CURLE_OK ? CURLE_RECV_ERROR : code);
    Finish(transfer, ended);
  }
}

// The whole exchange's limit is kept here and not by libcurl, which does not count the time that a
// request waits for a connection.
void Multi::Expire(int64_t now_ms, std::vector<Transfer*>* ended) {
  if (now_ms < next_deadline_ms_) return;
  int64_t next_ms = kNever;
  for (size_t i = active_.size(); i-- > 0;) {
    Transfer* transfer = active_[i];
    if (transfer->deadline_ms > now_ms) {
      next_ms = std::min(next_ms, transfer->deadline_ms);
      continue;
    }
    transfer->limit = HttpLimit::kTotal;
    transfer->Conclude(CURLE_OPERATION_TIMEDOUT);
    Finish(transfer, ended);
  }
  next_deadline_ms_ = next_ms;
}

// That they are cancelled is seen when their callbacks run.
void Multi::CancelClosed(std::vector<Transfer*>* ended) {
  for (size_t i = active_.size(); i-- > 0;) {
    if (active_[i]->IsCancelled()) Finish(active_[i], ended);
  }
  CloseUnused();
}

// An HTTP/1.1 connection in mid-exchange closes, an HTTP/2 stream is reset.
void Multi::Finish(Transfer* transfer, std::vector<Transfer*>* ended) {
  curl_multi_remove_handle(multi_, transfer->easy);
  transfer->CountMoved();
  Leave(transfer);
  if (transfer->state == HttpClient::State::kTimedOut ||
      transfer->state == HttpClient::State::kTooLarge || BrokeItsConnection(*transfer)) {
    CutBadConnection(*transfer);
  }
  Transfer* last = active_.back();
  active_[transfer->active_index] = last;
  last->active_index = transfer->active_index;
  active_.pop_back();
  if (active_.empty()) next_deadline_ms_ = kNever;
  ended->push_back(transfer);
}

// ---- Connections --------------------------------------------------------------------------------

// Once its connection is cut, libcurl takes a stream that was reset for a whole response. Only one
// with an announced length, which it counts, is believed.
bool Multi::EndedByCut(CURL* easy, CURLcode code) const {
  curl_off_t announced = -1;
  if (code == CURLE_OK) curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
  return announced < 0 && connections_.sockets.WasCut(http_connection::EndsOf(easy));
}

// Whether an exchange that began before `before_ms` is on the connection of this socket.
bool Multi::IsUsed(int fd, int64_t before_ms) const {
  const HttpEnds ends = EndsOf(fd);
  for (const Transfer* transfer : active_) {
    if (!transfer->under_way || transfer->started_ms >= before_ms) continue;
    if (http_connection::EndsOf(transfer->easy) == ends) return true;
  }
  return false;
}

// libcurl keeps an HTTP/2 connection after a stream on it has failed, and puts every further
// request there, the resent one first. Where the server has gone without a word, all of them would
// time out until the kernel gives the connection up, a quarter of an hour later; where it sends
// without end and heeds no reset, they would wait behind that. So a connection on which nothing
// arrived for half of a timed-out exchange, or too much, or nonsense, is cut, with whatever else
// waits on it. A server may just be slow: only the oldest exchange on it can find it silent.
void Multi::CutBadConnection(const Transfer& transfer) {
  // An HTTP/1.1 connection has closed with its exchange.
  if (!transfer.settings->http2 || !transfer.under_way) return;
  const bool timed_out = transfer.state == HttpClient::State::kTimedOut;
  const int64_t waited_ms = base::MonotonicMs() - transfer.started_ms;
  const HttpEnds ends = http_connection::EndsOf(transfer.easy);
  for (int fd : connections_.sockets.All()) {
    if (EndsOf(fd) != ends) continue;
    if (timed_out && http_connection::SilentMs(fd) < waited_ms / 2) continue;
    if (timed_out && IsUsed(fd, transfer.started_ms)) continue;
    shutdown(fd, SHUT_RDWR);
  }
}

// libcurl closes a kept connection that its server has closed when it next looks for one, which may
// be never. The kernel's half is ended here.
void Multi::CloseHungUp() {
  if (!any_hung_up_) return;
  any_hung_up_ = false;
  for (int fd : connections_.sockets.All()) {
    if (!http_connection::IsHungUp(fd)) continue;
    if (IsUsed(fd, kNever)) {
      any_hung_up_ = true;  // Its answer is still to be read: looked at after the next step.
    } else {
      shutdown(fd, SHUT_RDWR);
    }
  }
}

// ---- Changes of the network ---------------------------------------------------------------------

void Multi::WatchNetwork(bool on) {
  if (!on) {
    watch_.Close();
    network_ = Change::kNone;
  } else if (watch_.fd() < 0) {
    (void)watch_.Open();  // It could be opened a moment ago.
  }
}

// What was lost ends nothing but what cannot go on: attempts that fail at once would only have the
// channels wait longer.
void Multi::FollowNetwork(bool is_told, std::vector<Transfer*>* ended) {
  const Change change = is_told ? Change::kGain : network_;
  network_ = Change::kNone;
  if (change == Change::kNone) return;
  ++connections_.progress;
  CutStranded();
  if (change == Change::kLoss) return;
  CutIdle();
  for (size_t i = active_.size(); i-- > 0;) {
    Transfer* const transfer = active_[i];
    if (!transfer->under_way && !BeginAnew(transfer)) Finish(transfer, ended);
  }
}

// Those whose own address this machine has no more.
void Multi::CutStranded() {
  const std::set<std::string> addresses = http_network::OwnAddresses(http_network::Of::kAll);
  if (addresses.empty()) return;
  for (int fd : connections_.sockets.All()) {
    const std::string own = http_network::OwnAddress(fd);
    if (!own.empty() && addresses.count(own) == 0) shutdown(fd, SHUT_RDWR);
  }
}

// Those that no exchange is on.
void Multi::CutIdle() {
  for (int fd : connections_.sockets.All()) {
    if (!IsUsed(fd, kNever)) shutdown(fd, SHUT_RDWR);
  }
}

// It has no connection, so that nothing of it has gone out.
bool Multi::BeginAnew(Transfer* transfer) {
  curl_multi_remove_handle(multi_, transfer->easy);
  transfer->CountMoved();
  if (curl_multi_add_handle(multi_, transfer->easy) == CURLM_OK) return true;
  transfer->code = CURLE_OUT_OF_MEMORY;
  return false;
}

// ---- Sleep --------------------------------------------------------------------------------------

// libcurl gives a connection that has become free to a request that waits for one, and may forget
// the timer that would have it look at that request: it looks at all of them when asked. One that
// goes to a new connection, because its own has died, is not known to wait.
bool Multi::LookAgain(bool any_ended) {
  look_again_ = any_ended && !active_.empty();
  const auto waits = [](const Transfer* transfer) { return !transfer->under_way; };
  return look_again_ && std::any_of(active_.begin(), active_.end(), waits);
}

void Multi::Wait(int64_t until_ms) {
  // While a server's HTTP/2 window is shut, libcurl waits for a socket that is always ready.
  if (connections_.progress != progress_at_wait_) fruitless_rounds_ = 0;
  progress_at_wait_ = connections_.progress;
  if (fruitless_rounds_ > kFruitlessRounds) {
    poll(nullptr, 0, std::min(fruitless_rounds_ - kFruitlessRounds, kSpinPauseMs));
  }
  const int64_t before_ms = base::MonotonicMs();
  int timeout_ms = look_again_ ? kLookAgainMs : INT_MAX;
  if (until_ms != kNever) {
    const int64_t left_ms = std::max<int64_t>(until_ms - before_ms, 0);
    timeout_ms = static_cast<int>(std::min<int64_t>(left_ms, timeout_ms));
  }
  // A burst of changes is one: what comes within a moment of the last look waits for its end.
  const int64_t look_ms = watched_at_ms_ + kSettleMs;
  const bool is_settling = watch_.fd() >= 0 && before_ms < look_ms;
  if (is_settling) timeout_ms = std::min(timeout_ms, static_cast<int>(look_ms - before_ms));
  curl_waitfd wake[] = {{wake_fd_, CURL_WAIT_POLLIN, 0},
                        {connections_.hang_ups.fd(), CURL_WAIT_POLLIN, 0},
                        {watch_.fd(), CURL_WAIT_POLLIN, 0}};
  const unsigned count = watch_.fd() >= 0 && !is_settling ? 3 : 2;
  int ready = 0;
  if (curl_multi_poll(multi_, wake, count, timeout_ms, &ready) != CURLM_OK) {
    poll(nullptr, 0, kPollFailurePauseMs);  // Out of memory or descriptors: not at full speed.
  }
  uint64_t wake_ups;
  if (wake[1].revents != 0) {
    connections_.hang_ups.Clear();
    any_hung_up_ = true;
  }
  if (wake[2].revents != 0) {
    network_ = std::max(network_, watch_.Look());
    watched_at_ms_ = base::MonotonicMs();
  }
  if (wake[0].revents != 0) (void)!read(wake_fd_, &wake_ups, sizeof(wake_ups));
  // That it took long says nothing where a socket was ready: the machine may be busy.
  const bool has_slept = ready == 0 && base::MonotonicMs() - before_ms > 1;
  fruitless_rounds_ = has_slept ? 0 : fruitless_rounds_ + 1;
}

void Multi::WakeUp() const {
  const uint64_t one = 1;
  (void)!write(wake_fd_, &one, sizeof(one));
}

}  // namespace http_engine
QUENOR_NAMESPACE_END
