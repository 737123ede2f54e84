// One exchange: a request on its way, with an easy handle that it keeps from one request to the
// next, what has arrived of the answer, and how it ended. Internal to the HTTP client on libcurl.
// Threads: the one that prepares it, then the I/O thread, where libcurl calls back.
// See docs/design/http-client.md.
#ifndef SERVICES_HTTP_CLIENT_CURL_TRANSFER_H_
#define SERVICES_HTTP_CLIENT_CURL_TRANSFER_H_

#include <curl/curl.h>

#include <cstdint>
#include <memory>
#include <string>

#include "quenor_base/platform/http_client.h"
#include "services/http_client_curl/easy_options.h"
#include "services/http_client_curl/failure_text.h"
#include "services/http_client_curl/rules/lines.h"
#include "services/http_client_curl/rules/syntax.h"
#include "services/http_client_curl/sockets/connection_linux.h"
#include "services/http_client_curl/sockets/sockets_linux.h"
#include "services/http_client_curl/thrift/spending.h"

QUENOR_NAMESPACE_BEGIN
namespace http_engine {

// What the transfers of one I/O thread share.
struct Connections {
  HttpSockets sockets;
  http_connection::HangUps hang_ups;
  uint64_t progress = 0;  // Counts whatever moved.
};

// What is known of one exchange, beside its deadline and its line. Everything here begins anew with
// the next one.
struct Exchange : http_lines::Member {
  int64_t started_ms = 0;
  size_t active_index = 0;  // Among those that libcurl has.

  // What has arrived.
  uint32_t size_bytes = 0;
  uint64_t header_bytes = 0;
  uint32_t header_lines = 0;
  bool headers_complete = false;       // Of the final answer.
  HttpLimit limit = HttpLimit::kNone;  // That ended it.
  bool whole_early = false;            // The response was whole, and libcurl not at its end.
  int64_t whole_since_ms = 0;

  // What has moved, to tell progress from spinning.
  curl_off_t body_bytes_moved = 0;
  bool under_way = false;       // Has been given a connection.
  bool is_written = false;      // Something of the request went out after its first piece.
  long head_bytes_before = 0;   // That a proxy was sent before the request could go out.
  uint16_t socket_port = 0;     // Where the last new connection went; 0: there was none.
  bool repeat_refused = false;  // libcurl wanted to send again what had gone out already.

  // What it costs.
  uint64_t charged_bytes = 0;  // When it was taken.
  HttpMoved moved;             // When libcurl had done with it.

  // How it ended.
  HttpClient::State state = HttpClient::State::kFailed;
  CURLcode code = CURLE_OK;
  long verify_result = 0;
  char error[CURL_ERROR_SIZE] = {};
};

struct Transfer : Exchange {
  // Null without memory.
  static std::unique_ptr<Transfer> Create();
  ~Transfer();
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  // The thread that prepares it: copies the request and gives the handle its options. The body's
  // bytes are shared until the exchange has ended. False when libcurl refused an option.
  // `headers`, those of the request and of its settings where they change, are null when it has
  // none but what the settings have for all.
  bool Prepare(std::shared_ptr<ClientState> of, std::shared_ptr<const ClientSettings> by,
               const HttpClient::Request& to_send, const http_syntax::Headers* headers);

  // I/O thread, each of these. Before libcurl gets the handle: borrows what it may use until then.
  void Begin(Connections* of);
  // Decides the state from libcurl's result and completes the response.
  void Conclude(CURLcode result);
  // Notes what libcurl has moved for it since it was given the handle, or this was called.
  void CountMoved();
  // Its deadline passed before libcurl got it.
  void GiveUpWaiting();
  // How it ended; borrows from this.
  HttpFailure Failure() const;
  // Runs the callback, with the response if there is a whole one.
  void RunCallback();

  // Empties it for its next request. No lock held: this frees what the host gave.
  void Clear();

  // acquire: pairs with the release in Engine::Close().
  bool IsCancelled() const { return client->closed.load(std::memory_order_acquire); }

  CURL* easy = nullptr;
  CURLSH* share = nullptr;        // That the handle is in.
  int64_t configured_serial = 0;  // Whose options the handle carries.
  std::string posted_url;         // Where to, when the last request was a plain POST; else empty.
  std::shared_ptr<ClientState> client;
  std::shared_ptr<const ClientSettings> settings;
  HttpClient::Request request;
  HttpClient::CompletionCallback callback;
  curl_slist* own_headers = nullptr;
  std::unique_ptr<HttpClient::Response> response;
  uint8_t* bytes = nullptr;  // malloc; kept for the next body.
  uint32_t capacity_bytes = 0;
  Connections* connections = nullptr;  // What the handle's options name.

 private:
  Transfer() = default;
  bool ConfigureForSettings();
  bool ConfigureForRequest(const http_syntax::Headers* headers);
  bool TakeBody(CopyOnWriteBuffer* body);
  void TakeHeaders();
  void SetStateOfLimit();
  bool IsPastProxy() const;
};

// Of head and body; of headers that change, which a host is asked for late, nothing.
uint64_t ExpectedBytes(const HttpClient::Request& request, const HttpSettings& values);

}  // namespace http_engine
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_TRANSFER_H_
