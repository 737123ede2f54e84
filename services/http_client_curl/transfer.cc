#include "services/http_client_curl/transfer.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/exception_barrier.h"
#include "services/http_client_curl/address.h"
#include "services/http_client_curl/rules/proxy.h"
#include "services/http_client_curl/rules/syntax.h"

QUENOR_NAMESPACE_BEGIN
namespace http_engine {
namespace {

constexpr int64_t kMissedEndMs = 500;
constexpr uint32_t kKeptReceiveBytes = 4096;  // A receive buffer up to this size is recycled.
// What a TLS handshake moves, about: 2,760 bytes were measured with TLS 1.3 and two RSA
// certificates, 1,780 with two ECDSA ones, 724 when it was resumed; public ones are larger.
constexpr uint64_t kHandshakeBytes = 4096;

// Makes room for `more` bytes after those that arrived; false beyond the cap or without memory.
bool ReserveBody(Transfer* transfer, uint64_t more) {
  const uint64_t cap = transfer->settings->values().max_response_body_bytes;
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
  ++transfer->connections->progress;
  transfer->header_bytes += size;
  if (transfer->header_bytes > transfer->settings->values().max_response_header_bytes) {
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
  // What a proxy is asked for comes before, and counts, too.
  if (!transfer->under_way) transfer->head_bytes_before = head_bytes;
  if (head_bytes == transfer->head_bytes_before && !transfer->is_written) return false;
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

bool IsWholeOverHttp2(const Transfer& transfer) {
  long version = 0;
  long status = 0;
  curl_off_t announced = -1;
  curl_easy_getinfo(transfer.easy, CURLINFO_HTTP_VERSION, &version);
  if (!transfer.headers_complete || version != CURL_HTTP_VERSION_2_0) return false;
  curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_getinfo(transfer.easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
  return status >= 200 && announced >= 0 &&
         static_cast<curl_off_t>(transfer.size_bytes) == announced;
}

// Called at every step of a transfer, and once a second. A server may answer before it has read the
// whole body and then reset the HTTP/2 stream; libcurl goes on offering the rest until a time limit
// passes. So an exchange whose response is whole ends here. Once the body has gone out libcurl ends
// it, but may miss the end of a stream without a body: it has half a second, in which trailers
// come.
int OnProgress(void* user, curl_off_t, curl_off_t down, curl_off_t up_total, curl_off_t up) {
  Transfer* transfer = static_cast<Transfer*>(user);
  if (up > 0) transfer->is_written = true;
  if (down + up != transfer->body_bytes_moved) {
    transfer->body_bytes_moved = down + up;
    ++transfer->connections->progress;
  }
  if (!IsWholeOverHttp2(*transfer)) return 0;
  const int64_t now_ms = base::MonotonicMs();
  if (transfer->whole_since_ms == 0) transfer->whole_since_ms = now_ms;
  transfer->whole_early = up < up_total || now_ms - transfer->whole_since_ms >= kMissedEndMs;
  return transfer->whole_early ? 1 : 0;
}

curl_socket_t OpenSocket(void* user, curlsocktype, curl_sockaddr* address) {
  Transfer* transfer = static_cast<Transfer*>(user);
  if (MustNotRepeat(transfer)) return CURL_SOCKET_BAD;
  const int fd = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (fd < 0) return CURL_SOCKET_BAD;
  // At the same place for both families.
  transfer->socket_port = ntohs(reinterpret_cast<const sockaddr_in*>(&address->addr)->sin_port);
  transfer->connections->sockets.Add(fd);
  transfer->connections->hang_ups.Watch(fd);
  return fd;
}

int CloseSocket(void* user, curl_socket_t fd) { return static_cast<HttpSockets*>(user)->Close(fd); }

}  // namespace

std::unique_ptr<Transfer> Transfer::Create() {
  std::unique_ptr<Transfer> transfer(new Transfer);
  transfer->easy = curl_easy_init();
  if (transfer->easy == nullptr) return nullptr;
  return transfer;
}

Transfer::~Transfer() {
  std::free(bytes);
  curl_slist_free_all(own_headers);
  curl_easy_cleanup(easy);
}

// ---- Before -------------------------------------------------------------------------------------

bool Transfer::Prepare(std::shared_ptr<ClientState> of, std::shared_ptr<const ClientSettings> by,
                       const HttpClient::Request& to_send, const http_syntax::Headers* headers) {
  client = std::move(of);
  settings = std::move(by);
  request = to_send;
  if (configured_serial != settings->serial && !ConfigureForSettings()) return false;
  return ConfigureForRequest(headers);
}

// Gives the handle all options that are the same for every request by these settings.
bool Transfer::ConfigureForSettings() {
  curl_easy_reset(easy);
  posted_url.clear();
  connections = nullptr;
  EasyOptions options(easy);
  options.Set(CURLOPT_PRIVATE, this);
  options.Set(CURLOPT_ERRORBUFFER, error);
  options.Set(CURLOPT_WRITEFUNCTION, &OnBodyBytes);
  options.Set(CURLOPT_WRITEDATA, this);
  options.Set(CURLOPT_HEADERFUNCTION, &OnHeaderLine);
  options.Set(CURLOPT_HEADERDATA, this);
  options.Set(CURLOPT_XFERINFOFUNCTION, &OnProgress);
  options.Set(CURLOPT_XFERINFODATA, this);
  options.Set(CURLOPT_NOPROGRESS, 0L);
  options.Set(CURLOPT_PREREQFUNCTION, &OnUnderWay);
  options.Set(CURLOPT_PREREQDATA, this);
  options.Set(CURLOPT_OPENSOCKETFUNCTION, &OpenSocket);
  options.Set(CURLOPT_OPENSOCKETDATA, this);
  options.Set(CURLOPT_CLOSESOCKETFUNCTION, &CloseSocket);
  SetExchangeOptions(*settings, &options);
  SetProxyOptions(*settings, &options);
  SetTlsOptions(*settings, &options);
  configured_serial = options.all_taken() ? settings->serial : 0;
  return options.all_taken();
}

// Gives the handle what belongs to this request; the body's bytes are borrowed until it has ended.
bool Transfer::ConfigureForRequest(const http_syntax::Headers* headers) {
  EasyOptions options(easy);
  const bool plain_post = request.method == "POST" && headers == nullptr;
  if (plain_post && posted_url == request.url) {  // As the last: only the body differs.
    SetBody(request.body, &options);
    return options.all_taken();
  }
  posted_url.clear();
  std::string ascii;
  if (!http_address::AsciiUrl(request.url, &ascii).empty()) return false;
  options.Set(CURLOPT_URL, (ascii.empty() ? request.url : ascii).c_str());
  if (!settings->proxy.except.empty()) {
    options.Set(CURLOPT_NOPROXY,
                http_proxy::ExceptionsFor(request.url, settings->proxy, settings->proxy_exceptions)
                    .c_str());
  }
  const bool sends_body = http_syntax::SendsBody(request);
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
  if (headers != nullptr && !BuildHeaders(*headers, sends_body, &own_headers)) return false;
  options.Set(CURLOPT_HTTPHEADER, headers != nullptr ? own_headers
                                  : sends_body       ? settings->body_headers
                                                     : settings->plain_headers);
  if (plain_post && options.all_taken()) posted_url = request.url;
  return options.all_taken();
}

void Transfer::Begin(Connections* of) {
  if (connections != of) {
    connections = of;
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, &of->sockets);
  }
  ++of->progress;
  response.reset(new HttpClient::Response);
}

// ---- After --------------------------------------------------------------------------------------

// The whole body out of a finished transfer. A small one is copied, so that the receive buffer
// stays for the next; a large one is handed over. False without memory.
bool Transfer::TakeBody(CopyOnWriteBuffer* body) {
  if (capacity_bytes <= kKeptReceiveBytes) {
    *body = CopyOnWriteBuffer(bytes, size_bytes);
  } else {
    std::unique_ptr<uint8_t[], void (*)(void*)> array(bytes, &std::free);
    const uint32_t capacity = std::exchange(capacity_bytes, 0);
    bytes = nullptr;
    *body = CopyOnWriteBuffer(std::move(array), size_bytes, capacity);
  }
  return body->size() == size_bytes;
}

// The headers of the final answer, and its trailers; not those of interim answers, nor of one that
// libcurl gave up to ask again in HTTP/1.1, as the server told it.
void Transfer::TakeHeaders() {
  curl_header* header = nullptr;
  while ((header = curl_easy_nextheader(easy, CURLH_HEADER | CURLH_TRAILER,
                                        /*the last request*/ -1, header)) != nullptr) {
    std::string name = header->name;
    for (char& c : name) c = http_syntax::LowerAscii(c);
    std::string value = header->value;
    if (value == "\r") value.clear();  // How libcurl gives an empty one.
    auto [entry, is_new] = response->headers.try_emplace(std::move(name), std::move(value));
    if (!is_new) entry->second.append(", ").append(value);
  }
}

void Transfer::Conclude(CURLcode result) {
  if (whole_early) result = CURLE_OK;  // Whatever libcurl makes of being stopped there.
  if (repeat_refused) {
    result = CURLE_GOT_NOTHING;
    std::snprintf(error, sizeof(error),
                  "the connection was closed, or the request refused, before an answer");
  }
  code = result;
  curl_easy_getinfo(easy, CURLINFO_SSL_VERIFYRESULT, &verify_result);
  if (result == CURLE_OK) {
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    response->status_code = static_cast<int>(status);
    // libcurl takes an end within the headers, or after an interim answer, for a whole response.
    if (!headers_complete) {
      code = CURLE_PARTIAL_FILE;
    } else if (!TakeBody(&response->body)) {
      code = CURLE_OUT_OF_MEMORY;
    } else {
      TakeHeaders();
      state = HttpClient::State::kCompleted;
      return;
    }
  }
  // A header line beyond libcurl's own limit ends as "out of memory" while headers arrive.
  curl_off_t first_byte_us = 0;
  curl_easy_getinfo(easy, CURLINFO_STARTTRANSFER_TIME_T, &first_byte_us);
  const bool endless_line = result == CURLE_OUT_OF_MEMORY && first_byte_us > 0 && !headers_complete;
  if (endless_line) limit = HttpLimit::kHeaders;
  if (limit == HttpLimit::kNone && result == CURLE_OPERATION_TIMEDOUT) {
    // One of libcurl's own: it counts either until or after the connection stands.
    limit = under_way ? HttpLimit::kLowSpeed : HttpLimit::kConnect;
  }
  SetStateOfLimit();
}

uint64_t ExpectedBytes(const HttpClient::Request& request, const HttpSettings& values) {
  constexpr uint64_t kRestOfHead = 120;
  uint64_t bytes = kRestOfHead + request.method.size() + request.url.size() +
                   values.user_agent.size() + request.body.size();
  for (const http_syntax::Headers* headers : {&values.headers, &request.headers}) {
    for (const auto& [name, value] : *headers) bytes += name.size() + value.size() + 4;
  }
  return bytes;
}

void Transfer::CountMoved() {
  long sent_at_first = 0;
  long response_heads = 0;
  long connections_made = 0;
  curl_off_t up = 0;
  curl_off_t down = 0;
  curl_off_t connected_us = 0;
  curl_easy_getinfo(easy, CURLINFO_REQUEST_SIZE, &sent_at_first);
  curl_easy_getinfo(easy, CURLINFO_HEADER_SIZE, &response_heads);
  curl_easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &up);
  curl_easy_getinfo(easy, CURLINFO_SIZE_DOWNLOAD_T, &down);
  curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &connections_made);
  curl_easy_getinfo(easy, CURLINFO_CONNECT_TIME_T, &connected_us);
  moved.was_begun = true;
  // What libcurl counts as the request is its head, a proxy's too, and as much of the body as went
  // out with it, which is in `up` again.
  if (sent_at_first > 0) {
    const uint64_t head = ExpectedBytes(request, settings->values()) - request.body.size();
    moved.bytes += std::max(static_cast<uint64_t>(sent_at_first), static_cast<uint64_t>(up) + head);
  }
  moved.bytes += static_cast<uint64_t>(response_heads + down);
  // One that was refused, say, moved next to nothing.
  if (connected_us == 0) return;
  moved.connections += static_cast<uint32_t>(connections_made);
  if (settings->is_encrypted) {
    moved.bytes += static_cast<uint64_t>(connections_made) * kHandshakeBytes;
  }
}

void Transfer::GiveUpWaiting() {
  code = CURLE_OPERATION_TIMEDOUT;
  limit = HttpLimit::kWait;
  SetStateOfLimit();
}

// Of an exchange that failed; with the words for the limit that ended it, if one did.
void Transfer::SetStateOfLimit() {
  state = HttpClient::State::kFailed;
  if (limit == HttpLimit::kNone) return;
  state = limit < HttpLimit::kBody ? HttpClient::State::kTimedOut : HttpClient::State::kTooLarge;
  std::snprintf(error, sizeof(error), "%s",
                LimitText(limit, settings->values(), request.timeout_ms).c_str());
}

// Past the proxy, as what the host excepts goes: libcurl does not tell, but where it connected to.
bool Transfer::IsPastProxy() const {
  const std::string& url = settings->proxy.url;
  if (url.empty() || socket_port == 0) return false;
  return std::atoi(url.c_str() + (url.rfind(':') + 1)) != socket_port;
}

HttpFailure Transfer::Failure() const {
  HttpFailure failure;
  failure.state = state;
  failure.code = code;
  failure.limit = limit;
  failure.verify_result = verify_result;
  failure.error = error;
  failure.proxy = IsPastProxy() ? "" : settings->proxy.url.c_str();
  failure.under_way = under_way;
  curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &failure.os_error);
  curl_easy_getinfo(easy, CURLINFO_PROXY_ERROR, &failure.proxy_error);
  curl_easy_getinfo(easy, CURLINFO_HTTP_CONNECTCODE, &failure.connect_status);
  if (response != nullptr) failure.status = response->status_code;
  return failure;
}

void Transfer::RunCallback() {
  if (state != HttpClient::State::kCompleted) response.reset();
  if (!callback) return;
  request.reason = ReasonOf(Failure());
  const auto run = [this] { std::move(callback).Run(state, request, std::move(response)); };
  base::EndOnException("an HTTP completion callback", run);
}

void Transfer::Clear() {
  callback.Reset();
  client.reset();
  settings.reset();
  request.body = CopyOnWriteBuffer();
  request.headers.clear();
  curl_slist_free_all(own_headers);
  own_headers = nullptr;
  FreeUploadBuffer(easy);
  response.reset();
  static_cast<Exchange&>(*this) = Exchange();
  if (capacity_bytes > kKeptReceiveBytes) {
    std::free(bytes);
    bytes = nullptr;
    capacity_bytes = 0;
  }
}

}  // namespace http_engine
QUENOR_NAMESPACE_END
