/* A host in C that may be killed at any time. Its messages are 0 to COUNT - 1; in FOLDER/NAME.book
 * is a byte for each that it knows to be safe, and behind those it goes on. What happens is a
 * letter on standard output: H before a message is handed over, W when some are written down, else
 * a state's.
 *
 *   quenor_resumed_c FOLDER URL NAME COUNT [transport]
 */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "quenor/reporter.h"

#define MOST_AT_ONCE 4
#define MOST_OUTSTANDING 8

void use_own_transport(void);

static void tell(char what) {
  if (write(STDOUT_FILENO, &what, 1) != 1) _exit(4); /* Nobody listens. */
}

static void fail(const char* why) {
  fprintf(stderr, "failed: %s\n", why);
  _exit(3);
}

static void on_update(void* context, const quenor_update* update) {
  (void)context;
  if (update->state == QUENOR_REJECTED || update->state == QUENOR_DROPPED) fail(update->cause);
  tell("LASFARDK"[update->state]);
}

static void send_one(quenor_reporter* reporter, const char* name, int number) {
  char body[800];
  const int size = 40 + number * 37 % 700;
  quenor_send_options options;
  quenor_error error;
  QUENOR_INIT(&options);
  options.now = number % 2;
  memset(body, '.', sizeof body);
  body[snprintf(body, sizeof body, "%s %d ", name, number)] = '.';
  tell('H');
  error = quenor_send(reporter, body, (size_t)size, &options, NULL);
  if (error != QUENOR_OK) fail(quenor_error_text(error));
}

static void run(quenor_reporter* reporter, const char* name, int count, int book) {
  static const char dots[] = "....";
  int written = (int)lseek(book, 0, SEEK_END);
  int next = written;
  quenor_outcome all;
  QUENOR_INIT(&all);
  while (written < count) {
    quenor_flush(reporter, 1, &all);
    if (all.out != 0) continue;
    if (next > written) {
      if (write(book, dots, (size_t)(next - written)) != next - written) fail("the book");
      written = next;
      tell('W');
    }
    if (all.kept > MOST_OUTSTANDING) continue;
    while (next < count && next - written < 1 + written % MOST_AT_ONCE)
      send_one(reporter, name, next++);
  }
}

int main(int argc, char** argv) {
  char path[4096];
  quenor_options options;
  quenor_reporter* reporter;
  quenor_outcome all;
  int book;
  if (argc < 5) return 64;
  if (argc > 5) use_own_transport();
  snprintf(path, sizeof path, "%s/%s.book", argv[1], argv[3]);
  book = open(path, O_WRONLY | O_CREAT | O_APPEND, 0600);
  QUENOR_INIT(&options);
  options.folder = argv[1];
  options.url = argv[2];
  options.name = argv[3];
  options.on_update = on_update;
  if (book < 0 || quenor_create(&options, &reporter) != QUENOR_OK) fail(quenor_last_error());
  run(reporter, argv[3], atoi(argv[4]), book);
  QUENOR_INIT(&all);
  quenor_stop(reporter, 100000, &all);
  quenor_destroy(reporter);
  return all.kept + all.out == 0 ? 0 : 1;
}
