// HttpClient on libcurl: one I/O thread and one multi handle serve every client of the process, so
// that all of them share connections. Both start with the first request and are never destroyed.
// Threads: a client's own thread prepares a request and queues it; the I/O thread, "quenor-http",
// drives libcurl and runs the callbacks. Everything that two threads see is under Engine's lock.
// See docs/design/http-client.md.
#include <curl/curl.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/crypto.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "quenor_base/platform/base/exception_barrier.h"
#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/base/thread_create_flag.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/local_log.h"
#include "services/http_client_curl/address.h"
#include "services/http_client_curl/connection_linux.h"
#include "services/http_client_curl/easy_options.h"
#include "services/http_client_curl/failure_text.h"
#include "services/http_client_curl/rules/defaults_check.h"
#include "services/http_client_curl/rules/syntax.h"
#include "services/http_client_curl/sockets_linux.h"

#if LIBCURL_VERSION_NUM < 0x075700
#error "libcurl 7.87 or newer is needed"
#endif

QUENOR_NAMESPACE_BEGIN
namespace {

using http_header_text::EqualsNoCase;
using http_header_text::IsFieldValue;
using http_header_text::IsToken;
using http_header_text::LowerAscii;

constexpr char kLogFile[] = "services/http_client_curl/client";
constexpr char kInClient[] = "quenor's HTTP client";
constexpr int kLogError = 2;
constexpr int64_t kLogPauseMs = 60 * 1000;
constexpr size_t kLogCauses = 64;      // Remembered for the pause; beyond, the oldest is forgotten.
constexpr size_t kIdleTransfers = 64;  // Kept for reuse with their easy handles.
constexpr long kIdleConnections = 32;  // Kept open, over all hosts.
constexpr long kNameCacheSeconds = 5;  // A server that has moved is found with the next attempts.
// A connection that was idle for less is looked at before it is used again, whether its server has
// closed it. Past this it is replaced: many a balancer forgets it after 60 s without a word.
constexpr long kIdleReuseSeconds = 50;
constexpr int64_t kExitWaitMs = 5000;
constexpr int kWatchMs = 250;              // How often the watch looks at the I/O thread.
constexpr uint64_t kFloodBytes = 1 << 20;  // What no answer brings within one step of that thread.
constexpr uint32_t kKeptReceiveBytes = 4096;  // A receive buffer up to this size is recycled.
constexpr int kFruitlessRounds = 16;          // Then the I/O thread pauses: 1 ms, 2 ms, ...
constexpr int kSpinPauseMs = 10;              // ... up to this.
constexpr int kPollFailurePauseMs = 100;
constexpr long kMaxUploadBuffer = 64 << 10;
constexpr int kLookAgainMs = 10;  // How long a request may be forgotten beside an idle connection.
constexpr int64_t kNever = INT64_MAX;

// ---- One exchange -------------------------------------------------------------------------------

// What is known of one exchange. Everything here begins anew with the next one.
struct Exchange {
  int64_t started_ms = 0;
  int64_t deadline_ms = 0;
  size_t active_index = 0;
  Line* line = nullptr;  // That it has a place in or waits for; null: libcurl does the queueing.

  // What has arrived.
  uint32_t size_bytes = 0;
  uint64_t header_bytes = 0;
  uint32_t header_lines = 0;
  bool headers_complete = false;       // Of the final answer.
  HttpLimit limit = HttpLimit::kNone;  // That ended it.
  bool whole_early = false;            // The response was whole before the request was.

  // What has moved, to tell progress from spinning.
  curl_off_t body_bytes_moved = 0;
  bool under_way = false;       // Has been given a connection.
  bool is_written = false;      // Something of the request went out after its first piece.
  bool repeat_refused = false;  // libcurl wanted to send again what had gone out already.

  // How it ended.
  HttpClient::State state = HttpClient::State::kFailed;
  CURLcode code = CURLE_OK;
  long verify_result = 0;
  char error[CURL_ERROR_SIZE] = {};
};

// A request on its way, with an easy handle that it keeps from one request to the next. Belongs to
// the thread that prepares it, then to the I/O thread.
struct Transfer : Exchange {
  Transfer() = default;
  ~Transfer() {
    std::free(bytes);
    curl_slist_free_all(own_headers);
    curl_easy_cleanup(easy);
  }
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  CURL* easy = nullptr;
  int64_t configured_serial = 0;  // Whose options the handle carries.
  std::string posted_url;         // Where to, when the last request was a plain POST; else empty.
  std::shared_ptr<ClientSettings> client;
  HttpClient::Request request;
  HttpClient::CompletionCallback callback;
  curl_slist* own_headers = nullptr;
  std::unique_ptr<HttpClient::Response> response;
  uint8_t* bytes = nullptr;  // malloc; kept for the next body.
  uint32_t capacity_bytes = 0;

  // Borrowed from the Io.
  uint64_t* progress = nullptr;
  HttpSockets* sockets = nullptr;  // What the handle's options name.
  http_connection::HangUps* hang_ups = nullptr;
};

// Makes room for `more` bytes after those that arrived; false beyond the cap or without memory.
bool ReserveBody(Transfer* transfer, uint64_t more) {
  const uint64_t cap = transfer->client->defaults.max_response_body_bytes;
  const uint64_t needed = transfer->size_bytes + more;
  if (needed > cap) {
    transfer->limit = HttpLimit::kBody;
    return false;
  }
  if (needed <= transfer->capacity_bytes) return true;
  const uint64_t grown = std::max<uint64_t>(needed, transfer->capacity_bytes * uint64_t{2});
  const uint64_t capacity = std::min<uint64_t>(std::max<uint64_t>(grown, 512), cap);
  void* bytes = std::realloc(transfer->bytes, capacity);
  if (bytes == nullptr) return false;
  transfer->bytes = static_cast<uint8_t*>(bytes);
  transfer->capacity_bytes = static_cast<uint32_t>(capacity);
  return true;
}

size_t OnBodyBytes(char* data, size_t, size_t size, void* user) {
  Transfer* transfer = static_cast<Transfer*>(user);
  if (transfer->size_bytes == 0) {
    curl_off_t announced = -1;
    curl_easy_getinfo(transfer->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    if (announced > 0 && !ReserveBody(transfer, static_cast<uint64_t>(announced))) return 0;
  }
  if (!ReserveBody(transfer, size)) return 0;
  std::memcpy(transfer->bytes + transfer->size_bytes, data, size);
  transfer->size_bytes += static_cast<uint32_t>(size);
  return size;
}

// One whole line: a status line, a header, the empty line after them, or a trailer. What they say
// is asked of libcurl when all have come.
size_t OnHeaderLine(char* data, size_t, size_t size, void* user) {
  Transfer* transfer = static_cast<Transfer*>(user);
  ++*transfer->progress;
  transfer->header_bytes += size;
  if (transfer->header_bytes > transfer->client->defaults.max_response_header_bytes) {
    transfer->limit = HttpLimit::kHeaders;
  } else if (++transfer->header_lines > kMaxHeaderLines) {
    transfer->limit = HttpLimit::kHeaderLines;
  }
  if (transfer->limit != HttpLimit::kNone) return 0;
  if (data[0] != '\r' && data[0] != '\n') return size;
  // An interim answer (1xx) is followed by another.
  long status = 0;
  curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &status);
  transfer->headers_complete = transfer->headers_complete || status >= 200;
  return size;
}

// The headers of the final answer, and its trailers; not those of interim answers, nor of one that
// libcurl gave up to ask again in HTTP/1.1, as the server told it.
void TakeHeaders(Transfer* transfer) {
  curl_header* header = nullptr;
  while ((header = curl_easy_nextheader(transfer->easy, CURLH_HEADER | CURLH_TRAILER,
                                        /*the last request*/ -1, header)) != nullptr) {
    std::string name = header->name;
    for (char& c : name) c = LowerAscii(c);
    std::string value = header->value;
    if (value == "\r") value.clear();  // How libcurl gives an empty one.
    auto [entry, is_new] = transfer->response->headers.try_emplace(std::move(name), value);
    if (!is_new) entry->second.append(", ").append(value);
  }
}

// Whether a server has reset the HTTP/2 stream to be asked in HTTP/1.1, the one repeat of libcurl's
// that is right: it leaves the code's name behind or, on a new connection, goes on after this.
bool IsAskedForHttp1(const Transfer& transfer) {
  return std::strstr(transfer.error, "HTTP_1_1_REQUIRED") != nullptr ||
         std::strcmp(transfer.error, "Empty reply from server") == 0;
}

// Whether libcurl is about to send again a request of which something has gone out. It does so on
// each connection that is left, when a kept one closes before an answer: one report would reach the
// server six times, and its sender would count one.
bool MustNotRepeat(Transfer* transfer) {
  long head_bytes = 0;
  curl_easy_getinfo(transfer->easy, CURLINFO_REQUEST_SIZE, &head_bytes);
  if (head_bytes == 0 && !transfer->is_written) return false;
  transfer->repeat_refused = !IsAskedForHttp1(*transfer);
  return transfer->repeat_refused;
}

// The request is about to go out: it waits for no connection any more.
int OnUnderWay(void* user, char*, char*, int, int) {
  Transfer* transfer = static_cast<Transfer*>(user);
  if (MustNotRepeat(transfer)) return CURL_PREREQFUNC_ABORT;
  // Nothing of an answer that was given up, and no leave for another repeat.
  transfer->error[0] = '\0';
  transfer->size_bytes = 0;
  transfer->headers_complete = false;
  transfer->under_way = true;
  return CURL_PREREQFUNC_OK;
}

// Called at every step of a transfer. A server may answer before it has read the whole body and
// then reset the HTTP/2 stream; libcurl goes on offering the rest until a time limit passes. So an
// exchange whose response is whole ends here.
int OnProgress(void* user, curl_off_t, curl_off_t down, curl_off_t up_total, curl_off_t up) {
  Transfer* transfer = static_cast<Transfer*>(user);
  if (up > 0) transfer->is_written = true;
  if (down + up != transfer->body_bytes_moved) {
    transfer->body_bytes_moved = down + up;
    ++*transfer->progress;
  }
  if (up >= up_total || !transfer->headers_complete) return 0;
  long version = 0;
  long status = 0;
  curl_off_t announced = -1;
  curl_easy_getinfo(transfer->easy, CURLINFO_HTTP_VERSION, &version);
  curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_getinfo(transfer->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
  transfer->whole_early = version == CURL_HTTP_VERSION_2_0 && status >= 200 && announced >= 0 &&
                          static_cast<curl_off_t>(transfer->size_bytes) == announced;
  return transfer->whole_early ? 1 : 0;
}

curl_socket_t OpenSocket(void* user, curlsocktype, curl_sockaddr* address) {
  Transfer* transfer = static_cast<Transfer*>(user);
  if (MustNotRepeat(transfer)) return CURL_SOCKET_BAD;
  const int fd = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (fd < 0) return CURL_SOCKET_BAD;
  transfer->sockets->Add(fd);
  transfer->hang_ups->Watch(fd);
  return fd;
}

int CloseSocket(void* user, curl_socket_t fd) { return static_cast<HttpSockets*>(user)->Close(fd); }

// Gives the handle all options that are the same for every request of the client.
bool ConfigureForClient(Transfer* transfer, const ClientSettings& client) {
  const HttpDefaults& defaults = client.defaults;
  curl_easy_reset(transfer->easy);
  transfer->posted_url.clear();
  transfer->sockets = nullptr;
  EasyOptions options(transfer->easy);
  options.Set(CURLOPT_NOSIGNAL, 1L);
  options.Set(CURLOPT_QUICK_EXIT, 1L);  // A cancelled request does not wait for its name lookup.
  options.Set(CURLOPT_PRIVATE, transfer);
  options.Set(CURLOPT_ERRORBUFFER, transfer->error);
  options.Set(CURLOPT_WRITEFUNCTION, &OnBodyBytes);
  options.Set(CURLOPT_WRITEDATA, transfer);
  options.Set(CURLOPT_HEADERFUNCTION, &OnHeaderLine);
  options.Set(CURLOPT_HEADERDATA, transfer);
  options.Set(CURLOPT_XFERINFOFUNCTION, &OnProgress);
  options.Set(CURLOPT_XFERINFODATA, transfer);
  options.Set(CURLOPT_NOPROGRESS, 0L);
  options.Set(CURLOPT_PREREQFUNCTION, &OnUnderWay);
  options.Set(CURLOPT_PREREQDATA, transfer);
  options.Set(CURLOPT_OPENSOCKETFUNCTION, &OpenSocket);
  options.Set(CURLOPT_OPENSOCKETDATA, transfer);
  options.Set(CURLOPT_CLOSESOCKETFUNCTION, &CloseSocket);
  options.Set(CURLOPT_PROTOCOLS_STR, "http,https");
  options.Set(CURLOPT_FOLLOWLOCATION, 0L);
  options.Set(CURLOPT_ACCEPT_ENCODING, nullptr);
  options.Set(CURLOPT_HTTP_CONTENT_DECODING, 0L);
  options.Set(CURLOPT_TCP_NODELAY, 1L);
  options.Set(CURLOPT_TCP_KEEPALIVE, 1L);
  options.Set(CURLOPT_MAXAGE_CONN, kIdleReuseSeconds);
  options.Set(CURLOPT_DNS_CACHE_TIMEOUT, kNameCacheSeconds);
  options.Set(CURLOPT_USERAGENT, defaults.user_agent.c_str());
  options.Set(CURLOPT_CONNECTTIMEOUT_MS,
              static_cast<long>(std::min<uint32_t>(defaults.connect_timeout_ms, INT_MAX)));
  options.Set(CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(defaults.low_speed_bytes_per_second));
  options.Set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(defaults.low_speed_seconds));
  options.Set(CURLOPT_PIPEWAIT, client.http2 ? 1L : 0L);
  options.Set(CURLOPT_HTTP_VERSION,
              static_cast<long>(client.http2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
  SetProxyOptions(client, &options);
  SetTlsOptions(client, &options);
  transfer->configured_serial = options.all_taken() ? client.serial : 0;
  return options.all_taken();
}

// A body may be sent with any method but HEAD; these announce one even when it is empty.
bool SendsBody(const HttpClient::Request& request) {
  return request.body.size() > 0 || request.method == "POST" || request.method == "PUT" ||
         request.method == "PATCH";
}

// libcurl allocates its upload buffer whole, however little goes through it.
long UploadBufferBytes(uint32_t body_bytes) {
  constexpr long kHeadBytes = 4096;  // Sent from the same buffer, together with a small body.
  return std::min<long>(kMaxUploadBuffer, kHeadBytes + static_cast<long>(body_bytes));
}

// Borrows the bytes until the exchange has ended.
void SetBody(const CopyOnWriteBuffer& body, EasyOptions* options) {
  const char* bytes = body.cdata<char>();
  options->Set(CURLOPT_POSTFIELDS, bytes == nullptr ? "" : bytes);
  options->Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  options->Set(CURLOPT_UPLOAD_BUFFERSIZE, UploadBufferBytes(body.size()));
}

// Gives the handle what belongs to this request; the body's bytes are borrowed until it has ended.
bool ConfigureForRequest(Transfer* transfer) {
  const HttpClient::Request& request = transfer->request;
  EasyOptions options(transfer->easy);
  const bool plain_post = request.method == "POST" && request.headers.empty();
  if (plain_post && transfer->posted_url == request.url) {  // As the last: only the body differs.
    SetBody(request.body, &options);
    return options.all_taken();
  }
  transfer->posted_url.clear();
  options.Set(CURLOPT_URL, request.url.c_str());
  const bool sends_body = SendsBody(request);
  // The order matters: each of these also sets the method, which the last line then names.
  if (sends_body) {
    options.Set(CURLOPT_NOBODY, 0L);
    options.Set(CURLOPT_POST, 1L);
    SetBody(request.body, &options);
  } else {
    options.Set(CURLOPT_POSTFIELDS, nullptr);
    options.Set(CURLOPT_HTTPGET, 1L);
    options.Set(CURLOPT_NOBODY, request.method == "HEAD" ? 1L : 0L);
  }
  const bool implied = request.method == (sends_body ? "POST" : "GET") || request.method == "HEAD";
  options.Set(CURLOPT_CUSTOMREQUEST, implied ? nullptr : request.method.c_str());
  curl_slist* headers = sends_body ? transfer->client->body_headers : nullptr;
  if (!request.headers.empty()) {
    if (!BuildHeaders(request.headers, sends_body, &transfer->own_headers)) return false;
    headers = transfer->own_headers;
  }
  options.Set(CURLOPT_HTTPHEADER, headers);
  if (plain_post && options.all_taken()) transfer->posted_url = request.url;
  return options.all_taken();
}

// The whole body out of a finished transfer. A small one is copied, so that the receive buffer
// stays for the next; a large one is handed over. False without memory.
bool TakeBody(Transfer* transfer, CopyOnWriteBuffer* body) {
  const uint32_t size = transfer->size_bytes;
  if (transfer->capacity_bytes <= kKeptReceiveBytes) {
    *body = CopyOnWriteBuffer(transfer->bytes, size);
  } else {
    std::unique_ptr<uint8_t[], void (*)(void*)> array(transfer->bytes, &std::free);
    const uint32_t capacity = transfer->capacity_bytes;
    transfer->bytes = nullptr;
    transfer->capacity_bytes = 0;
    *body = CopyOnWriteBuffer(std::move(array), size, capacity);
  }
  return body->size() == size;
}

// Sets the state of an exchange that failed, and the words for a limit that ended it.
void EndByLimit(Transfer* transfer) {
  transfer->state = HttpClient::State::kFailed;
  if (transfer->limit == HttpLimit::kNone) return;
  transfer->state = transfer->limit < HttpLimit::kBody ? HttpClient::State::kTimedOut
                                                       : HttpClient::State::kTooLarge;
  std::snprintf(
      transfer->error, sizeof(transfer->error), "%s",
      LimitText(transfer->limit, transfer->client->defaults, transfer->request.timeout_ms).c_str());
}

// Decides the state from libcurl's result and completes the response.
void Conclude(Transfer* transfer, CURLcode code) {
  if (code == CURLE_ABORTED_BY_CALLBACK && transfer->whole_early) code = CURLE_OK;
  if (transfer->repeat_refused) {
    code = CURLE_GOT_NOTHING;
    std::snprintf(transfer->error, sizeof(transfer->error),
                  "the connection was closed, or the request refused, before an answer");
  }
  transfer->code = code;
  curl_easy_getinfo(transfer->easy, CURLINFO_SSL_VERIFYRESULT, &transfer->verify_result);
  if (code == CURLE_OK) {
    long status = 0;
    curl_easy_getinfo(transfer->easy, CURLINFO_RESPONSE_CODE, &status);
    transfer->response->status_code = static_cast<int>(status);
    // libcurl takes an end within the headers, or after an interim answer, for a whole response.
    if (!transfer->headers_complete) {
      transfer->code = CURLE_PARTIAL_FILE;
    } else if (!TakeBody(transfer, &transfer->response->body)) {
      transfer->code = CURLE_OUT_OF_MEMORY;
    } else {
      TakeHeaders(transfer);
      transfer->state = HttpClient::State::kCompleted;
      return;
    }
  }
  // A header line beyond libcurl's own limit ends as "out of memory" while headers arrive.
  curl_off_t first_byte_us = 0;
  curl_easy_getinfo(transfer->easy, CURLINFO_STARTTRANSFER_TIME_T, &first_byte_us);
  const bool endless_line =
      code == CURLE_OUT_OF_MEMORY && first_byte_us > 0 && !transfer->headers_complete;
  if (endless_line) transfer->limit = HttpLimit::kHeaders;
  if (transfer->limit == HttpLimit::kNone && code == CURLE_OPERATION_TIMEDOUT) {
    // One of libcurl's own: it counts either until or after the connection stands.
    transfer->limit = transfer->under_way ? HttpLimit::kLowSpeed : HttpLimit::kConnect;
  }
  EndByLimit(transfer);
}

// Empties the transfer for its next request. No lock held: this frees what the host gave.
void Clear(Transfer* transfer) {
  transfer->callback.Reset();
  transfer->client.reset();
  transfer->request.body = CopyOnWriteBuffer();
  transfer->request.headers.clear();
  curl_slist_free_all(transfer->own_headers);
  transfer->own_headers = nullptr;
  // Setting the size frees the buffer, which a request on a shared HTTP/2 connection leaves behind.
  curl_easy_setopt(transfer->easy, CURLOPT_UPLOAD_BUFFERSIZE, kMaxUploadBuffer);
  transfer->response.reset();
  static_cast<Exchange&>(*transfer) = Exchange();
  if (transfer->capacity_bytes > kKeptReceiveBytes) {
    std::free(transfer->bytes);
    transfer->bytes = nullptr;
    transfer->capacity_bytes = 0;
  }
}

// ---- What a log says ----------------------------------------------------------------------------

// Remembers what was logged when. Guarded by the engine's lock.
class LogPauses {
 public:
  // True when the cause was not logged within the last minute; it then counts as logged now.
  bool MayLog(const std::string& cause, int64_t now_ms) {
    auto oldest = logged_.begin();
    for (auto it = logged_.begin(); it != logged_.end(); ++it) {
      if (it->cause == cause) {
        if (now_ms - it->at_ms < kLogPauseMs) return false;
        it->at_ms = now_ms;
        return true;
      }
      if (it->at_ms < oldest->at_ms) oldest = it;
    }
    if (logged_.size() >= kLogCauses) logged_.erase(oldest);
    logged_.push_back({cause, now_ms});
    return true;
  }

 private:
  struct Logged {
    std::string cause;
    int64_t at_ms;
  };
  std::vector<Logged> logged_;
};

// ---- The engine ---------------------------------------------------------------------------------

// The I/O thread and what it works on. Made by the first request, never destroyed; a forked child
// makes its own.
struct Io {
  Io() = default;
  ~Io() {
    if (wake_fd >= 0) close(wake_fd);
    if (multi != nullptr) curl_multi_cleanup(multi);
  }
  Io(const Io&) = delete;
  Io& operator=(const Io&) = delete;

  // The thread has come back from the host's code in a forked child: nothing of this is there.
  bool IsParents() const { return generation != base::ForkGeneration(); }

  const uint32_t generation = base::ForkGeneration();
  CURLM* multi = nullptr;
  int wake_fd = -1;  // An eventfd: cheaper to write and to empty than libcurl's own pair.

  // Guarded by the engine's lock.
  std::vector<Transfer*> submitted;
  std::vector<Transfer*> idle;
  std::vector<Transfer*> waiting;        // For a place in their lines; the oldest first.
  int64_t waiting_deadline_ms = kNever;  // None of them has an earlier one.
  int64_t sleep_until_ms = kNever;       // While `sleeping`.
  bool any_closed = false;               // A client was destroyed since the I/O thread last looked.
  bool sleeping = false;  // The I/O thread waits, or is about to, and nobody has woken it yet.
  bool working = false;   // The I/O thread is inside libcurl's transfers, and so OpenSSL.
  uint64_t steps = 0;     // How often it has gone there.
  bool watched = false;   // The watch runs.
  int forks = 0;          // How many wait or are under way: they come before another step.
  bool parked = false;    // The process ends: no more transfers, no more callbacks.
  // Signalled when `working` or a fork ends, or `told`.
  pthread_cond_t work_done;
  const ClientSettings* told = nullptr;  // Whose callback runs with a success ...
  pthread_t told_on{};                   // ... and on which thread.

  // I/O thread only.
  std::vector<Transfer*> starting;
  std::vector<Transfer*> active;  // In the multi handle; each knows its index.
  std::vector<Transfer*> finished;
  std::vector<Transfer*> surplus;
  HttpSockets sockets;
  http_connection::HangUps hang_ups;
  bool any_hung_up = false;           // One of the sockets may be.
  int64_t next_deadline_ms = kNever;  // No active transfer's deadline is earlier.
  uint32_t host_connections = 0;      // As last set in the multi handle.
  uint64_t progress = 0;              // Counts whatever moved.
  uint64_t progress_at_wait = 0;
  bool look_again = false;   // A connection may have become free unnoticed.
  int fruitless_rounds = 0;  // Sleeps in a row that ended at once and brought nothing.
};

// Any thread, without the lock. Cannot fail: the counter never comes near its limit.
void WakeUp(const Io& io) {
  const uint64_t one = 1;
  (void)!write(io.wake_fd, &one, sizeof(one));
}

// libcurl opens its wake-up pair without close-on-exec and does not give it away. It is known by
// what it does: with every wake-up one byte more waits at one end and more is on its way from the
// other. Where /proc is not mounted, the pair stays as it is.
void SetWakeUpPairCloseOnExec(CURLM* multi) {
  DIR* folder = opendir("/proc/self/fd");
  if (folder == nullptr) return;
  struct Candidate {
    int fd, waiting, leaving;
    bool is_reader, is_writer;
  };
  std::vector<Candidate> candidates;
  while (const dirent* entry = readdir(folder)) {
    const int fd = std::atoi(entry->d_name);
    sockaddr_storage address;
    socklen_t length = sizeof(address);
    if (entry->d_name[0] == '.' || fd == dirfd(folder)) continue;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) continue;
    if (address.ss_family == AF_UNIX) candidates.push_back({fd, 0, 0, true, true});
  }
  closedir(folder);
  for (int round = 0; round < 4; ++round) {
    for (Candidate& c : candidates) {
      int waiting = 0;
      int leaving = 0;
      if (ioctl(c.fd, FIONREAD, &waiting) != 0) waiting = 0;
      if (ioctl(c.fd, SIOCOUTQ, &leaving) != 0) leaving = 0;
      c.is_reader = c.is_reader && (round == 0 || waiting == c.waiting + 1);
      c.is_writer = c.is_writer && (round == 0 || leaving > c.leaving);
      c.waiting = waiting;
      c.leaving = leaving;
    }
    curl_multi_wakeup(multi);
  }
  for (const Candidate& c : candidates) {
    if (c.is_reader || c.is_writer) fcntl(c.fd, F_SETFD, FD_CLOEXEC);
  }
}

class Engine {
 public:
  // Any thread. The process's engine; never null, never destroyed. BeforeFork() asks for it, too: a
  // fork that finds another thread in here waits for it.
  static Engine* Get() {
    static Engine* const engine = new Engine;
    return engine;
  }

  // Any thread. An empty transfer with an easy handle, for the caller to fill; null when the I/O
  // thread, memory or libcurl cannot be had.
  Transfer* Acquire() QUENOR_EXCLUDES(lock_);
  // Any thread. Takes back a transfer that was not submitted.
  void GiveBack(Transfer* transfer) QUENOR_EXCLUDES(lock_);
  // Any thread. Hands the transfer to the I/O thread.
  void Submit(Transfer* transfer) QUENOR_EXCLUDES(lock_);
  // Any thread. Cancels what the client has sent.
  void Close(ClientSettings* client) QUENOR_EXCLUDES(lock_);
  // Any thread. As LogPauses::MayLog().
  bool MayLog(const std::string& cause) QUENOR_EXCLUDES(lock_) {
    base::AutoLock hold(lock_);
    return log_pauses_.MayLog(cause, base::MonotonicMs());
  }

  // `identity` may be null.
  HttpDefaults GetDefaults(std::shared_ptr<const ClientIdentity>* identity) QUENOR_EXCLUDES(lock_) {
    base::AutoLock hold(lock_);
    if (identity != nullptr) *identity = identity_;
    return defaults_;
  }
  void SetDefaults(HttpDefaults defaults, std::shared_ptr<const ClientIdentity> identity)
      QUENOR_EXCLUDES(lock_) {
    base::AutoLock hold(lock_);
    std::swap(defaults_, defaults);
    std::swap(identity_, identity);
  }
  // True once in the process.
  bool MayWarnOfPlainHttp() QUENOR_EXCLUDES(lock_) {
    base::AutoLock hold(lock_);
    return !std::exchange(warned_of_plain_http_, true);
  }
  int64_t NextSerial() QUENOR_EXCLUDES(lock_) {
    base::AutoLock hold(lock_);
    return ++last_serial_;
  }
  // The last URL that any client found usable: most report to the same server, and libcurl's parser
  // takes 5 KiB of stack, which each of their threads would keep for good.
  bool IsGoodUrl(const std::string& url) QUENOR_EXCLUDES(lock_) {
    base::AutoLock hold(lock_);
    return !good_url_.empty() && good_url_ == url;
  }
  void SetGoodUrl(const std::string& url) QUENOR_EXCLUDES(lock_) {
    base::AutoLock hold(lock_);
    good_url_ = url;
  }

 private:
  Engine() = default;

  // Life cycle.
  Io* EnsureIo(std::string* problem) QUENOR_REQUIRES(lock_);
  bool StartLibcurl(std::string* problem) QUENOR_REQUIRES(lock_);
  static int StartThread(void* (*run)(void*), Io* io);
  static void* ThreadMain(void* io);
  static void* WatchMain(void* io);
  static void AtExit();
  static void BeforeFork();
  static void AfterForkInParent();
  static void AfterForkInChild();
  // When the library is loaded, so that a fork waits however early in the first request it comes.
  inline static const base::ForkHandlers fork_handlers_{&BeforeFork, &AfterForkInParent,
                                                        &AfterForkInChild};

  // I/O thread.
  void Run(Io* io);
  void StayWhileParked(Io* io) QUENOR_REQUIRES(lock_);
  void BeWatched(Io* io) QUENOR_REQUIRES(lock_);
  void BeginWork(Io* io) QUENOR_EXCLUDES(lock_);
  void EndWork(Io* io) QUENOR_EXCLUDES(lock_);
  void StartSubmitted(Io* io) QUENOR_EXCLUDES(lock_);
  void LeaveLine(Io* io, Transfer* transfer) QUENOR_EXCLUDES(lock_);
  using IsDue = bool (*)(const Transfer&, int64_t now_ms);
  void TakeWaiting(Io* io, IsDue is_due, int64_t now_ms) QUENOR_EXCLUDES(lock_);
  void CancelClosed(Io* io) QUENOR_EXCLUDES(lock_);
  void ExpireDeadlines(Io* io) QUENOR_EXCLUDES(lock_);
  void ExpireWaiting(Io* io, int64_t now_ms) QUENOR_EXCLUDES(lock_);
  void CollectFinished(Io* io) QUENOR_EXCLUDES(lock_);
  void Finish(Io* io, Transfer* transfer) QUENOR_EXCLUDES(lock_);
  void CutBadConnection(Io* io, const Transfer& transfer);
  void CloseHungUp(Io* io);
  void Report(Io* io) QUENOR_EXCLUDES(lock_);
  void DecideState(Io* io, Transfer* transfer) QUENOR_REQUIRES(lock_);
  void RunCallback(const Io& io, Transfer* transfer) QUENOR_EXCLUDES(lock_);
  void LogFailure(const Transfer& transfer) QUENOR_EXCLUDES(lock_);
  void Wait(Io* io) QUENOR_EXCLUDES(lock_);

  // The watch's thread.
  void Watch(Io* io) QUENOR_EXCLUDES(lock_);

  base::Lock lock_;
  Io* io_ QUENOR_GUARDED_BY(lock_) = nullptr;
  Io* parents_io_ QUENOR_GUARDED_BY(lock_) = nullptr;  // In a forked child: never touched again.
  bool libcurl_ready_ QUENOR_GUARDED_BY(lock_) = false;
  bool exit_handled_ QUENOR_GUARDED_BY(lock_) = false;  // AtExit() is registered.
  bool exiting_ QUENOR_GUARDED_BY(lock_) = false;       // AtExit() has run, or can no more.
  int64_t last_serial_ QUENOR_GUARDED_BY(lock_) = 0;
  LogPauses log_pauses_ QUENOR_GUARDED_BY(lock_);
  bool warned_of_plain_http_ QUENOR_GUARDED_BY(lock_) = false;
  HttpDefaults defaults_ QUENOR_GUARDED_BY(lock_);
  std::shared_ptr<const ClientIdentity> identity_ QUENOR_GUARDED_BY(lock_) =
      std::make_shared<const ClientIdentity>();
  std::string good_url_ QUENOR_GUARDED_BY(lock_);
};

// ---- Engine: life cycle -------------------------------------------------------------------------

// Another thread may be in exit() already, or get there meanwhile. OpenSSL would free at exit what
// it has, by a handler that it registers in the middle of its start; so it is told to leave that to
// the system. If the host has started it before, its handler stands, and ours runs first: exit
// handlers run last come, first served, and what comes during an exit does so, too. From here on
// an exit waits for this start, because its handler needs the lock.
bool Engine::StartLibcurl(std::string* problem) {
  if (libcurl_ready_) return true;
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  if (!exit_handled_ && std::atexit(&Engine::AtExit) != 0) {
    exiting_ = true;  // The last handler has run.
    return false;
  }
  exit_handled_ = true;
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
    *problem = "libcurl cannot be initialised";
    return false;
  }
  libcurl_ready_ = true;
  return true;
}

Io* Engine::EnsureIo(std::string* problem) {
  if (io_ != nullptr) return io_;
  if (exiting_ || !StartLibcurl(problem)) return nullptr;
  std::unique_ptr<Io> io(new Io);
  io->multi = curl_multi_init();
  if (io->multi == nullptr) {
    *problem = "libcurl has no memory";
    return nullptr;
  }
  curl_multi_setopt(io->multi, CURLMOPT_MAXCONNECTS, kIdleConnections);
  io->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (io->wake_fd < 0 || !io->hang_ups.Open()) {
    *problem = "no descriptors are left";
    return nullptr;
  }
  SetWakeUpPairCloseOnExec(io->multi);
  base::InitMonotonicCondition(&io->work_done);
  if (const int error = StartThread(&Engine::ThreadMain, io.get()); error != 0) {
    *problem = std::string("the I/O thread cannot be started: ") + std::strerror(error);
    pthread_cond_destroy(&io->work_done);
    return nullptr;
  }
  io_ = io.release();
  return io_;
}

int Engine::StartThread(void* (*run)(void*), Io* io) {
  // The thread is born with every signal blocked: none of the host's is handled on it, and a write
  // to a dead connection, which OpenSSL does without MSG_NOSIGNAL, leaves SIGPIPE pending there.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread;
  const int error = pthread_create(&thread, nullptr, run, io);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (error == 0) pthread_detach(thread);
  return error;
}

void* Engine::ThreadMain(void* io) {
  pthread_setname_np(pthread_self(), "quenor-http");
  base::ThreadCreateFlag::SetThreadCreateByQuenor(true);
  base::EndOnException(kInClient, [io] { Get()->Run(static_cast<Io*>(io)); });
  return nullptr;
}

void* Engine::WatchMain(void* io) {
  pthread_setname_np(pthread_self(), "quenor-watch");
  base::ThreadCreateFlag::SetThreadCreateByQuenor(true);
  base::EndOnException(kInClient, [io] { Get()->Watch(static_cast<Io*>(io)); });
  return nullptr;
}

// Before whatever else ends with the process takes away what a live TLS session needs, the I/O
// thread stops going there, and no further callback starts. Waits for the step that it is in, which
// never waits for the network; the limit is there for a machine that has stopped running us, not
// for a slow step.
void Engine::AtExit() {
  Engine* engine = Get();
  base::AutoLock hold(engine->lock_);
  engine->exiting_ = true;
  Io* io = engine->io_;
  if (io == nullptr) return;
  io->parked = true;
  pthread_cond_broadcast(&io->work_done);
  const timespec until = base::MonotonicTimeIn(kExitWaitMs);
  while (io->working) {
    if (pthread_cond_timedwait(&io->work_done, engine->lock_.native_handle(), &until) != 0) return;
  }
}

// A fork happens while the I/O thread is outside libcurl and nobody holds the lock, so that the
// child finds OpenSSL's and our own state whole.
void Engine::BeforeFork() QUENOR_NO_THREAD_SAFETY_ANALYSIS {
  Engine* engine = Get();
  engine->lock_.Acquire();
  Io* io = engine->io_;
  if (io == nullptr) return;
  ++io->forks;
  while (io->working && !io->parked) {
    pthread_cond_wait(&io->work_done, engine->lock_.native_handle());
  }
}

void Engine::AfterForkInParent() QUENOR_NO_THREAD_SAFETY_ANALYSIS {
  Engine* engine = Get();
  if (engine->io_ != nullptr) {
    --engine->io_->forks;
    pthread_cond_broadcast(&engine->io_->work_done);
  }
  engine->lock_.Release();
}

// The I/O thread exists in the parent only: the child forgets the parent's requests and connections
// and starts its own with its first request.
void Engine::AfterForkInChild() QUENOR_NO_THREAD_SAFETY_ANALYSIS {
  Engine* engine = Get();
  if (engine->io_ != nullptr) engine->parents_io_ = engine->io_;
  engine->io_ = nullptr;
  engine->lock_.Release();
}

// ---- Engine: doors ------------------------------------------------------------------------------

Transfer* Engine::Acquire() {
  std::string problem;
  {
    base::AutoLock hold(lock_);
    Io* io = EnsureIo(&problem);
    if (io == nullptr && exiting_) return nullptr;
    if (io != nullptr && !io->idle.empty()) {
      Transfer* transfer = io->idle.back();
      io->idle.pop_back();
      return transfer;
    }
  }
  if (problem.empty()) {
    std::unique_ptr<Transfer> transfer(new Transfer);
    transfer->easy = curl_easy_init();
    if (transfer->easy != nullptr) return transfer.release();
    problem = "libcurl has no memory";
  }
  if (MayLog(problem)) {
    LocalLog(kLogError, kLogFile, __LINE__,
             "http: cannot send: %s; raise the limit or use less of it", problem.c_str());
  }
  return nullptr;
}

void Engine::GiveBack(Transfer* transfer) {
  Clear(transfer);
  transfer->configured_serial = 0;
  base::AutoLock hold(lock_);
  io_->idle.push_back(transfer);
}

// The line of a client for the server of `url`. The engine's lock is held.
Line* FindLine(ClientSettings* client, const std::string& url) {
  const size_t path = url.find('/', url.find("://") + 3);
  const size_t length = std::min(path, url.size());
  for (const std::unique_ptr<Line>& line : client->lines) {
    if (line->server.size() == length && url.compare(0, length, line->server) == 0) {
      return line.get();
    }
  }
  client->lines.push_back(std::make_unique<Line>());
  client->lines.back()->server = url.substr(0, length);
  return client->lines.back().get();
}

// Gives the transfer a place in its line, or none. The engine's lock is held.
bool EnterLine(Transfer* transfer) {
  ClientSettings* client = transfer->client.get();
  if (client->http2) return true;
  transfer->line = FindLine(client, transfer->request.url);
  if (transfer->line->inside >= client->defaults.max_connections_per_host) return false;
  ++transfer->line->inside;
  return true;
}

void Engine::Submit(Transfer* transfer) {
  Io* io;
  {
    base::AutoLock hold(lock_);
    io = io_;
    if (transfer->client->used_io != io) transfer->client->lines.clear();  // A parent's.
    transfer->client->used_io = io;
    const bool entered = EnterLine(transfer);
    if (entered) {
      io->submitted.push_back(transfer);
    } else {
      io->waiting.push_back(transfer);
      io->waiting_deadline_ms = std::min(io->waiting_deadline_ms, transfer->deadline_ms);
    }
    // One that waits has nothing for the I/O thread to do before its time limit.
    if (!io->sleeping || (!entered && transfer->deadline_ms >= io->sleep_until_ms)) return;
    io->sleeping = false;
  }
  WakeUp(*io);
}

void Engine::Close(ClientSettings* client) {
  base::AutoLock hold(lock_);
  // release: pairs with the acquire loads on the I/O thread.
  client->closed.store(true, std::memory_order_release);
  Io* io = io_;
  if (io == nullptr || client->used_io != io) return;
  io->any_closed = true;
  if (std::exchange(io->sleeping, false)) WakeUp(*io);
  // Nobody hears of success once this has returned. The callback itself may be who closes.
  while (io->told == client && !io->parked && !pthread_equal(io->told_on, pthread_self())) {
    pthread_cond_wait(&io->work_done, lock_.native_handle());
  }
}

// ---- Engine: I/O thread -------------------------------------------------------------------------

void Engine::Run(Io* io) {
  for (;;) {
    BeginWork(io);
    for (Transfer* transfer : io->surplus) delete transfer;
    io->surplus.clear();
    StartSubmitted(io);
    int running = 0;
    curl_multi_perform(io->multi, &running);
    CollectFinished(io);
    ExpireDeadlines(io);
    EndWork(io);
    // libcurl gives a connection that has become free to a request that waits for one, and may
    // forget the timer that would have it look at that request: it looks at all of them when asked.
    // One that goes to a new connection, because its own has died, is not known to wait.
    io->look_again = !io->finished.empty() && !io->active.empty();
    const auto waits = [](const Transfer* transfer) { return !transfer->under_way; };
    const bool at_once = io->look_again && std::any_of(io->active.begin(), io->active.end(), waits);
    Report(io);
    if (io->IsParents()) return;
    CloseHungUp(io);
    if (!at_once) Wait(io);
  }
}

// Once the process ends, the I/O thread does not come back from here.
void Engine::StayWhileParked(Io* io) {
  while (io->parked) pthread_cond_wait(&io->work_done, lock_.native_handle());
}

// Without a thread nobody watches, until there is one for a later step.
void Engine::BeWatched(Io* io) {
  if (!io->watched) io->watched = StartThread(&Engine::WatchMain, io) == 0;
}

void Engine::BeginWork(Io* io) {
  bool any_closed;
  {
    base::AutoLock hold(lock_);
    while (io->forks > 0) pthread_cond_wait(&io->work_done, lock_.native_handle());
    StayWhileParked(io);
    BeWatched(io);
    io->working = true;
    ++io->steps;
    io->sleeping = false;
    any_closed = io->any_closed;
    io->any_closed = false;
    io->starting.swap(io->submitted);
  }
  if (any_closed) CancelClosed(io);
}

void Engine::EndWork(Io* io) {
  base::AutoLock hold(lock_);
  io->working = false;
  pthread_cond_broadcast(&io->work_done);
}

void Engine::StartSubmitted(Io* io) {
  for (Transfer* transfer : io->starting) {
    const HttpDefaults& defaults = transfer->client->defaults;
    if (io->host_connections != defaults.max_connections_per_host) {
      io->host_connections = defaults.max_connections_per_host;
      const long connections = static_cast<long>(io->host_connections);
      curl_multi_setopt(io->multi, CURLMOPT_MAX_HOST_CONNECTIONS, connections);
      // With fewer, connections of one busy host would be closed and opened again all the time.
      curl_multi_setopt(io->multi, CURLMOPT_MAXCONNECTS, std::max(kIdleConnections, connections));
    }
    transfer->progress = &io->progress;
    if (transfer->sockets != &io->sockets) {
      transfer->sockets = &io->sockets;
      transfer->hang_ups = &io->hang_ups;
      curl_easy_setopt(transfer->easy, CURLOPT_CLOSESOCKETDATA, &io->sockets);
    }
    ++io->progress;
    transfer->response.reset(new HttpClient::Response);
    // acquire: pairs with the release in Close().
    const bool closed = transfer->client->closed.load(std::memory_order_acquire);
    if (closed || curl_multi_add_handle(io->multi, transfer->easy) != CURLM_OK) {
      transfer->code = CURLE_OUT_OF_MEMORY;
      LeaveLine(io, transfer);
      io->finished.push_back(transfer);
      continue;
    }
    transfer->active_index = io->active.size();
    io->active.push_back(transfer);
    io->next_deadline_ms = std::min(io->next_deadline_ms, transfer->deadline_ms);
  }
  io->starting.clear();
}

// Whether the exchange ended because its connection is of no more use, to other HTTP/2 streams too.
bool BrokeItsConnection(const Transfer& transfer) {
  return transfer.state == HttpClient::State::kFailed &&
         (transfer.code == CURLE_RECV_ERROR || transfer.code == CURLE_SEND_ERROR ||
          transfer.code == CURLE_HTTP2);
}

// Whether an exchange that began before `before_ms` is on the connection of this socket.
bool IsUsed(const Io& io, int fd, int64_t before_ms) {
  const HttpEnds ends = EndsOf(fd);
  return std::any_of(io.active.begin(), io.active.end(), [&](const Transfer* transfer) {
    return transfer->under_way && transfer->started_ms < before_ms &&
           http_connection::EndsOf(transfer->easy) == ends;
  });
}

// Takes the transfer from libcurl; its callback is due. An HTTP/1.1 connection in mid-exchange
// closes, an HTTP/2 stream is reset.
void Engine::Finish(Io* io, Transfer* transfer) {
  curl_multi_remove_handle(io->multi, transfer->easy);
  if (transfer->state == HttpClient::State::kTimedOut ||
      transfer->state == HttpClient::State::kTooLarge || BrokeItsConnection(*transfer)) {
    CutBadConnection(io, *transfer);
  }
  Transfer* last = io->active.back();
  io->active[transfer->active_index] = last;
  last->active_index = transfer->active_index;
  io->active.pop_back();
  if (io->active.empty()) io->next_deadline_ms = kNever;
  LeaveLine(io, transfer);
  io->finished.push_back(transfer);
}

// The next of the line takes the transfer's place. A line in which nobody is left goes, unless it
// is the client's only one.
void Engine::LeaveLine(Io* io, Transfer* transfer) {
  Line* line = transfer->line;
  if (line == nullptr) return;
  base::AutoLock hold(lock_);
  transfer->line = nullptr;
  const auto next = std::find_if(io->waiting.begin(), io->waiting.end(),
                                 [line](const Transfer* other) { return other->line == line; });
  if (next != io->waiting.end()) {
    io->submitted.push_back(*next);
    io->waiting.erase(next);
    if (io->waiting.empty()) io->waiting_deadline_ms = kNever;
    return;
  }
  auto& lines = transfer->client->lines;
  if (--line->inside > 0 || lines.size() == 1) return;
  lines.erase(std::find_if(lines.begin(), lines.end(),
                           [line](const auto& other) { return other.get() == line; }));
}

// libcurl keeps an HTTP/2 connection after a stream on it has failed, and puts every further
// request there, the resent one first. Where the server has gone without a word, all of them would
// time out until the kernel gives the connection up, a quarter of an hour later; where it sends
// without end and heeds no reset, they would wait behind that. So a connection on which nothing
// arrived for half of a timed-out exchange, or too much, or nonsense, is cut, with whatever else
// waits on it. A server may just be slow: only the oldest exchange on it can find it silent.
void Engine::CutBadConnection(Io* io, const Transfer& transfer) {
  // An HTTP/1.1 connection has closed with its exchange.
  if (!transfer.client->http2 || !transfer.under_way) return;
  const bool timed_out = transfer.state == HttpClient::State::kTimedOut;
  const int64_t waited_ms = base::MonotonicMs() - transfer.started_ms;
  const HttpEnds ends = http_connection::EndsOf(transfer.easy);
  for (int fd : io->sockets.All()) {
    if (EndsOf(fd) != ends) continue;
    if (timed_out && http_connection::SilentMs(fd) < waited_ms / 2) continue;
    if (timed_out && IsUsed(*io, fd, transfer.started_ms)) continue;
    shutdown(fd, SHUT_RDWR);
  }
}

// libcurl closes a kept connection that its server has closed when it next looks for one, which may
// be never. The kernel's half is ended here.
void Engine::CloseHungUp(Io* io) {
  if (!io->any_hung_up) return;
  io->any_hung_up = false;
  for (int fd : io->sockets.All()) {
    if (!http_connection::IsHungUp(fd)) continue;
    if (IsUsed(*io, fd, kNever)) {
      io->any_hung_up =
          true;  // Its answer is still to be read: looked at again after the next step.
    } else {
      shutdown(fd, SHUT_RDWR);
    }
  }
}

// Once its connection is cut, libcurl takes a stream that was reset for a whole response. Only one
// with an announced length, which it counts, is believed.
bool EndedByCut(const Io& io, CURL* easy, CURLcode code) {
  curl_off_t announced = -1;
  if (code == CURLE_OK) curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
  return announced < 0 && io.sockets.WasCut(http_connection::EndsOf(easy));
}

void Engine::CollectFinished(Io* io) {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(io->multi, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    const CURLcode code = message->data.result;  // The message dies with the handle's removal.
    Transfer* transfer = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
    const bool is_flood = EndedByCut(*io, transfer->easy, code);
    if (is_flood) transfer->limit = HttpLimit::kFlood;
    Conclude(transfer, is_flood && code == CURLE_OK ? CURLE_RECV_ERROR : code);
    Finish(io, transfer);
  }
}

// The callbacks of those of the waiting ones that are due are to run next.
void Engine::TakeWaiting(Io* io, IsDue is_due, int64_t now_ms) {
  base::AutoLock hold(lock_);
  io->waiting_deadline_ms = kNever;
  size_t left = 0;
  for (Transfer* transfer : io->waiting) {
    if (is_due(*transfer, now_ms)) {
      io->finished.push_back(transfer);
      continue;
    }
    io->waiting[left++] = transfer;
    io->waiting_deadline_ms = std::min(io->waiting_deadline_ms, transfer->deadline_ms);
  }
  io->waiting.resize(left);
}

void Engine::CancelClosed(Io* io) {
  // Those that wait first, lest they take the places of the others. That they are cancelled is seen
  // when their callbacks run.
  const auto is_closed = [](const Transfer& transfer, int64_t) {
    // acquire: pairs with the release in Close().
    return transfer.client->closed.load(std::memory_order_acquire);
  };
  TakeWaiting(io, is_closed, 0);
  for (size_t i = io->active.size(); i-- > 0;) {
    Transfer* transfer = io->active[i];
    // acquire: pairs with the release in Close().
    if (transfer->client->closed.load(std::memory_order_acquire)) Finish(io, transfer);
  }
}

// The whole exchange's limit is kept here and not by libcurl, which does not count the time that a
// request waits for a connection.
void Engine::ExpireDeadlines(Io* io) {
  const int64_t now_ms = base::MonotonicMs();
  ExpireWaiting(io, now_ms);
  if (now_ms < io->next_deadline_ms) return;
  int64_t next_ms = kNever;
  for (size_t i = io->active.size(); i-- > 0;) {
    Transfer* transfer = io->active[i];
    if (transfer->deadline_ms > now_ms) {
      next_ms = std::min(next_ms, transfer->deadline_ms);
      continue;
    }
    transfer->limit = HttpLimit::kTotal;
    Conclude(transfer, CURLE_OPERATION_TIMEDOUT);
    Finish(io, transfer);
  }
  io->next_deadline_ms = next_ms;
}

void Engine::ExpireWaiting(Io* io, int64_t now_ms) {
  {
    base::AutoLock hold(lock_);
    if (now_ms < io->waiting_deadline_ms) return;
  }
  const size_t first = io->finished.size();
  const auto is_late = [](const Transfer& transfer, int64_t now) {
    return transfer.deadline_ms <= now;
  };
  TakeWaiting(io, is_late, now_ms);
  for (size_t i = first; i < io->finished.size(); ++i) {
    Transfer* transfer = io->finished[i];
    transfer->code = CURLE_OPERATION_TIMEDOUT;
    transfer->limit = HttpLimit::kWait;
    EndByLimit(transfer);
  }
}

// As long as the I/O thread is at work, and for a moment more. A step that lasts from one look to
// the next, and then reads as much as no answer brings, is a server that floods: its connection is
// cut, so that the thread comes back to time limits, other servers, fork() and exit.
void Engine::Watch(Io* io) {
  uint64_t seen = 0;     // The step that was last looked at ...
  bool is_long = false;  // ... and was going on at the look before, too.
  for (;;) {
    poll(nullptr, 0, kWatchMs);
    base::AutoLock hold(lock_);
    if (io->steps != seen) {
      seen = io->steps;
      is_long = false;
    } else if (!io->working) {
      io->watched = false;
      return;
    } else if (!is_long) {
      io->sockets.Mark();
      is_long = true;
    } else if (io->sockets.CutBusiest(kFloodBytes)) {
      is_long = false;
    }
  }
}

// Runs what is due, without the lock: a callback may send, create and destroy clients, and fork.
// It, or the log's sink, may return in the child, too: there this thread ends.
void Engine::Report(Io* io) {
  for (Transfer* transfer : io->finished) {
    {
      base::AutoLock hold(lock_);
      StayWhileParked(io);
      DecideState(io, transfer);
    }
    RunCallback(*io, transfer);
    if (io->IsParents()) return;
    Clear(transfer);
    base::AutoLock hold(lock_);
    if (io->told != nullptr) pthread_cond_broadcast(&io->work_done);
    io->told = nullptr;
    (io->idle.size() < kIdleTransfers ? io->idle : io->surplus).push_back(transfer);
  }
  io->finished.clear();
}

// The lock is held: from here on the client's destructor waits for a success that is told.
void Engine::DecideState(Io* io, Transfer* transfer) {
  // acquire: pairs with the release in Close().
  if (transfer->client->closed.load(std::memory_order_acquire)) {
    transfer->state = HttpClient::State::kCancelled;
  } else if (transfer->state == HttpClient::State::kCompleted) {
    io->told = transfer->client.get();
    io->told_on = pthread_self();
  }
}

void Engine::RunCallback(const Io& io, Transfer* transfer) {
  if (transfer->state != HttpClient::State::kCompleted &&
      transfer->state != HttpClient::State::kCancelled) {
    LogFailure(*transfer);
    if (io.IsParents()) return;
  }
  if (transfer->state != HttpClient::State::kCompleted) transfer->response.reset();
  if (!transfer->callback) return;
  base::EndOnException("an HTTP completion callback", [transfer] {
    std::move(transfer->callback)
        .Run(transfer->state, transfer->request, std::move(transfer->response));
  });
}

void Engine::LogFailure(const Transfer& transfer) {
  const std::string url = http_address::LoggableUrl(transfer.request.url);
  const HttpFailure failure{transfer.state, transfer.code, transfer.verify_result, transfer.error,
                            !transfer.client->proxy.empty()};
  const std::string cause = FailureCause(failure);
  if (!MayLog(url + '\n' + std::to_string(transfer.code) + '\n' +
              std::to_string(transfer.verify_result) + '\n' +
              std::to_string(static_cast<int>(transfer.limit)))) {
    return;
  }
  const bool is_post = transfer.request.method == "POST";
  LocalLog(kLogError, kLogFile, __LINE__, "http: cannot %s %s%s%s: %s; %s",
           is_post ? "post to" : ("send " + transfer.request.method + " to").c_str(), url.c_str(),
           transfer.client->proxy.empty() ? "" : " through ", transfer.client->proxy.c_str(),
           cause.c_str(), FailureAdvice(failure));
}

// Sleeps until a socket, a time limit or another thread needs the I/O thread; with none of them
// pending, for good.
void Engine::Wait(Io* io) {
  int64_t until_ms;
  {
    base::AutoLock hold(lock_);
    if (!io->submitted.empty() || io->any_closed || !io->surplus.empty()) return;
    io->sleeping = true;  // From here on whoever has something wakes this thread.
    until_ms = io->sleep_until_ms = std::min(io->next_deadline_ms, io->waiting_deadline_ms);
  }
  // While a server's HTTP/2 window is shut, libcurl waits for a socket that is always ready.
  if (io->progress != io->progress_at_wait) io->fruitless_rounds = 0;
  io->progress_at_wait = io->progress;
  if (io->fruitless_rounds > kFruitlessRounds) {
    poll(nullptr, 0, std::min(io->fruitless_rounds - kFruitlessRounds, kSpinPauseMs));
  }
  const int64_t before_ms = base::MonotonicMs();
  int timeout_ms = io->look_again ? kLookAgainMs : INT_MAX;
  if (until_ms != kNever) {
    const int64_t left_ms = std::max<int64_t>(until_ms - before_ms, 0);
    timeout_ms = static_cast<int>(std::min<int64_t>(left_ms, timeout_ms));
  }
  curl_waitfd wake[] = {{io->wake_fd, CURL_WAIT_POLLIN, 0},
                        {io->hang_ups.fd(), CURL_WAIT_POLLIN, 0}};
  if (curl_multi_poll(io->multi, wake, 2, timeout_ms, nullptr) != CURLM_OK) {
    poll(nullptr, 0, kPollFailurePauseMs);  // Out of memory or descriptors: not at full speed.
  }
  uint64_t wake_ups;
  if (wake[1].revents != 0) {
    io->hang_ups.Clear();
    io->any_hung_up = true;
  }
  if (wake[0].revents != 0) (void)!read(io->wake_fd, &wake_ups, sizeof(wake_ups));
  io->fruitless_rounds = base::MonotonicMs() - before_ms > 1 ? 0 : io->fruitless_rounds + 1;
}

// ---- The client ---------------------------------------------------------------------------------

class HttpClientCurl final : public HttpClient {
 public:
  explicit HttpClientCurl(std::shared_ptr<ClientSettings> settings)
      : settings_(std::move(settings)) {}
  ~HttpClientCurl() override { Engine::Get()->Close(settings_.get()); }

  int64_t SendRequest(const Request& request, CompletionCallback callback) override;

 private:
  int64_t StartRequest(const Request& request, CompletionCallback callback);
  // Empty when the request can be sent, else why not and what to do.
  std::string Problem(const Request& request) QUENOR_EXCLUDES(lock_);
  std::string UrlProblem(const std::string& url) QUENOR_EXCLUDES(lock_);

  const std::shared_ptr<ClientSettings> settings_;
  base::Lock lock_;
  std::string good_url_ QUENOR_GUARDED_BY(lock_);  // The last one that was found usable.
};

std::string HttpClientCurl::UrlProblem(const std::string& url) {
  {
    base::AutoLock hold(lock_);
    if (!good_url_.empty() && good_url_ == url) return std::string();
  }
  if (!Engine::Get()->IsGoodUrl(url)) {
    std::string problem = http_address::UrlProblem(url);
    if (!problem.empty()) return problem;
    Engine::Get()->SetGoodUrl(url);
  }
  if (http_address::IsUnencrypted(url)) {
    if (settings_->defaults.require_tls) {
      return "the URL is not encrypted and HttpDefaults::require_tls is set; give "
             "https://HOST[:PORT]/PATH";
    }
    const bool leaves = !settings_->proxy.empty() || !http_address::IsLoopback(url);
    if (leaves && Engine::Get()->MayWarnOfPlainHttp()) {
      LocalLog(kLogError, kLogFile, __LINE__,
               "http: requests to %s go out without encryption; give https://, and set "
               "HttpDefaults::require_tls to have others refused",
               http_address::LoggableUrl(url).c_str());
    }
  }
  base::AutoLock hold(lock_);
  good_url_ = url;
  return std::string();
}

std::string HttpClientCurl::Problem(const Request& request) {
  if (!IsToken(request.method) || request.method == "CONNECT") {
    return "the method is none that can be sent; give POST, GET, ...";
  }
  if (request.method == "HEAD" && request.body.size() > 0) {
    return "HEAD has no body; leave it empty";
  }
  for (const auto& [name, value] : request.headers) {
    if (!IsToken(name) || !IsFieldValue(value)) {
      return "a header's name or value holds a character that HTTP forbids; take it out";
    }
    if (EqualsNoCase(name, "content-length") || EqualsNoCase(name, "transfer-encoding")) {
      return "the header " + name + " is the client's own; take it out";
    }
  }
  return UrlProblem(request.url);
}

int64_t HttpClientCurl::SendRequest(const Request& request, CompletionCallback callback) {
  int64_t id = 0;
  base::EndOnException(kInClient, [&] { id = StartRequest(request, std::move(callback)); });
  return id;
}

int64_t HttpClientCurl::StartRequest(const Request& request, CompletionCallback callback) {
  Engine* engine = Engine::Get();
  const std::string problem = Problem(request);
  if (!problem.empty()) {
    if (engine->MayLog(problem)) {
      LocalLog(kLogError, kLogFile, __LINE__, "http: cannot send: %s", problem.c_str());
    }
    callback.Reset();
    return 0;
  }
  Transfer* transfer = engine->Acquire();
  if (transfer == nullptr) {
    callback.Reset();
    return 0;
  }
  transfer->client = settings_;
  transfer->request = request;
  const bool configured =
      transfer->configured_serial == settings_->serial || ConfigureForClient(transfer, *settings_);
  if (!configured || !ConfigureForRequest(transfer)) {
    engine->GiveBack(transfer);
    if (engine->MayLog("options")) {
      LocalLog(kLogError, kLogFile, __LINE__,
               "http: cannot send: libcurl refused an option; free memory, or use libcurl 7.87 or "
               "newer with TLS");
    }
    callback.Reset();
    return 0;
  }
  const int64_t id = NextRequestId();
  const uint32_t total_ms = settings_->defaults.total_timeout_ms;
  transfer->request.request_id = id;
  transfer->callback = std::move(callback);
  transfer->started_ms = base::MonotonicMs();
  transfer->deadline_ms =
      transfer->started_ms + (request.timeout_ms > 0 ? request.timeout_ms : total_ms);
  engine->Submit(transfer);
  return id;
}

std::unique_ptr<HttpClient> CreateClient(const HttpClient::Config& config) {
  Engine* engine = Engine::Get();
  const std::string problem = http_address::ProxyProblem(config);
  if (!problem.empty()) {
    if (engine->MayLog(problem)) {
      LocalLog(kLogError, kLogFile, __LINE__, "http: cannot make a client: %s", problem.c_str());
    }
    return nullptr;
  }
  std::shared_ptr<const ClientIdentity> identity;
  HttpDefaults defaults = http_defaults::InForce(engine->GetDefaults(&identity));
  auto settings = std::make_shared<ClientSettings>(config, std::move(defaults));
  settings->identity = std::move(identity);
  settings->serial = engine->NextSerial();
  settings->proxy = http_address::ProxyUrl(config);
  settings->http2 = config.enable_http2 && HasHttp2();
  for (const std::string& pin : settings->defaults.pinned_public_keys) {
    settings->pins += (settings->pins.empty() ? "" : ";") + pin;
  }
  if (!BuildHeaders({}, true, &settings->body_headers)) return nullptr;
  return std::make_unique<HttpClientCurl>(std::move(settings));
}

}  // namespace

std::unique_ptr<HttpClient> HttpClientFactory::Create(const HttpClient::Config& config) {
  std::unique_ptr<HttpClient> client;
  base::EndOnException(kInClient, [&] { client = CreateClient(config); });
  return client;
}

const char* HttpClientFactory::ImplementationName() {
  static std::atomic<std::string*> name{nullptr};
  const auto make = [] {
    const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
    std::string text = std::string("libcurl ") + info->version + " (";
    text += info->ssl_version != nullptr ? info->ssl_version : "no TLS";
    if (info->nghttp2_version != nullptr) text += std::string(", nghttp2/") + info->nghttp2_version;
    return new std::string(text + ")");
  };
  return base::FindOrMake(&name, make)->c_str();
}

std::string SetHttpDefaults(const HttpDefaults& defaults) {
  std::string problem;
  base::EndOnException(kInClient, [&] {
    auto identity = std::make_shared<ClientIdentity>();
    problem = http_defaults::Problem(defaults, identity.get());
    if (!problem.empty()) return;
    Engine::Get()->SetDefaults(http_defaults::InForce(defaults), std::move(identity));
  });
  return problem;
}

HttpDefaults GetHttpDefaults() {
  HttpDefaults defaults;
  base::EndOnException(
      kInClient, [&] { defaults = http_defaults::InForce(Engine::Get()->GetDefaults(nullptr)); });
  return defaults;
}

QUENOR_NAMESPACE_END
