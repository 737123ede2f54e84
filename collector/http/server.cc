#include "collector/http/server.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <strings.h>
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

#include "collector/fatal.h"
#include "collector/files.h"
#include "collector/http/answer.h"

namespace quenor::collector {

// What a worker knows about the request at hand beside httplib's view of it.
struct CollectorServer::Exchange {
  Connection* connection = nullptr;
  uint64_t seq = 0;  // Of a POST.
  Plan plan;
  EndKind end = EndKind::kNone;           // How the connection ends now,
  EndKind end_at_input = EndKind::kNone;  // or when the next bytes arrive.
  bool inspected = false;  // False after process_request: the head could not be parsed.
  BodyFraming framing;
  int refusal = 0;      // Status to answer without reading the body; 0: none.
  bool close = false;   // After the reply.
  bool unread = false;  // The peer may still be sending what we will not read.
  bool drop = false;    // Close without a reply.
};

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr int kListenBacklog = 1024;
constexpr int kAcceptRetryMs = 50;
constexpr int kStopGraceMs = 1'000;
constexpr int kMaxEvents = 64;
constexpr milliseconds kLeaveTime{1'000};
constexpr size_t kMostWaiting = 1'024;  // Requests whose bodies come or whose replies go slowly.
constexpr char kJson[] = "application/json";

std::string LowerCase(std::string text) {
  for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return text;
}

// Calls `use` with each comma-separated token of all headers `name`, trimmed, in lower case.
template <typename Use>
void ForEachToken(const httplib::Headers& headers, const std::string& name, Use use) {
  const auto range = headers.equal_range(name);
  for (auto header = range.first; header != range.second; ++header) {
    const std::string value = LowerCase(header->second) + ",";
    size_t begin = 0;
    for (size_t comma = value.find(','); comma != std::string::npos;
         begin = comma + 1, comma = value.find(',', begin)) {
      const size_t first = value.find_first_not_of(" \t", begin);
      if (first >= comma) continue;
      const size_t last = value.find_last_not_of(" \t", comma - 1);
      use(value.substr(first, last - first + 1));
    }
  }
}

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
  const std::string address = HostAndPort(options_.host, options_.port);
  const auto fail = [&address](const std::string& reason) -> Fatal {
    return Fatal(kExitUnavailable, "cannot listen on " + address + ": " + reason +
                                       "; give --listen a local address and a free port (0: any)");
  };
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int code =
      ::getaddrinfo(options_.host.c_str(), std::to_string(options_.port).c_str(), &hints, &found);
  if (code != 0) throw fail(::gai_strerror(code));
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(found, &::freeaddrinfo);

  int error = 0;
  for (const addrinfo* entry = found; entry != nullptr && listen_fd_ < 0; entry = entry->ai_next) {
    const int fd = ::socket(entry->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      error = errno;
      continue;
    }
    // Reuse of an address in TIME_WAIT, but never a port that another server listens on.
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (::bind(fd, entry->ai_addr, entry->ai_addrlen) == 0 && ::listen(fd, kListenBacklog) == 0) {
      listen_fd_ = fd;
    } else {
      error = errno;
      ::close(fd);
    }
  }
  if (listen_fd_ < 0) throw fail(ErrnoText(error));

  sockaddr_storage bound{};
  socklen_t bytes = sizeof(bound);
  ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&bound), &bytes);
  // sin_port and sin6_port lie at the same place.
  port_ = ntohs(reinterpret_cast<const sockaddr_in*>(&bound)->sin_port);
  epoll_fd_ = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll_fd_ < 0) throw fail(ErrnoText(errno));
  wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd_ < 0) throw fail(ErrnoText(errno));
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
  const auto now = steady_clock::now();
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
    peer->head_due = steady_clock::now() + seconds(options_.head_timeout_s);
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
    if (sent && (exchange.unread || !exchange.inspected)) return Leave(peer);
    return Drop(peer);
  }
  if (connection->HasBufferedInput()) return Enqueue(peer);
  ParkIdle(peer);
}

// Answers what is not to be parsed, and ends the connection.
void CollectorServer::Refuse(Peer* peer, int status) {
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
  Park(peer, State::kLeaving, steady_clock::now() + kLeaveTime);
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
  Park(peer, State::kIdle, steady_clock::now() + seconds(options_.idle_timeout_s));
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

// ---- Inside httplib's process_request ----------------------------------------------------------

// Looks at the head of the request before httplib acts on it. Sets what must not surprise us:
// how long the body is, whether the connection outlives it, and which headers httplib would take
// as an order to change the body or the reply.
void CollectorServer::Inspect(Exchange* exchange, httplib::Request* request) const {
  exchange->inspected = true;
  bool keep_alive = request->version != "HTTP/1.0";
  ForEachToken(request->headers, "Connection", [&](const std::string& token) {
    if (token == "close") exchange->close = true;
    if (token == "keep-alive") keep_alive = true;
  });
  exchange->close = exchange->close || !keep_alive;

  if (request->method == "POST") {
    exchange->seq = recorder_.NextSeq();
    exchange->plan = options_.misbehaviour.PlanFor(exchange->seq - recorder_.first_seq() + 1);
  }

  const size_t lengths = request->headers.count("Content-Length");
  const size_t codings = request->headers.count("Transfer-Encoding");
  if (request->method != "POST" && request->method != "GET" && request->method != "HEAD") {
    exchange->refusal = 405;
  } else if (lengths + codings > 1 || (codings == 1 && request->version == "HTTP/1.0")) {
    exchange->refusal = 400;
  } else if (codings == 1) {
    exchange->framing.chunked = true;
    if (LowerCase(request->get_header_value("Transfer-Encoding")) != "chunked") {
      exchange->refusal = 501;
    }
  } else if (lengths == 1 && !ParseDigits(request->get_header_value("Content-Length"), 10,
                                          &exchange->framing.length_bytes)) {
    exchange->refusal = 400;
  }
  const bool has_body = exchange->framing.chunked || exchange->framing.length_bytes > 0;
  if (exchange->refusal == 0 && request->method != "POST" && has_body) exchange->refusal = 400;
  // Who waits for a "100 Continue" is told before sending; from others the body is read away.
  if (exchange->refusal == 0 && exchange->framing.length_bytes > options_.max_body_bytes &&
      request->has_header("Expect")) {
    exchange->refusal = 413;
  }

  exchange->unread = exchange->refusal != 0;
  exchange->close = exchange->close || exchange->unread;
  if (exchange->close) {
    request->headers.erase("Connection");
    request->headers.emplace("Connection", "close");
  }
  request->headers.erase("Accept-Encoding");
  request->ranges.clear();
}

void CollectorServer::Handle(const httplib::Request& request, httplib::Response* response) {
  Exchange* const exchange = current_exchange_;
  try {
    if (exchange->refusal != 0 && request.method == "POST") {
      RefusePost(request, exchange->framing.length_bytes, exchange->refusal, response);
    } else if (exchange->refusal != 0) {
      response->status = exchange->refusal;
      if (exchange->refusal == 405) response->set_header("Allow", "POST, GET, HEAD");
    } else if (request.method == "POST") {
      HandlePost(request, response);
    } else {
      HandleGet(request, response);
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "quenor-collector: cannot serve a request of %s: %s; it is answered 500\n",
                 exchange->connection->peer().c_str(), error.what());
    exchange->close = exchange->unread = true;
    response->status = 500;
  }
}

void CollectorServer::HandleGet(const httplib::Request& request, httplib::Response* response) {
  response->status = 200;
  if (request.path == "/healthz") {
    response->set_content("ok", "text/plain");
  } else if (request.path == "/stats") {
    response->set_content(CountsJson(recorder_.GetCounts()), kJson);
  } else {
    response->status = 404;
    response->set_content("POST reports on any path; GET /healthz or /stats\n", "text/plain");
  }
}

void CollectorServer::HandlePost(const httplib::Request& request, httplib::Response* response) {
  Exchange* const exchange = current_exchange_;
  const Ending& ending = exchange->plan.ending;
  std::string body;
  uint64_t size_bytes = 0;
  if (ending.kind != EndKind::kNone && ending.place == Place::kRequest) {
    exchange->connection->LimitInput(ending.offset);
    (void)TakeBody(*exchange, &body, &size_bytes);
    exchange->end = ending.kind;
    exchange->connection->Flush();  // What httplib has said so far: "100 Continue".
    exchange->connection->Mute();
    size_bytes = ending.offset - exchange->connection->input_left();
    return RefusePost(request, size_bytes, StatusOnRecord(exchange->plan), response);
  }
  switch (TakeBody(*exchange, &body, &size_bytes)) {
    case BodyOutcome::kWhole:
      return AnswerPost(request, body, response);
    case BodyOutcome::kTooLarge:
      return RefusePost(request, size_bytes, 413, response);
    case BodyOutcome::kFarTooLarge:
      exchange->close = exchange->unread = true;
      return RefusePost(request, size_bytes, 413, response);
    case BodyOutcome::kMalformed:
      exchange->close = exchange->unread = true;
      return RefusePost(request, size_bytes, 400, response);
    case BodyOutcome::kTrailersTooLarge:
      exchange->close = exchange->unread = true;
      return RefusePost(request, size_bytes, 431, response);
    case BodyOutcome::kIncomplete:
      return GiveUpBody(response);
  }
}

// The body did not come whole: that is no request. Who is late is told so.
void CollectorServer::GiveUpBody(httplib::Response* response) {
  Exchange* const exchange = current_exchange_;
  recorder_.CountIncomplete();
  response->status = 408;
  response->set_content(BuildRefusal(408), kJson);
  exchange->close = exchange->unread = exchange->connection->is_late();
  exchange->drop = !exchange->close;
  if (exchange->drop) exchange->connection->Mute();
}

void CollectorServer::AnswerPost(const httplib::Request& request, const std::string& body,
                                 httplib::Response* response) {
  Exchange* const exchange = current_exchange_;
  const std::string content_type = request.get_header_value("Content-Type");
  Received received;
  received.seq = exchange->seq;
  received.time = UtcNow();
  received.peer = exchange->connection->peer();
  received.path = request.target;
  received.content_type = content_type;
  received.body = body;
  received.misbehaviour = exchange->plan.words;
  received.status = StatusOnRecord(exchange->plan);

  // On record first: what is acknowledged must survive a kill that comes right after the reply.
  const bool recorded = recorder_.Record(received);
  if (!recorded && IsAccepted(received.status)) {
    response->status = kCannotRecordStatus;
    response->set_content(R"({"bytes_errinfo":"cannot record"})", kJson);
  } else if (!exchange->plan.words.empty()) {
    Misbehave(exchange->plan);
    response->status = 500;  // Seen by nobody: the answer has gone.
  } else {
    response->status = received.status;
    response->set_content(reply_, kJson);
  }
}

// Answers as the plan says and mutes what httplib would answer.
void CollectorServer::Misbehave(const Plan& plan) {
  Exchange* const exchange = current_exchange_;
  Pause(plan.delay_ms);
  AnswerContext context;
  context.reply = reply_;
  context.framing = exchange->close
                        ? "Connection: close\r\n"
                        : "Keep-Alive: timeout=" + std::to_string(options_.idle_timeout_s) + "\r\n";
  context.seed = options_.misbehaviour.seed();
  context.pause = [this](uint64_t pause_ms) { Pause(pause_ms); };
  exchange->drop = !WriteAnswer(plan, context, exchange->connection);
  exchange->connection->Mute();

  const Ending& ending = plan.ending;
  if (ending.kind == EndKind::kNone) {
    // Only the end of the connection tells the peer where such a body ends.
    if (plan.length == Length::kNone) exchange->end = EndKind::kClose;
  } else if (ending.place == Place::kNext) {
    exchange->end_at_input = ending.kind;
  } else {
    exchange->end = ending.kind;
  }
}

void CollectorServer::RefusePost(const httplib::Request& request, uint64_t size_bytes, int status,
                                 httplib::Response* response) {
  Exchange* const exchange = current_exchange_;
  const std::string content_type = request.get_header_value("Content-Type");
  Received received;
  received.seq = exchange->seq;
  received.time = UtcNow();
  received.peer = exchange->connection->peer();
  received.path = request.target;
  received.content_type = content_type;
  received.status = status;
  if (exchange->end != EndKind::kNone) received.misbehaviour = exchange->plan.words;
  recorder_.RecordRefused(received, size_bytes);
  response->status = status != 0 ? status : 500;
  response->set_content(BuildRefusal(status), kJson);
}

// Waits for so long, or until the server stops.
void CollectorServer::Pause(uint64_t pause_ms) {
  if (pause_ms == 0) return;
  std::unique_lock<std::mutex> lock(mutex_);
  stop_cv_.wait_for(lock, milliseconds(pause_ms), [this] { return stopping_.load(); });
}

// Has the body read for as long as it may take.
BodyOutcome CollectorServer::TakeBody(const Exchange& exchange, std::string* body,
                                      uint64_t* size_bytes) const {
  exchange.connection->SetDeadline(steady_clock::now() + seconds(options_.body_timeout_s));
  return ReadBody(exchange.connection, exchange.framing, options_.max_body_bytes, body, size_bytes);
}

}  // namespace quenor::collector
