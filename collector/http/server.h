// The HTTP server: takes POSTs on any path, puts them on record, answers.
// httplib parses requests and writes replies; connections are ours. One thread (the caller of Run)
// accepts and watches connections that are idle or whose next head is not whole; a crew of workers
// serves one request each, without those that wait for their peer. So any number of connections
// that are idle or trickle occupies no worker, and none starves another.
// Life: construct, Listen, Run (returns after an orderly stop), destroy.
// Page: docs/guide/collector.md.
#ifndef COLLECTOR_HTTP_SERVER_H_
#define COLLECTOR_HTTP_SERVER_H_

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>

#include "collector/http/body.h"
#include "collector/http/connection.h"
#include "collector/http/crew.h"
#include "collector/http/head.h"
#include "collector/http/misbehaviour.h"
#include "collector/http/tls.h"
#include "collector/reports/recorder.h"
#include "collector/reports/reply.h"

namespace quenor::collector {

struct ServerOptions {
  std::string host = "127.0.0.1";
  int port = 0;
  unsigned threads = 64;
  uint64_t max_body_bytes = uint64_t{64} << 20;
  uint64_t idle_timeout_s = 300;
  uint64_t head_timeout_s = 10;
  uint64_t body_timeout_s = 300;
  ReplyOptions reply;
  Misbehaviour misbehaviour;
};

class CollectorServer : private httplib::Server {
 public:
  // Borrows `recorder` and `tls` (may be null: plain HTTP); both outlive the server.
  CollectorServer(const ServerOptions& options, Recorder& recorder, SSL_CTX* tls);
  ~CollectorServer() override;
  CollectorServer(const CollectorServer&) = delete;
  CollectorServer& operator=(const CollectorServer&) = delete;

  // Binds and listens. Throws Fatal.
  void Listen();

  // After Listen: "https://127.0.0.1:34567/" and the port in it.
  std::string url() const;
  int port() const { return port_; }

  // Serves on this thread until `stop_fd` is readable (it is borrowed and not read), then stops
  // accepting, lets workers finish the replies they are at, and returns. Connections that are idle
  // or held are closed at once, a request not yet received whole is given up, and a peer that does
  // not take its reply delays the return by at most about a second.
  void Run(int stop_fd);

 private:
  enum class State {
    kIdle,       // Nothing of the next request has come.
    kReceiving,  // Its head, or the TLS handshake, is not whole.
    kQueued,
    kBusy,
    kHeld,     // Nothing is read or written until the peer leaves.
    kLeaving,  // Our side has ended; the peer may still be reading the last answer.
  };

  struct Peer {
    std::unique_ptr<Connection> connection;
    State state = State::kBusy;
    EndKind end_at_input = EndKind::kNone;  // How it ends when the next bytes arrive.
    HeadCheck head;
    Time head_due = Time::max();  // max(): none of it has come.
    bool is_late = false;         // The head is.
    Time due = Time::max();       // While parked: when the thread of Run looks after it.
  };

  struct Exchange;
  // The exchange that this worker thread is in; httplib hands its handlers only its own objects.
  static thread_local Exchange* current_exchange_;

  // The thread of Run.
  void Watch(int stop_fd);
  void AcceptAll();
  void Wake(Peer* peer);
  int Expire();
  void Stop();

  // Workers.
  void Serve(Peer* peer);
  Connection::Progress Receive(Peer* peer);
  void Answer(Peer* peer);
  void Refuse(Peer* peer, int status);
  void End(Peer* peer, EndKind kind);
  void Leave(Peer* peer);
  void Park(Peer* peer, State state, Time due);
  void ParkIdle(Peer* peer);
  void Enqueue(Peer* peer);
  void Drop(Peer* peer);

  // Workers, inside httplib's process_request.
  void Inspect(Exchange* exchange, httplib::Request* request) const;
  void Handle(const httplib::Request& request, httplib::Response* response);
  void HandleGet(const httplib::Request& request, httplib::Response* response);
  std::string Metrics();
  void HandlePost(const httplib::Request& request, httplib::Response* response);
  static Received HeadOnRecord(const httplib::Request& request, const std::string& content_type,
                               int status);
  void AnswerPost(const httplib::Request& request, const std::string& body,
                  httplib::Response* response);
  void RefusePost(const httplib::Request& request, uint64_t size_bytes, int status,
                  httplib::Response* response);
  void RefuseBody(const httplib::Request& request, uint64_t size_bytes, int status,
                  httplib::Response* response);
  void GiveUpBody(httplib::Response* response);
  void Misbehave(const Plan& plan);
  void Pause(uint64_t pause_ms);
  BodyOutcome TakeBody(const Exchange& exchange, std::string* body, uint64_t* size_bytes) const;

  const ServerOptions options_;
  Recorder& recorder_;
  SSL_CTX* const tls_;
  const std::string reply_;
  int listen_fd_ = -1;
  int epoll_fd_ = -1;
  int wake_fd_ = -1;  // Makes the thread of Run look at what is due.
  int port_ = 0;
  bool accept_paused_ = false;  // The thread of Run only: out of descriptors.
  const Time started_ = Now();
  std::atomic<uint64_t> connections_{0};  // Accepted so far.

  std::atomic<bool> stopping_{false};
  std::mutex mutex_;                 // Guards everything below, but for the crew.
  std::condition_variable stop_cv_;  // Stopping has begun, or a worker has let go of a peer.
  std::unordered_map<Peer*, std::unique_ptr<Peer>> peers_;
  std::set<std::pair<Time, Peer*>> parked_;  // By when they are due.
  Time watched_until_ = Time::max();         // When the thread of Run looks at them next.
  Crew crew_;                                // Last: its threads use all of the above.
};

}  // namespace quenor::collector

#endif  // COLLECTOR_HTTP_SERVER_H_
