// Front: the HTTP side of a collector that has a store, without a thread of its own. The library
// gathers requests; a report's connection is put aside, which costs nothing, until it is answered.
//
// It stands behind nginx, which ends TLS, closes on slow senders, answers malformed requests and
// hands on whole ones only: so libmicrohttpd, whose connections can be suspended, is
// shorter here than the loop of the collector that keeps files, which is exact about all of these.
// Life: one per collector. Threads: all on one.
#ifndef COLLECTOR_TIER_FRONT_H_
#define COLLECTOR_TIER_FRONT_H_

#include <microhttpd.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "collector/clock.h"

namespace quenor::collector {

struct FrontOptions {
  std::string host;
  int port = 0;
  size_t max_body_bytes = 0;
  uint64_t idle_timeout_s = 0;
};

struct FrontReply {
  int status = 200;
  std::string body;
  const char* type = "application/json";
  bool retry_later = false;  // Brings "Retry-After".
};

// A request: whose it is while it comes in and while it is being answered, the front's.
struct FrontRequest {
  std::string target;  // As sent, with its query.
  std::string method;
  std::string body;
  Time arrived;  // Its last byte.

  // The front's own.
  MHD_Connection* connection = nullptr;
  bool has_begun = false;
  bool is_too_large = false;
  uint64_t dropped_bytes = 0;
  std::optional<FrontReply> reply;
};

class Front {
 public:
  struct Handlers {
    // Empty: it is answered later, by Answer().
    std::function<std::optional<FrontReply>(FrontRequest*)> on_report;
    std::function<FrontReply(const std::string& path)> on_get;
    std::function<void(int status)> on_refused;
  };

  // Listens. Throws Fatal.
  Front(const FrontOptions& options, Handlers handlers);
  // Every report has been answered.
  ~Front();
  Front(const Front&) = delete;
  Front& operator=(const Front&) = delete;

  int port() const { return port_; }
  std::string url() const;
  uint64_t connections() const;

  // Readable when Run() has something to do; it also has after Answer() and after so many
  // milliseconds, -1: for ever.
  int epoll_fd() const { return epoll_fd_; }
  int TimeoutMs() const;
  void Run();

  void Answer(FrontRequest* request, FrontReply reply);

  // Takes no new connection, and ends each with the answer that it gets next.
  void StopListening();

 private:
  static void* OnTarget(void* self, const char* target, MHD_Connection* connection);
  static MHD_Result OnRequest(void* self, MHD_Connection* connection, const char* url,
                              const char* method, const char* version, const char* data,
                              size_t* data_bytes, void** request);
  static void OnCompleted(void* self, MHD_Connection* connection, void** request,
                          MHD_RequestTerminationCode code);

  MHD_Result Begin(FrontRequest* request);
  MHD_Result Gather(FrontRequest* request, const char* data, size_t* data_bytes) const;
  MHD_Result Finish(FrontRequest* request);
  MHD_Result Refuse(FrontRequest* request, int status);
  MHD_Result Send(FrontRequest* request, const FrontReply& reply) const;

  const FrontOptions options_;
  const Handlers handlers_;
  int listen_fd_ = -1;
  int port_ = 0;
  int epoll_fd_ = -1;
  bool is_closing_ = false;
  MHD_Daemon* daemon_ = nullptr;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_TIER_FRONT_H_
