/* A network stack of a host's: each request over a connection and on a thread of its own, which
 * waits. */
#define _GNU_SOURCE
#include "quenor/transport.h"

#include <arpa/inet.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

void use_own_transport(void);

typedef struct exchange {
  uint64_t id;
  struct sockaddr_in address;
  struct timeval patience;
  size_t size;
  char bytes[4096]; /* The request, then its answer. */
} exchange;

static void append(exchange* one, const void* bytes, size_t size) {
  if (one->size + size >= sizeof one->bytes) abort();
  memcpy(one->bytes + one->size, bytes, size);
  one->size += size;
}

static void append_text(exchange* one, const char* text) { append(one, text, strlen(text)); }

/* "http://127.0.0.1:8080/path" is all that it knows. */
static void write_request(exchange* one, const quenor_request* request) {
  char host[64], path[256], length[64];
  unsigned port;
  size_t i;
  if (sscanf(request->url, "http://%63[0-9.]:%u%255s", host, &port, path) != 3) abort();
  one->address.sin_family = AF_INET;
  one->address.sin_port = htons((uint16_t)port);
  inet_pton(AF_INET, host, &one->address.sin_addr);
  append_text(one, request->method);
  append_text(one, " ");
  append_text(one, path);
  append_text(one, " HTTP/1.1\r\nConnection: close\r\nHost: ");
  append_text(one, host);
  for (i = 0; i < request->header_count; ++i) {
    append_text(one, "\r\n");
    append_text(one, request->headers[i].name);
    append_text(one, ": ");
    append_text(one, request->headers[i].value);
  }
  snprintf(length, sizeof length, "\r\nContent-Length: %zu\r\n\r\n", request->body_size);
  append_text(one, length);
  append(one, request->body, request->body_size);
}

/* Whether the answer is there, up to the end of the connection. */
static int exchange_bytes(exchange* one) {
  const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ssize_t got = -1;
  setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &one->patience, sizeof one->patience);
  if (connect(connection, (struct sockaddr*)&one->address, sizeof one->address) == 0 &&
      send(connection, one->bytes, one->size, MSG_NOSIGNAL) == (ssize_t)one->size) {
    one->size = 0;
    while ((got = read(connection, one->bytes + one->size, sizeof one->bytes - 1 - one->size)) > 0)
      one->size += (size_t)got;
    one->bytes[one->size] = '\0';
  }
  close(connection);
  return got == 0;
}

/* Whether it is a whole one. */
static int read_response(exchange* one, quenor_response* response) {
  char* const end = strstr(one->bytes, "\r\n\r\n");
  const char* const length = strcasestr(one->bytes, "\r\nContent-Length:");
  if (end == NULL || length == NULL || length >= end) return 0;
  if (sscanf(one->bytes, "HTTP/1.1 %d", &response->status_code) != 1) return 0;
  response->body = end + 4;
  response->body_size = strtoul(length + strlen("\r\nContent-Length:"), NULL, 10);
  return one->bytes + one->size == end + 4 + response->body_size;
}

static void* answer(void* context) {
  exchange* const one = context;
  quenor_response response;
  int is_whole;
  QUENOR_INIT(&response);
  is_whole = exchange_bytes(one) && read_response(one, &response);
  quenor_answer(one->id, is_whole ? &response : NULL);
  free(one);
  return NULL;
}

static int start(void* context, const quenor_request* request) {
  exchange* const one = calloc(1, sizeof *one);
  pthread_t thread;
  (void)context;
  if (one == NULL) return 1;
  one->id = request->id;
  one->patience.tv_sec = request->timeout_ms / 1000;
  one->patience.tv_usec = request->timeout_ms % 1000 * 1000;
  write_request(one, request);
  if (pthread_create(&thread, NULL, answer, one) != 0) {
    free(one);
    return 1;
  }
  pthread_detach(thread);
  return 0;
}

void use_own_transport(void) {
  quenor_transport transport;
  QUENOR_INIT(&transport);
  transport.start = start;
  if (quenor_set_transport(&transport) != QUENOR_OK) abort();
}
