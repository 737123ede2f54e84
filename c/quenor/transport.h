/* A network stack of the host's in place of the library's own HTTP client, chosen at run time. C99,
 * C++98.
 *
 *   static int start(void* context, const quenor_request* request) {
 *     ... copy what is needed, begin the exchange on a thread or loop of your own ...
 *     return 0;
 *   }
 *   ... and when the answer has come, from any thread:
 *   quenor_response response;
 *   QUENOR_INIT(&response);
 *   response.status_code = 200;
 *   response.body = body;
 *   response.body_size = body_size;
 *   quenor_answer(id, &response);
 *
 * What the stack owes: each request goes out once and follows no redirect; a response is a whole
 * one, its content coding undone by nobody; a proxy that is named is used or nothing is sent.
 */
#ifndef QUENOR_TRANSPORT_H_
#define QUENOR_TRANSPORT_H_

#include "quenor/reporter.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Borrowed by start() until it returns. The library may append fields: `size` says what is there.
 */
typedef struct quenor_request {
  size_t size;
  uint64_t id; /* Never used twice in a process; for quenor_answer() and cancel(). */
  const char* method;
  const char* url; /* "https://..." or "http://...". */
  const quenor_header* headers;
  size_t header_count;
  const void* body;
  size_t body_size;
  uint32_t timeout_ms; /* Of the whole exchange; the library keeps this limit itself, too. */
  int http2;           /* Whether HTTP/2 is wanted, where the server speaks it. */
  /* A SOCKS5 proxy, which resolves the names, too; null: none. */
  const char* proxy_host;
  uint16_t proxy_port;
  const char* proxy_user; /* Null: without authentication. */
  const char* proxy_password;
} quenor_request;

typedef struct quenor_response {
  size_t size;
  int status_code; /* 100 to 999; 0 with a `reason`. */
  const quenor_header* headers;
  size_t header_count;
  const void* body;
  size_t body_size;
  /* The exchange failed, and there is no whole response: why, in a word as quenor_update's `reason`
   * has it. One that is none of these counts as "other". Null: there is a response. */
  const char* reason;
} quenor_response;

typedef struct quenor_transport {
  size_t size;
  /* Begins an exchange and answers 0, after which quenor_answer() is to be called once, from any
   * thread, or from here; else it cannot be begun, and nobody waits for it. On a reporter's thread,
   * which waits: it must not block. */
  int (*start)(void* context, const quenor_request* request);
  /* Nobody waits for this exchange any more: its time is over, or its reporter has stopped. An
   * answer may still be given, and is ignored. May be null. */
  void (*cancel)(void* context, uint64_t id);
  void* context; /* Must live as long as the process. */
} quenor_transport;

/* Has all requests of the process go through `transport`, which is copied; null: through the
 * library's own client again. Before the first reporter of the process is created: QUENOR_STOPPED
 * afterwards. QUENOR_BAD_ARGUMENT without a start(). The options that are the own client's
 * (`ca_file`, `client_certificate_file`, `client_key_file`) are then refused by quenor_create(),
 * and what quenor/network.h sets by it. Once the process's exit handlers run, nothing of it is
 * called any more. */
QUENOR_API quenor_error quenor_set_transport(const quenor_transport* transport);

/* Ends the exchange `id`; a null `response`: it failed, nobody knows why. Copies what it
 * is given. Any thread; once for each exchange, what comes after that is ignored. */
QUENOR_API quenor_error quenor_answer(uint64_t id, const quenor_response* response);

#ifdef __cplusplus
}
#endif

#endif /* QUENOR_TRANSPORT_H_ */
