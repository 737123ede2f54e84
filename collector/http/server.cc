#include "collector/http/server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <utility>

#include "collector/clock.h"
#include "collector/fatal.h"
#include "collector/files.h"
#include "collector/http/answer.h"
#include "collector/http/exchange.h"
#include "collector/listen.h"

namespace quenor::collector {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kListenBacklog = 1024;
constexpr int kAcceptRetryMs = 50;
constexpr int kStopGraceMs = 1'000;
constexpr int kMaxEvents = 64;
constexpr milliseconds kLeaveTime{1'000};
constexpr size_t kMostWaiting = 1'024;  // Requests whose bodies come or whose replies go slowly.

}  // namespace

thread_local CollectorServer::Exchange* CollectorServer::current_exchange_ = nullptr;

CollectorServer::CollectorServer(const ServerOptions& options, Recorder& recorder, SSL_CTX* tls)
    : options_(options),
      recorder_(recorder),
      tls_(tls),
      reply_(BuildReply(options.reply)),
      crew_(std::max(1u, options.threads), kMostWaiting) {
  // Only what httplib tells the client in its Keep-Alive header; the watching is done here.
  set_keep_alive_timeout(static_cast<time_t>(options_.idle_timeout_s));
  set_keep_alive_max_count(std::numeric_limits<uint32_t>::max());
  set_expect_100_continue_handler(
      [this](const httplib::Request& request, httplib::Response& response) {
        const Ending& ending = current_exchange_->plan.ending;
        const bool ends_here =
            ending.kind != EndKind::kNone && ending.place == Place::kRequest && ending.offset == 0;
        if (current_exchange_->refusal == 0 && !ends_here) return 100;
        Handle(request, &response);
        return response.status;
      });
  set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
    Handle(request, &response);
    return HandlerResponse::Handled;
  });
}

CollectorServer::~CollectorServer() {
  crew_.Stop();
  crew_.Join();
  peers_.clear();
  if (listen_fd_ >= 0) ::close(listen_fd_);
  if (epoll_fd_ >= 0) ::close(epoll_fd_);
  if (wake_fd_ >= 0) ::close(wake_fd_);
}

void CollectorServer::Listen() {
  const Listening listening = ListenOn(options_.host, options_.port, kListenBacklog);
  listen_fd_ = listening.fd;
  port_ = listening.port;
  epoll_fd_ = ::epoll_create1(EPOLL_CLOEXEC);
  wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (epoll_fd_ < 0 || wake_fd_ < 0) {
    throw Fatal(kExitInternal, "cannot wait for connections: " + ErrnoText(errno) +
                                   "; raise the limit on open files");
  }
}

std::string CollectorServer::url() const {
  return std::string(tls_ != nullptr ? "https://" : "http://") + HostAndPort(options_.host, port_) +
         "/";
}

// ---- The thread of Run -------------------------------------------------------------------------

void CollectorServer::Run(int stop_fd) {
  Watch(stop_fd);
  Stop();
}

void CollectorServer::Watch(int stop_fd) {
  // These descriptors are told from peers by the address of the variable that holds them.
  epoll_event listening{};
  listening.events = EPOLLIN;
  listening.data.ptr = &listen_fd_;
  ::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, listen_fd_, &listening);
  epoll_event stop{};
  stop.events = EPOLLIN;
  stop.data.ptr = &stop_fd;
  ::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, stop_fd, &stop);

  // Edge-triggered, so it need not be read.
  epoll_event sooner{};
  sooner.events = EPOLLIN | EPOLLET;
  sooner.data.ptr = &wake_fd_;
  ::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wake_fd_, &sooner);

  for (;;) {
    int timeout_ms = Expire();
    const bool was_paused = accept_paused_;
    if (was_paused) timeout_ms = std::min(timeout_ms, kAcceptRetryMs);
    epoll_event events[kMaxEvents];
    const int count = ::epoll_wait(epoll_fd_, events, kMaxEvents, timeout_ms);
    for (int i = 0; i < count; ++i) {
      void* const source = events[i].data.ptr;
      if (source == &stop_fd) return;
      if (source == &listen_fd_) {
        AcceptAll();
      } else if (source != &wake_fd_) {
        Wake(static_cast<Peer*>(source));
      }
    }
    if (was_paused) {
      accept_paused_ = false;
      ::epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, listen_fd_, &listening);
    }
  }
}

void CollectorServer::AcceptAll() {
  for (;;) {
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      // Out of descriptors: look away for a moment, or the pending connection would spin the loop.
      epoll_event ignored{};
      ignored.data.ptr = &listen_fd_;
      ::epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, listen_fd_, &ignored);
      accept_paused_ = true;
      return;
    }
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    auto peer = std::make_unique<Peer>();
    peer->connection = std::make_unique<Connection>(fd, tls_, &crew_, stopping_);
    const Ending ending = options_.misbehaviour.ConnectionEnding(++connections_);
    if (ending.kind != EndKind::kNone) recorder_.CountMisbehavedConnection();
    if (ending.kind == EndKind::kRefuse) {
      peer->connection->RefuseHandshake(ending.alert);
    } else {
      peer->end_at_input = ending.kind;
    }
    Peer* const key = peer.get();
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      peers_.emplace(key, std::move(peer));
    }
    ParkIdle(key);
  }
}

void CollectorServer::Wake(Peer* peer) {
  State state = State::kIdle;
  Time due;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    state = peer->state;
    due = peer->due;
    parked_.erase({due, peer});
  }
  if (state == State::kLeaving && peer->connection->Discard()) return Park(peer, state, due);
  // The only event a held connection waits for is that its peer leaves.
  if (state == State::kHeld || state == State::kLeaving) return Drop(peer);
  Enqueue(peer);
}

// Looks after those that are due: a head that is late is answered, all others are closed. Returns
// the milliseconds until the next look.
int CollectorServer::Expire() {
  const auto now = Now();
  milliseconds wait = seconds(60);
  std::vector<std::unique_ptr<Peer>> expired;
  std::vector<Peer*> late;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    while (!parked_.empty() && parked_.begin()->first <= now) {
      Peer* const peer = parked_.begin()->second;
      parked_.erase(parked_.begin());
      if (peer->state == State::kReceiving && peer->connection->is_handshaken()) {
        late.push_back(peer);
        continue;
      }
      expired.push_back(std::move(peers_.extract(peer).mapped()));
    }
    if (!parked_.empty()) {
      wait = std::min(wait, std::chrono::ceil<milliseconds>(parked_.begin()->first - now));
    }
    watched_until_ = now + wait;
  }
  for (Peer* const peer : late) {
    // Else the next byte of it would wake a peer that a worker has.
    ::epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, peer->connection->fd(), nullptr);
    peer->is_late = true;
    Enqueue(peer);
  }
  return static_cast<int>(wait.count()) + 1;
}

void CollectorServer::Stop() {
  ::close(std::exchange(listen_fd_, -1));
  std::vector<std::unique_ptr<Peer>> dropped;
  std::unique_lock<std::mutex> lock(mutex_);
  // release: pairs with the acquires in Connection. Set under the lock for those who wait on a
  // condition variable.
  stopping_.store(true, std::memory_order_release);
  crew_.Stop();
  stop_cv_.notify_all();
  parked_.clear();
  for (auto entry = peers_.begin(); entry != peers_.end();) {
    if (entry->second->state == State::kBusy) {
      entry->second->connection->Interrupt(/*writes_too=*/false);
      ++entry;
    } else {
      dropped.push_back(std::move(entry->second));
      entry = peers_.erase(entry);
    }
  }
  // Replies that are due go out; a peer that does not read its reply cannot hold us up for long.
  stop_cv_.wait_for(lock, milliseconds(kStopGraceMs), [this] { return peers_.empty(); });
  for (const auto& entry : peers_) entry.second->connection->Interrupt(/*writes_too=*/true);
  lock.unlock();
  dropped.clear();
  crew_.Join();
}

// ---- Workers -----------------------------------------------------------------------------------

void CollectorServer::Serve(Peer* peer) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_.load()) return;  // The peer is gone: only busy ones outlive the stop.
    peer->state = State::kBusy;
  }
  if (peer->end_at_input != EndKind::kNone) return End(peer, peer->end_at_input);
  if (peer->is_late) return Refuse(peer, 408);
  switch (Receive(peer)) {
    case Connection::Progress::kDone:
      return peer->head.status() == 0 ? Answer(peer) : Refuse(peer, peer->head.status());
    case Connection::Progress::kMore:
      if (peer->head_due == Time::max()) return ParkIdle(peer);
      return Park(peer, State::kReceiving, peer->head_due);
    case Connection::Progress::kFailed:
      return Drop(peer);
  }
}

// Takes in what there is of the next head. kDone: it is whole or to be refused.
Connection::Progress CollectorServer::Receive(Peer* peer) {
  Connection* const connection = peer->connection.get();
  if (peer->head_due == Time::max()) {
    peer->head_due = Now() + seconds(options_.head_timeout_s);
  }
  if (!connection->is_handshaken()) {
    const Connection::Progress progress = connection->Handshake();
    if (progress != Connection::Progress::kDone) return progress;
    if (!connection->HasBufferedInput()) {
      peer->head_due = Time::max();
      return Connection::Progress::kMore;
    }
  }
  while (peer->head.Check(connection->unread()) == HeadCheck::Result::kMore) {
    const Connection::Progress progress = connection->Fill();
    if (progress != Connection::Progress::kDone) return progress;
  }
  return Connection::Progress::kDone;
}

void CollectorServer::Answer(Peer* peer) {
  Connection* const connection = peer->connection.get();
  peer->head = HeadCheck();
  peer->head_due = Time::max();
  Exchange exchange;
  exchange.connection = connection;
  current_exchange_ = &exchange;
  bool peer_closes = false;
  const bool answered =
      process_request(*connection, /*close_connection=*/false, peer_closes,
                      [&](httplib::Request& request) { Inspect(&exchange, &request); });
  current_exchange_ = nullptr;
  connection->SetDeadline(Time::max());

  if (exchange.end != EndKind::kNone && !exchange.drop) return End(peer, exchange.end);
  peer->end_at_input = exchange.end_at_input;
  if (!exchange.drop) connection->Unmute();
  const bool sent = !exchange.drop && connection->Flush();
  if (!answered || !sent || peer_closes || exchange.close || !exchange.inspected) {
    if (!exchange.inspected) recorder_.CountRefused("head", 400);
    if (sent && (exchange.unread || !exchange.inspected)) return Leave(peer);
    return Drop(peer);
  }
  if (connection->HasBufferedInput()) return Enqueue(peer);
  ParkIdle(peer);
}

// Answers what is not to be parsed, and ends the connection.
void CollectorServer::Refuse(Peer* peer, int status) {
  recorder_.CountRefused("head", status);
  const std::string text = RefusalText(status);
  peer->connection->write(text.data(), text.size());
  Leave(peer);
}

// Ends the connection of a peer as a script wants it.
void CollectorServer::End(Peer* peer, EndKind kind) {
  Connection* const connection = peer->connection.get();
  connection->Unmute();
  if (kind == EndKind::kHang) return Park(peer, State::kHeld, Time::max());
  if (kind == EndKind::kAlert) connection->SendAlert();
  if (kind == EndKind::kCut) connection->ForgoFarewell();
  if (kind != EndKind::kReset) return Leave(peer);
  connection->Reset();
  Drop(peer);
}

// Ends our side, and gives the peer a moment to read what it was sent.
void CollectorServer::Leave(Peer* peer) {
  peer->connection->EndSending();
  Park(peer, State::kLeaving, Now() + kLeaveTime);
}

// Hands the peer to the watching thread. It may be served by another worker, or be gone, before
// this returns.
void CollectorServer::Park(Peer* peer, State state, Time due) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (stopping_.load()) {
    lock.unlock();
    return Drop(peer);
  }
  peer->state = state;
  peer->due = due;
  parked_.emplace(due, peer);
  epoll_event event{};
  event.events = EPOLLONESHOT | EPOLLRDHUP;
  if (state != State::kHeld) event.events |= EPOLLIN;
  event.data.ptr = peer;
  const int fd = peer->connection->fd();
  if (::epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, fd, &event) != 0) {
    ::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event);
  }
  if (due >= watched_until_) return;
  const uint64_t one = 1;
  (void)!::write(wake_fd_, &one, sizeof(one));
}

void CollectorServer::ParkIdle(Peer* peer) {
  peer->head_due = Time::max();
  Park(peer, State::kIdle, Now() + seconds(options_.idle_timeout_s));
}

void CollectorServer::Enqueue(Peer* peer) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (stopping_.load()) {
    lock.unlock();
    return Drop(peer);
  }
  peer->state = State::kQueued;
  crew_.Post([this, peer] { Serve(peer); });
}

void CollectorServer::Drop(Peer* peer) {
  const std::lock_guard<std::mutex> lock(mutex_);
  // Closed under the lock, so that Stop() interrupts no descriptor that has just been closed.
  peers_.erase(peer);
  stop_cv_.notify_all();
}

}  // namespace quenor::collector
