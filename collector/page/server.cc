#include "collector/page/server.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "collector/fatal.h"
#include "collector/files.h"
#include "collector/http/connection.h"
#include "collector/listen.h"
#include "collector/page/html/assets.h"
#include "collector/page/html/pages.h"

namespace quenor::collector {
namespace {

constexpr int kListenBacklog = 64;
constexpr unsigned int kMostConnections = 64;
constexpr int kMostStreams = 16;
constexpr size_t kHeadBytes = 16 * 1024;  // A connection's memory: a larger head is answered 431.
constexpr size_t kMostFormBytes = 8 * 1024;
constexpr size_t kPatience = 4;  // A larger form is read on, so that its sender is there to read
                                 // the 413, up to so many times the limit.
constexpr size_t kStackBytes = 256 * 1024;
constexpr unsigned int kSilenceSeconds = 10;
constexpr std::chrono::seconds kEvery{1};

constexpr char kHtml[] = "text/html; charset=utf-8";

using ResponsePtr = std::unique_ptr<MHD_Response, decltype(&::MHD_destroy_response)>;

// Nothing from elsewhere is loaded, nothing of the page is framed, kept or guessed at.
void AddHeaders(MHD_Response* response, const char* type) {
  const std::pair<const char*, const char*> headers[] = {
      {MHD_HTTP_HEADER_CONTENT_TYPE, type},
      {MHD_HTTP_HEADER_CACHE_CONTROL, "no-store"},
      {"Content-Security-Policy",
       "default-src 'none'; style-src 'self'; script-src 'self'; connect-src 'self'; img-src "
       "'self'; "
       "form-action 'self'; frame-ancestors 'none'; base-uri 'none'"},
      {"X-Frame-Options", "DENY"},
      {"X-Content-Type-Options", "nosniff"},
      {"Referrer-Policy", "same-origin"}};
  for (const auto& [name, value] : headers) MHD_add_response_header(response, name, value);
}

MHD_Result Send(MHD_Connection* connection, int status, const std::string& text,
                const char* type = kHtml) {
  // The library copies the text: a response outlives the call, and const is not in its types.
  const ResponsePtr response(
      MHD_create_response_from_buffer(text.size(), const_cast<char*>(text.data()),
                                      MHD_RESPMEM_MUST_COPY),
      &::MHD_destroy_response);
  if (!response) return MHD_NO;
  AddHeaders(response.get(), type);
  if (status == 405)
    MHD_add_response_header(response.get(), MHD_HTTP_HEADER_ALLOW, "GET, HEAD, POST");
  if (status == 503) MHD_add_response_header(response.get(), MHD_HTTP_HEADER_RETRY_AFTER, "5");
  return MHD_queue_response(connection, static_cast<unsigned int>(status), response.get());
}

MHD_Result Refuse(MHD_Connection* connection, int status, const std::string& why) {
  return Send(connection, status, MessagePage("Refused", why));
}

std::optional<std::string> Header(MHD_Connection* connection, const char* name) {
  const char* const value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

Asked AskedBy(MHD_Connection* connection) {
  Asked asked;
  asked.host = Header(connection, MHD_HTTP_HEADER_HOST).value_or("");
  asked.origin = Header(connection, "Origin");
  asked.fetch_site = Header(connection, "Sec-Fetch-Site");
  return asked;
}

// Text as an event of the browser's EventSource.
std::string EventOf(const std::string& text) {
  std::string event = "data: ";
  for (const char c : text) {
    event += c;
    if (c == '\n') event += "data: ";
  }
  return event + "\n\n";
}

}  // namespace

// While it comes in.
struct PageServer::Request {
  std::string path;
  std::string method;
  std::string body;
  size_t bytes = 0;
};

// The events that one browser takes.
struct PageServer::Stream {
  PageServer* server;
  std::string event;
  size_t sent = 0;
  bool has_begun = false;
};

PageServer::PageServer(const std::string& host, int port, const Guard& guard, PageHandlers handlers)
    : host_(host), guard_(guard), handlers_(std::move(handlers)) {
  const Listening listening = ListenOn(host, port, kListenBacklog);
  port_ = listening.port;
  const unsigned int flags =
      MHD_USE_AUTO | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_ITC;
  daemon_ = MHD_start_daemon(
      flags, 0, nullptr, nullptr, &OnRequest, this, MHD_OPTION_LISTEN_SOCKET, listening.fd,
      MHD_OPTION_NOTIFY_COMPLETED, &OnCompleted, this, MHD_OPTION_CONNECTION_LIMIT,
      kMostConnections, MHD_OPTION_CONNECTION_MEMORY_LIMIT, kHeadBytes,
      MHD_OPTION_THREAD_STACK_SIZE, kStackBytes, MHD_OPTION_CONNECTION_TIMEOUT, kSilenceSeconds,
      MHD_OPTION_STRICT_FOR_CLIENT, 1, MHD_OPTION_END);
  if (daemon_ == nullptr) {
    throw Fatal(kExitInternal, "cannot serve HTTP: " + ErrnoText(errno) +
                                   "; check memory and the limit on open files");
  }
}

PageServer::~PageServer() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ends_ = true;
  }
  end_cv_.notify_all();
  MHD_stop_daemon(daemon_);
}

std::string PageServer::url() const { return "http://" + HostAndPort(host_, port_) + "/"; }

// ---- What the library calls, on a connection's thread ------------------------------------------

MHD_Result PageServer::OnRequest(void* closure, MHD_Connection* connection, const char* path,
                                 const char* method, const char*, const char* data,
                                 size_t* data_bytes, void** given) {
  auto* const self = static_cast<PageServer*>(closure);
  try {
    if (*given == nullptr) {
      *given = new Request{path, method, "", 0};
      return MHD_YES;
    }
    auto* const request = static_cast<Request*>(*given);
    if (*data_bytes == 0) return self->Answer(connection, *request);
    request->bytes += std::exchange(*data_bytes, 0);
    if (request->bytes > kPatience * kMostFormBytes) return MHD_NO;
    if (request->bytes <= kMostFormBytes) {
      request->body.append(data, request->bytes - request->body.size());
    }
    return MHD_YES;
  } catch (const std::exception&) {
    return MHD_NO;  // No memory: the connection ends.
  }
}

void PageServer::OnCompleted(void*, MHD_Connection*, void** given, MHD_RequestTerminationCode) {
  delete static_cast<Request*>(*given);
  *given = nullptr;
}

MHD_Result PageServer::Answer(MHD_Connection* connection, const Request& request) {
  const std::string refusal = guard_.RefusalOf(AskedBy(connection));
  if (!refusal.empty()) return Refuse(connection, 403, refusal);
  if (request.method == "POST") return AnswerForm(connection, request);
  if (request.method != "GET" && request.method != "HEAD") {
    return Refuse(connection, 405, "this page is read by GET and changed by POST");
  }
  if (request.path == "/") return Send(connection, 200, handlers_.page());
  if (request.path == "/events") return AnswerEvents(connection);
  if (request.path == "/style.css") return Send(connection, 200, kStyle, "text/css");
  if (request.path == "/icon.svg") return Send(connection, 200, kIcon, "image/svg+xml");
  if (request.path == "/page.js") return Send(connection, 200, kScript, "text/javascript");
  return Refuse(connection, 404, "there is nothing here");
}

MHD_Result PageServer::AnswerForm(MHD_Connection* connection, const Request& request) {
  if (request.path != "/control") return Refuse(connection, 404, "there is no such form");
  if (request.bytes > kMostFormBytes) return Refuse(connection, 413, "the form is too large");
  const Form form(request.body);
  const std::string refusal = guard_.RefusalOfForm(AskedBy(connection), form.Get("token"));
  if (!refusal.empty()) return Refuse(connection, 403, refusal);
  const PageAnswer answer = handlers_.form(form);
  return Send(connection, answer.status, answer.html);
}

MHD_Result PageServer::AnswerEvents(MHD_Connection* connection) {
  const std::string refusal = guard_.RefusalOfEvents(AskedBy(connection));
  if (!refusal.empty()) return Refuse(connection, 403, refusal);
  auto stream = std::make_unique<Stream>();
  stream->server = this;
  if (++streams_ > kMostStreams) {
    --streams_;
    return Refuse(connection, 503, "too many browsers take the events; close some");
  }
  const ResponsePtr response(
      MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, kHeadBytes, &OnStream, stream.get(),
                                        &OnStreamEnd),
      &::MHD_destroy_response);
  if (!response) {
    --streams_;
    return MHD_NO;
  }
  (void)stream.release();  // OnStreamEnd's.
  AddHeaders(response.get(), "text/event-stream");
  return MHD_queue_response(connection, MHD_HTTP_OK, response.get());
}

bool PageServer::WaitForNext() {
  std::unique_lock<std::mutex> lock(mutex_);
  return !end_cv_.wait_for(lock, kEvery, [this] { return ends_; });
}

ssize_t PageServer::OnStream(void* given, uint64_t, char* buffer, size_t most_bytes) {
  auto* const stream = static_cast<Stream*>(given);
  try {
    if (stream->sent == stream->event.size()) {
      const bool is_first = !std::exchange(stream->has_begun, true);
      if (!is_first && !stream->server->WaitForNext()) return MHD_CONTENT_READER_END_OF_STREAM;
      stream->event = EventOf(stream->server->handlers_.event());
      stream->sent = 0;
    }
  } catch (const std::exception&) {
    return MHD_CONTENT_READER_END_WITH_ERROR;
  }
  const size_t bytes = std::min(most_bytes, stream->event.size() - stream->sent);
  std::memcpy(buffer, stream->event.data() + stream->sent, bytes);
  stream->sent += bytes;
  return static_cast<ssize_t>(bytes);
}

void PageServer::OnStreamEnd(void* given) {
  auto* const stream = static_cast<Stream*>(given);
  --stream->server->streams_;
  delete stream;
}

}  // namespace quenor::collector
