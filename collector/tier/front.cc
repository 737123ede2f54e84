#include "collector/tier/front.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <new>
#include <utility>

#include "collector/fatal.h"
#include "collector/files.h"
#include "collector/http/connection.h"
#include "collector/listen.h"
#include "collector/reports/reply.h"

namespace quenor::collector {
namespace {

constexpr int kListenBacklog = 4'096;
constexpr size_t kHeadBytes = 16 * 1024;  // A connection's memory: a larger head is answered 431.

// Descriptors that are no sender's connection.
constexpr rlim_t kOwnDescriptors = 64;

// A body beyond the limit is read to its end, so that its sender is there to read the 413, but no
// further than so many times the limit.
constexpr uint64_t kPatience = 4;

constexpr char kRetryAfterSeconds[] = "1";

unsigned int MostConnections() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < 2 * kOwnDescriptors) return 64;
  return static_cast<unsigned int>(
      std::min<rlim_t>(limit.rlim_cur - kOwnDescriptors, std::numeric_limits<int32_t>::max()));
}

}  // namespace

Front::Front(const FrontOptions& options, Handlers handlers)
    : options_(options), handlers_(std::move(handlers)) {
  const Listening listening = ListenOn(options_.host, options_.port, kListenBacklog);
  listen_fd_ = listening.fd;
  port_ = listening.port;
  const unsigned int flags = MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME;
  daemon_ = MHD_start_daemon(
      flags, 0, nullptr, nullptr, &OnRequest, this, MHD_OPTION_LISTEN_SOCKET, listen_fd_,
      MHD_OPTION_URI_LOG_CALLBACK, &OnTarget, this, MHD_OPTION_NOTIFY_COMPLETED, &OnCompleted, this,
      MHD_OPTION_CONNECTION_LIMIT, MostConnections(), MHD_OPTION_CONNECTION_MEMORY_LIMIT,
      kHeadBytes, MHD_OPTION_CONNECTION_TIMEOUT, static_cast<unsigned int>(options_.idle_timeout_s),
      MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_END);
  if (daemon_ == nullptr) {
    ::close(listen_fd_);
    throw Fatal(kExitInternal, "cannot serve HTTP: " + ErrnoText(errno) +
                                   "; check memory and the limit on open files");
  }
  epoll_fd_ = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
}

Front::~Front() { MHD_stop_daemon(daemon_); }

std::string Front::url() const { return "http://" + HostAndPort(options_.host, port_) + "/"; }

uint64_t Front::connections() const {
  return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_CURRENT_CONNECTIONS)->num_connections;
}

int Front::TimeoutMs() const {
  MHD_UNSIGNED_LONG_LONG timeout_ms = 0;
  if (MHD_get_timeout(daemon_, &timeout_ms) != MHD_YES) return -1;
  return static_cast<int>(
      std::min<MHD_UNSIGNED_LONG_LONG>(timeout_ms, std::numeric_limits<int>::max()));
}

void Front::Run() { MHD_run(daemon_); }

void Front::Answer(FrontRequest* request, FrontReply reply) {
  request->reply = std::move(reply);
  MHD_resume_connection(request->connection);
}

void Front::StopListening() {
  is_closing_ = true;
  const int fd = MHD_quiesce_daemon(daemon_);
  if (fd >= 0) ::close(fd);
}

// ---- What the library calls, in Run() ----------------------------------------------------------

void* Front::OnTarget(void*, const char* target, MHD_Connection* connection) {
  auto* const request = new (std::nothrow) FrontRequest;
  if (request == nullptr) return nullptr;
  request->target = target;
  request->connection = connection;
  return request;
}

MHD_Result Front::OnRequest(void* closure, MHD_Connection*, const char*, const char* method,
                            const char*, const char* data, size_t* data_bytes, void** given) {
  auto* const self = static_cast<Front*>(closure);
  auto* const request = static_cast<FrontRequest*>(*given);
  if (request == nullptr) return MHD_NO;
  try {
    if (!std::exchange(request->has_begun, true)) {
      request->method = method;
      return self->Begin(request);
    }
    if (*data_bytes > 0) return self->Gather(request, data, data_bytes);
    return self->Finish(request);
  } catch (const std::exception&) {
    return MHD_NO;  // No memory: the connection ends, and its sender comes again.
  }
}

void Front::OnCompleted(void*, MHD_Connection*, void** given, MHD_RequestTerminationCode) {
  delete static_cast<FrontRequest*>(*given);
  *given = nullptr;
}

// The head is there. An answer at this point ends the connection: its body is not read.
MHD_Result Front::Begin(FrontRequest* request) {
  if (request->method != "POST") return MHD_YES;
  const char* const length = MHD_lookup_connection_value(request->connection, MHD_HEADER_KIND,
                                                         MHD_HTTP_HEADER_CONTENT_LENGTH);
  if (length == nullptr) return MHD_YES;
  const uint64_t length_bytes = std::strtoull(length, nullptr, 10);
  request->is_too_large = length_bytes > options_.max_body_bytes;
  if (length_bytes / kPatience > options_.max_body_bytes) return Refuse(request, 413);
  if (!request->is_too_large) request->body.reserve(static_cast<size_t>(length_bytes));
  return MHD_YES;
}

MHD_Result Front::Gather(FrontRequest* request, const char* data, size_t* data_bytes) const {
  const size_t bytes = std::exchange(*data_bytes, 0);
  if (request->method != "POST") return MHD_YES;
  if (request->body.size() + bytes > options_.max_body_bytes) request->is_too_large = true;
  if (!request->is_too_large) {
    request->body.append(data, bytes);
    return MHD_YES;
  }
  request->dropped_bytes += request->body.size() + bytes;
  request->body.clear();
  return request->dropped_bytes / kPatience > options_.max_body_bytes ? MHD_NO : MHD_YES;
}

// The request is whole, or resumed with its answer.
MHD_Result Front::Finish(FrontRequest* request) {
  if (request->reply) return Send(request, *request->reply);
  if (request->method == "GET" || request->method == "HEAD") {
    const FrontReply reply = handlers_.on_get(request->target.substr(0, request->target.find('?')));
    if (reply.status == 404) handlers_.on_refused(404);
    return Send(request, reply);
  }
  if (request->method != "POST") return Refuse(request, 405);
  if (request->is_too_large) return Refuse(request, 413);
  request->arrived = Now();
  request->reply = handlers_.on_report(request);
  if (request->reply) return Send(request, *request->reply);
  MHD_suspend_connection(request->connection);
  return MHD_YES;
}

MHD_Result Front::Refuse(FrontRequest* request, int status) {
  handlers_.on_refused(status);
  FrontReply reply;
  reply.status = status;
  reply.body = BuildRefusal(status);
  return Send(request, reply);
}

MHD_Result Front::Send(FrontRequest* request, const FrontReply& reply) const {
  // The library copies the text: a response outlives the call, and const is not in its types.
  MHD_Response* const response = MHD_create_response_from_buffer(
      reply.body.size(), const_cast<char*>(reply.body.data()), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) return MHD_NO;
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, reply.type);
  if (reply.retry_later) {
    MHD_add_response_header(response, MHD_HTTP_HEADER_RETRY_AFTER, kRetryAfterSeconds);
  }
  if (reply.status == 405) {
    MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "POST, GET, HEAD");
  }
  if (is_closing_) MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
  const MHD_Result result =
      MHD_queue_response(request->connection, static_cast<unsigned int>(reply.status), response);
  MHD_destroy_response(response);
  return result;
}

}  // namespace quenor::collector
