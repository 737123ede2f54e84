/* The C interface: hands reports to a collection server and says what became of them. C99, C++98.
 *
 *   quenor_options options;
 *   quenor_reporter* reporter;
 *   QUENOR_INIT(&options);
 *   options.name = "usage";
 *   options.url = "https://collector.example/reports";
 *   if (quenor_create(&options, &reporter) != QUENOR_OK) { ... quenor_last_error() ... }
 *   quenor_send(reporter, "started", 7, NULL, NULL);
 *   quenor_stop(reporter, 2000, NULL);
 *   quenor_destroy(reporter);
 *
 * Threads: any, unless a function says otherwise. A null pointer where one is needed is answered by
 * QUENOR_BAD_ARGUMENT; a handle that was destroyed is not. A structure begins with its size, which
 * QUENOR_INIT() sets: the library takes from a shorter one what is there, so that a program goes on
 * working when fields are added at its end. All else is then 0, which is every field's default.
 * This interface alone is stable across versions. Nothing that a callback throws may leave it: that
 * ends the process.
 */
#ifndef QUENOR_REPORTER_H_
#define QUENOR_REPORTER_H_

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define QUENOR_API __attribute__((visibility("default")))
#else
#define QUENOR_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct quenor_reporter quenor_reporter;

/* Of quenor/network.h and quenor/transport.h. */
typedef struct quenor_header {
  const char* name;
  const char* value;
} quenor_header;

typedef enum quenor_error {
  QUENOR_OK = 0,
  QUENOR_BAD_ARGUMENT = 1, /* A null pointer, a null pointer with a size, a size that is none. */
  QUENOR_BAD_OPTION = 2,   /* quenor_last_error() names it. */
  QUENOR_FULL = 3,         /* 149 messages are out; try again when some have ended. */
  QUENOR_EMPTY = 4,        /* A message without bytes. */
  QUENOR_TOO_LARGE = 5,    /* A message of more than 1 GiB. */
  QUENOR_NOW_AND_DELAY = 6,
  QUENOR_STOPPED = 7,
  QUENOR_NO_MEMORY = 8,
  QUENOR_FORKED = 9 /* The parent process's reporter, in a child that was forked. */
} quenor_error;

/* Every structure of this header, before it is filled in. */
#define QUENOR_INIT(structure) quenor_init((structure), sizeof *(structure))
QUENOR_API void quenor_init(void* structure, size_t size);

/* A sentence for each; never null. */
QUENOR_API const char* quenor_error_text(int error);
/* What was wrong with this thread's last call that has answered QUENOR_BAD_OPTION, in one line;
 * never null. Valid until this thread calls such a function again. */
QUENOR_API const char* quenor_last_error(void);
/* "0.1.0" */
QUENOR_API const char* quenor_version(void);

/* --- What becomes of a message ---------------------------------------------------------------- */

typedef enum quenor_state {
  QUENOR_LOADED = 0,       /* An earlier run had kept it. It has a new id. */
  QUENOR_ADMITTED = 1,     /* In the store. */
  QUENOR_SENT = 2,         /* On its way, for the `sends`-th time. */
  QUENOR_FAILED = 3,       /* That attempt failed; it is sent again unless an end follows. */
  QUENOR_ACKNOWLEDGED = 4, /* The server has answered 200. An end, like all that follow. */
  QUENOR_REJECTED = 5,     /* Given up: the server refuses it for good. */
  QUENOR_DROPPED = 6,      /* Given up for the reason that `cause` names. */
  QUENOR_KEPT = 7          /* On disk when the reporter stopped; the next run sends it. */
} quenor_state;

/* Borrowed by the callback. The library may append fields: `size` says what is there. */
typedef struct quenor_update {
  size_t size;
  uint64_t id;
  quenor_state state;
  const char* cause; /* "resend_limit", ...; "none". */
  int status_code;   /* QUENOR_FAILED: the HTTP status, or 0. */
  uint32_t sends;
  const char* reason; /* QUENOR_FAILED: "refused", "tls_expired", ...; else "none". Static. */
} quenor_update;

typedef struct quenor_tuning {
  size_t size;
  uint32_t send_interval_ms; /* 0: none. */
  uint32_t send_limit;
  uint32_t report_interval_ms; /* How often the server wants a report. */
} quenor_tuning;

/* --- A reporter ------------------------------------------------------------------------------- */

typedef enum quenor_cache {
  QUENOR_CACHE_AS_SET = 0, /* By the first reporter or the configuration; else mapped. */
  QUENOR_CACHE_NONE = 1,
  QUENOR_CACHE_FILE = 2,
  QUENOR_CACHE_MAPPED = 3
} quenor_cache;

typedef enum quenor_durability {
  QUENOR_DURABILITY_AS_SET = 0, /* As above; else the process's. */
  QUENOR_DURABILITY_PROCESS = 1,
  QUENOR_DURABILITY_STARTED = 2,
  QUENOR_DURABILITY_ON_DISK = 3
} quenor_durability;

typedef struct quenor_options {
  size_t size;
  const char* name; /* Of the file and the thread; one reporter of a process at a time has it. */
  const char* url;  /* "https://..." or "http://...". */
  int http1_only;
  int compress;              /* Raw deflate. */
  uint32_t send_limit;       /* 0: a message is sent until it is acknowledged. */
  uint32_t send_interval_ms; /* 0: none; else at least 100. */
  /* What all reporters of a process share. The first one fixes it, a later one that differs is
   * refused. Null or 0: as it is set. */
  int cache;              /* A quenor_cache. */
  int durability;         /* A quenor_durability. */
  const char* folder;     /* Absolute. */
  const char* proxy_host; /* SOCKS5. */
  uint16_t proxy_port;
  const char* proxy_user;
  const char* proxy_password;
  const char* ca_file;                 /* PEM, instead of the system's. */
  const char* client_certificate_file; /* PEM. */
  const char* client_key_file;         /* PEM, not encrypted; null: in the certificate's file. */
  int require_tls;                     /* Refuses http://. */
  /* On the reporter's thread, which waits for them; they must not block. They may use the reporter.
   * Not after quenor_destroy() has returned, unless that was called by one of them. */
  void (*on_update)(void* context, const quenor_update* update);
  void (*on_tuning)(void* context, const quenor_tuning* tuning);
  void* context;
} quenor_options;

/* Makes a reporter and loads what an earlier run has kept: it reads one file. Copies the strings.
 */
QUENOR_API quenor_error quenor_create(const quenor_options* options, quenor_reporter** reporter);
/* Stops it without waiting, if it has not been stopped, and frees it. Null is no fault. No other
 * thread may use it any more. */
QUENOR_API void quenor_destroy(quenor_reporter* reporter);

typedef struct quenor_send_options {
  size_t size;
  int memory_only;   /* Not kept on disk. */
  int now;           /* Ahead of all others; no effect while an interval is in force. */
  uint32_t delay_ms; /* Not together with `now`. */
} quenor_send_options;

/* Copies the bytes and returns; never waits for network or disk. `options` and `id` may be null. */
QUENOR_API quenor_error quenor_send(quenor_reporter* reporter, const void* bytes, size_t size,
                                    const quenor_send_options* options, uint64_t* id);

/* Of all messages since the reporter was made; the last two as things stand. */
typedef struct quenor_outcome {
  size_t size;
  uint64_t acknowledged;
  uint64_t rejected;
  uint64_t dropped;
  uint64_t kept; /* Not acknowledged, and on disk. */
  uint64_t out;  /* Not acknowledged, and in memory only. */
} quenor_outcome;

/* Waits until every message has ended, for `patience_ms` at most. `outcome` may be null. */
QUENOR_API quenor_error quenor_flush(quenor_reporter* reporter, uint32_t patience_ms,
                                     quenor_outcome* outcome);
/* The same, and nothing is taken or sent any more; 0.1 s longer at most. */
QUENOR_API quenor_error quenor_stop(quenor_reporter* reporter, uint32_t patience_ms,
                                    quenor_outcome* outcome);
QUENOR_API quenor_error quenor_now(quenor_reporter* reporter, quenor_outcome* outcome);

QUENOR_API quenor_error quenor_set_send_interval(quenor_reporter* reporter, uint32_t interval_ms);
/* QUENOR_BAD_OPTION when quenor_create() would not take it: then the old one stays. */
QUENOR_API quenor_error quenor_set_url(quenor_reporter* reporter, const char* url);
/* How often the server wants a report: 10000 until it says so. */
QUENOR_API quenor_error quenor_report_interval_ms(quenor_reporter* reporter, uint32_t* interval_ms);

/* --- The process ------------------------------------------------------------------------------ */

/* The books of all reporters as the text that monitoring systems scrape. Writes at most `size`
 * bytes with a 0 behind them; answers how many there are without it. `text` may be null with size
 * 0. */
QUENOR_API size_t quenor_metrics(char* text, size_t size);

/* Where log lines go; null: to standard error. `level` 0 is for information, 2 for what needs
 * attention. On any thread; it must not block. `text` ends with a 0. */
typedef void (*quenor_log)(void* context, int level, const char* file, int line, const char* text,
                           size_t size);
QUENOR_API void quenor_set_log(quenor_log log, void* context);

#ifdef __cplusplus
}
#endif

#endif /* QUENOR_REPORTER_H_ */
