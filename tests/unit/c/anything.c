/* Calls everything of the C interface in any order, from eight threads, with good and with bad
 * arguments. usage: anything SECONDS SEED FOLDER; it ends with 0, or crashes. The seed names each
 * thread's calls, not their order among the threads. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "quenor/network.h"
#include "quenor/transport.h"

enum { kThreads = 8, kShared = 3, kCallsBetweenLooks = 64 };

static const char* folder;
static time_t until;

/* A reporter, as its callbacks find it: they may run before it is known, and while it is destroyed.
 */
typedef struct place {
  pthread_mutex_t mutex;
  quenor_reporter* reporter;
} place;

static place shared_places[kShared];

static quenor_reporter* find(place* where) {
  quenor_reporter* found;
  if (where == NULL) return NULL; /* The options ended before it. */
  pthread_mutex_lock(&where->mutex);
  found = where->reporter;
  pthread_mutex_unlock(&where->mutex);
  return found;
}

static void put(place* where, quenor_reporter* reporter) {
  pthread_mutex_lock(&where->mutex);
  where->reporter = reporter;
  pthread_mutex_unlock(&where->mutex);
}

typedef struct thread_state {
  uint64_t random;
  int number;
  unsigned long calls;
  place own;
} thread_state;

static uint32_t next(thread_state* state, uint32_t below) {
  state->random ^= state->random << 13;
  state->random ^= state->random >> 7;
  state->random ^= state->random << 17;
  return (uint32_t)(state->random >> 16) % below;
}

static const char* text(thread_state* state) {
  static const char* const texts[] = {
      NULL,          "",        "a",        "..",  "https://collector.example/reports",
      "http://",     "://",     "ftp://a/", "a/b", "/nowhere",
      "http://[::1", "\xff\xfe"};
  return texts[next(state, sizeof texts / sizeof *texts)];
}

/* A stack that answers at once, later, or never, and sometimes nonsense. */
static int start(void* context, const quenor_request* request) {
  const uint64_t kind = request->id % 16;
  quenor_response response;
  (void)context;
  if (kind == 0) return 1;
  if (kind == 1) return 0;
  QUENOR_INIT(&response);
  response.status_code = kind == 2 ? 404 : kind == 3 ? 503 : kind == 4 ? -1 : 200;
  if (kind == 5) response.body_size = 7;
  if (kind == 6) response.header_count = 7;
  if (kind == 10) response.reason = "tls_expired";
  if (kind == 11) response.reason = "";
  quenor_answer(request->id, kind == 7 ? NULL : &response);
  if (kind == 8) quenor_answer(request->id, &response);
  if (quenor_answer(request->id, NULL) != QUENOR_OK) abort();
  return kind == 9;
}

static void cancel(void* context, uint64_t id) {
  (void)context;
  quenor_answer(id, NULL);
}

static void on_update(void* context, const quenor_update* update) {
  quenor_reporter* const one = find(context);
  quenor_outcome outcome;
  QUENOR_INIT(&outcome);
  if (update->size < sizeof *update || update->cause == NULL || update->reason == NULL) abort();
  if (update->id % 8 == 0) quenor_now(one, &outcome);
  if (update->id % 64 == 0) quenor_flush(one, 1000, &outcome);
}

static void on_tuning(void* context, const quenor_tuning* tuning) {
  (void)context;
  if (tuning->size < sizeof *tuning) abort();
}

static void on_log(void* context, int level, const char* file, int line, const char* what,
                   size_t size) {
  (void)context, (void)level, (void)file, (void)line;
  if (strlen(what) != size) abort();
}

static void create(thread_state* state, const char* name, place* where) {
  quenor_options options;
  quenor_reporter* made = NULL;
  QUENOR_INIT(&options);
  options.name = name;
  options.url = "https://collector.example/reports";
  options.folder = folder;
  options.on_update = on_update;
  options.on_tuning = on_tuning;
  options.context = where;
  switch (next(state, 12)) {
    case 0:
      options.name = text(state);
      break;
    case 1:
      options.url = text(state);
      break;
    case 2:
      options.folder = text(state);
      break;
    case 3:
      options.size = next(state, 2 * (uint32_t)sizeof options);
      break;
    case 4:
      options.cache = (int)next(state, 6);
      break;
    case 5:
      options.durability = (int)next(state, 6);
      break;
    case 6:
      options.send_interval_ms = next(state, 200);
      options.send_limit = next(state, 4);
      break;
    case 7:
      options.ca_file = text(state);
      options.compress = 1;
      break;
    default:
      break;
  }
  if (options.size > sizeof options) options.size = sizeof options; /* It says what is there. */
  quenor_create(next(state, 50) == 0 ? NULL : &options, next(state, 50) == 0 ? NULL : &made);
  put(where, made);
}

static void destroy(place* where) {
  quenor_destroy(find(where));
  put(where, NULL);
}

static void send_some(thread_state* state, quenor_reporter* one) {
  static const char bytes[4096] = "report";
  quenor_send_options options;
  uint64_t id;
  const void* from = next(state, 20) == 0 ? NULL : bytes;
  const size_t size = next(state, 20) == 0 ? SIZE_MAX : next(state, sizeof bytes);
  QUENOR_INIT(&options);
  options.memory_only = (int)next(state, 2);
  options.now = next(state, 4) == 0;
  options.delay_ms = next(state, 4) == 0 ? next(state, 5) : 0;
  if (next(state, 20) == 0) options.size = next(state, (uint32_t)sizeof options);
  quenor_send(one, from, size, next(state, 2) == 0 ? NULL : &options,
              next(state, 2) == 0 ? NULL : &id);
}

static int fresh_headers(void* context, quenor_headers* to) {
  quenor_add_header(to, context, context);
  return 0;
}

/* Beside a transport most of it is refused. */
static void set_network(thread_state* state) {
  const char* const texts[] = {"a", text(state)};
  quenor_http http;
  quenor_thrift thrift;
  quenor_spent spent;
  QUENOR_INIT(&http);
  QUENOR_INIT(&thrift);
  QUENOR_INIT(&spent);
  http.total_timeout_ms = next(state, 2) * 50000;
  if (next(state, 4) == 0) http.size = next(state, (uint32_t)sizeof http);
  if (next(state, 4) == 0) http.ca_pem = text(state);
  if (next(state, 4) == 0) http.proxy_url = text(state);
  if (next(state, 4) == 0) http.header_count = next(state, 3);
  if (next(state, 4) == 0) http.connect_to = texts, http.connect_to_count = next(state, 3);
  if (next(state, 4) == 0) http.fresh_headers = fresh_headers, http.context = &state->calls;
  quenor_set_http(next(state, 2) == 0 ? NULL : text(state), next(state, 20) == 0 ? NULL : &http);
  quenor_reset_http(text(state));
  quenor_withdraw_fresh_headers(fresh_headers);
  quenor_network_changed();
  if (quenor_watch_network(1) != QUENOR_BAD_OPTION) abort();
  quenor_set_thrift(next(state, 2) == 0 ? NULL : &thrift);
  quenor_get_spent(next(state, 2) == 0 ? NULL : &spent);
  quenor_add_header(NULL, NULL, NULL);
}

static void ask(thread_state* state, quenor_reporter* one) {
  char metrics[64];
  uint32_t interval;
  quenor_outcome outcome;
  QUENOR_INIT(&outcome);
  if (next(state, 20) == 0) outcome.size = next(state, (uint32_t)sizeof outcome);
  switch (next(state, 13)) {
    case 0:
      quenor_flush(one, next(state, 5), next(state, 2) == 0 ? NULL : &outcome);
      break;
    case 1:
      if (next(state, 50) == 0) quenor_stop(one, next(state, 5), &outcome);
      break;
    case 2:
      quenor_now(one, next(state, 5) == 0 ? NULL : &outcome);
      break;
    case 3:
      quenor_set_send_interval(one, next(state, 300));
      break;
    case 4:
      quenor_set_url(one, text(state));
      break;
    case 5:
      quenor_report_interval_ms(one, next(state, 5) == 0 ? NULL : &interval);
      break;
    case 6:
      quenor_metrics(next(state, 5) == 0 ? NULL : metrics, next(state, sizeof metrics));
      break;
    case 7:
      if (strlen(quenor_error_text((int)next(state, 20) - 5)) == 0) abort();
      break;
    case 8:
      if (quenor_last_error() == NULL || quenor_version() == NULL) abort();
      break;
    case 9:
      quenor_answer(next(state, 1000), NULL);
      break;
    case 10:
      if (quenor_set_transport(NULL) != QUENOR_STOPPED) abort();
      break;
    case 11:
      set_network(state);
      break;
    default:
      quenor_init(next(state, 2) == 0 ? NULL : &outcome, next(state, (uint32_t)sizeof outcome));
  }
}

static void* run(void* of) {
  thread_state* const state = of;
  char name[16];
  snprintf(name, sizeof name, "own-%d", state->number);
  for (; state->calls % kCallsBetweenLooks != 0 || time(NULL) < until; ++state->calls) {
    const uint32_t which = next(state, kShared + 2);
    quenor_reporter* one;
    if (next(state, 500) == 0) destroy(&state->own);
    if (find(&state->own) == NULL && next(state, 50) == 0) create(state, name, &state->own);
    one = which < kShared    ? find(&shared_places[which])
          : which == kShared ? find(&state->own)
                             : NULL;
    if (next(state, 2) == 0) {
      send_some(state, one);
    } else {
      ask(state, one);
    }
  }
  destroy(&state->own);
  return NULL;
}

int main(int argc, char** argv) {
  static const char* const names[kShared] = {"shared-0", "shared-1", "shared-2"};
  pthread_t threads[kThreads];
  thread_state states[kThreads];
  quenor_transport transport;
  unsigned long calls = 0;
  int i;
  if (argc != 4) return 64;
  folder = argv[3];
  quenor_set_log(on_log, NULL);
  QUENOR_INIT(&transport);
  if (quenor_set_transport(&transport) != QUENOR_BAD_ARGUMENT) return 1;
  transport.start = start;
  transport.cancel = cancel;
  if (quenor_set_transport(&transport) != QUENOR_OK) return 1;
  memset(states, 0, sizeof states);
  states[0].random = strtoull(argv[2], NULL, 10) | 1;
  for (i = 0; i < kShared; ++i) {
    pthread_mutex_init(&shared_places[i].mutex, NULL);
    while (find(&shared_places[i]) == NULL) create(&states[0], names[i], &shared_places[i]);
  }
  until = time(NULL) + atoi(argv[1]);
  for (i = 0; i < kThreads; ++i) {
    pthread_mutex_init(&states[i].own.mutex, NULL);
    states[i].number = i;
    states[i].random = (strtoull(argv[2], NULL, 10) + (uint64_t)i) * 0x9E3779B97F4A7C15u | 1;
    if (pthread_create(&threads[i], NULL, run, &states[i]) != 0) return 1;
  }
  for (i = 0; i < kThreads; ++i) {
    pthread_join(threads[i], NULL);
    calls += states[i].calls;
  }
  for (i = 0; i < kShared; ++i) destroy(&shared_places[i]);
  printf("%lu calls, seed %s\n", calls, argv[2]);
  return 0;
}
