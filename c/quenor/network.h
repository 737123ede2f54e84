/* The network that a host lives in: proxies, certificates, headers, limits, and what is spent. Of
 * the library's own HTTP client, for the whole process or for one origin. C99, C++98.
 *
 *   quenor_http http;
 *   QUENOR_INIT(&http);
 *   http.proxy_url = "http://proxy.example:3128";
 *   if (quenor_set_http(NULL, &http) != QUENOR_OK) { ... quenor_last_error() ... }
 *   ... then quenor_create() ...
 *
 * Beside quenor_options: a first reporter with `ca_file`, `client_certificate_file` or
 * `require_tls` replaces all that quenor_set_http(NULL, ...) has set; so leave them out there, or
 * set nothing for the process here. What is set for an origin holds before both. The options'
 * `proxy_host`, a SOCKS5 proxy, wins over `proxy_url`.
 * Beside quenor_set_transport(): a transport of the host's is not touched by any of this, so that
 * what could not take effect is refused; one that is set later makes it void.
 */
#ifndef QUENOR_NETWORK_H_
#define QUENOR_NETWORK_H_

#include "quenor/reporter.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What fresh_headers() adds to. */
typedef struct quenor_headers quenor_headers;

/* All is copied; null, 0 and no entries are the defaults. */
typedef struct quenor_http {
  size_t size;
  const char* ca_file;   /* PEM, instead of the system's, */
  const char* ca_folder; /* or a hashed folder, */
  const char* ca_pem;    /* or the text itself. */
  /* "sha256//BASE64" of the public keys that are accepted; none: each that is certified. */
  const char* const* pinned_public_keys;
  size_t pinned_public_key_count;
  const char* client_certificate_file; /* PEM, */
  const char* client_certificate_pem;  /* or the text itself. */
  const char* client_key_file;         /* Neither: in the certificate's file or text. */
  const char* client_key_pem;
  /* Of an encrypted key: writes it into `text`, which has room for `size` bytes, and answers how
   * many it has, or below 0 if there is none. Called inside quenor_set_http() and never again. */
  int (*key_passphrase)(void* context, char* text, size_t size);
  const char* user_agent;              /* Null: "quenor/VERSION". */
  uint32_t connect_timeout_ms;         /* 0: 15000. */
  uint32_t total_timeout_ms;           /* 0: 50000. */
  uint32_t low_speed_bytes_per_second; /* 0: 64. Slower than this */
  uint32_t low_speed_seconds;          /* for so long, 0: 20, is a failure. */
  uint32_t max_response_body_bytes;    /* 0: 1 MiB. */
  uint32_t max_response_header_bytes;  /* 0: 64 KiB; at most 256 KiB. */
  uint32_t max_connections_per_host;   /* 0: 6. */
  int require_tls;                     /* Refuses http://. */
  int close_idle_connections;          /* After each exchange. */
  const quenor_header* headers;        /* Sent with every request. */
  size_t header_count;
  /* Headers that change, as a token that expires does. Calls quenor_add_header() for each and
   * answers 0. Else the request is not sent now: its message keeps its place and is tried again.
   * Called for each request, on its reporter's thread, which waits: it must not block. */
  int (*fresh_headers)(void* context, quenor_headers* to);
  void* context; /* Of both functions; must live as long as fresh_headers() may be called. */
  /* "http://HOST:PORT", "https://HOST:PORT" or "socks5h://HOST:PORT". Never bypassed. */
  const char* proxy_url;
  const char* proxy_user; /* Basic or Digest, as the proxy asks for it. */
  const char* proxy_password;
  const char* proxy_ca_file;       /* Of an https:// proxy; null: as for the server. */
  const char* const* proxy_except; /* Names, addresses and networks that are reached without it. */
  size_t proxy_except_count;
  /* Those of https_proxy, http_proxy, all_proxy and no_proxy, as they are now; `proxy_url` wins. */
  int proxy_from_environment;
  const char* const* connect_to; /* "HOST:PORT:ADDRESS[:OTHER_PORT]": where HOST:PORT is. */
  size_t connect_to_count;
} quenor_http;

/* Has `settings`, all of them, hold for `origin` ("https://HOST[:PORT]"), from the next request on;
 * or, with a null `origin`, for all origins that have none of their own, from the next reporter on.
 * QUENOR_BAD_OPTION: quenor_last_error() names the field, and nothing has changed. Reads the files
 * that are named. Any thread. */
QUENOR_API quenor_error quenor_set_http(const char* origin, const quenor_http* settings);
/* Has the process's hold for `origin` again. 1: it had some of its own; else 0. */
QUENOR_API int quenor_reset_http(const char* origin);

/* Inside fresh_headers() only. Copies both. What HTTP forbids keeps the request from being sent. */
QUENOR_API quenor_error quenor_add_header(quenor_headers* to, const char* name, const char* value);
/* Before `fresh_headers` goes, as a host's code does that is unloaded: from here on no call of it
 * begins, and requests that need it are not sent. Answers how many calls of it still run; 0: it
 * may go. Does not wait. It may be set again. */
QUENOR_API size_t quenor_withdraw_fresh_headers(int (*fresh_headers)(void*, quenor_headers*));

/* The network may have changed, as the operating system tells a host: idle connections are closed,
 * and what waits for a connection is tried at once. Never waits. */
QUENOR_API void quenor_network_changed(void);
/* Watches for that by itself; 0: no longer. QUENOR_BAD_OPTION, and quenor_last_error(): it cannot.
 */
QUENOR_API quenor_error quenor_watch_network(int on);

/* Caps of what the process moves; 0: none. Over one a message keeps its place and waits. */
typedef struct quenor_thrift {
  size_t size;
  uint64_t bytes_per_second; /* On average; at most 1 GiB. */
  uint64_t bytes_per_day;    /* In no 24 hours more is begun; 16384 to 1 PiB. */
} quenor_thrift;

typedef struct quenor_spent {
  size_t size;
  uint64_t bytes;            /* Since the process began, capped or not. */
  uint64_t bytes_within_day; /* What counts for the day now. */
  uint64_t exchanges;
  uint64_t connections;
  uint64_t held_back; /* How often a request had to wait for a cap. */
} quenor_spent;

/* From the next request on. QUENOR_BAD_OPTION: quenor_last_error() names the field, and nothing has
 * changed. */
QUENOR_API quenor_error quenor_set_thrift(const quenor_thrift* thrift);
QUENOR_API quenor_error quenor_get_spent(quenor_spent* spent);

#ifdef __cplusplus
}
#endif

#endif /* QUENOR_NETWORK_H_ */
