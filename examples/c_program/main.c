#include <inttypes.h>
#include <quenor/reporter.h>
#include <stdio.h>

int main(int argc, char** argv) {
  quenor_options options;
  quenor_reporter* reporter;
  quenor_error sent;
  quenor_outcome all;
  QUENOR_INIT(&options);
  QUENOR_INIT(&all);
  options.name = "usage";
  options.url = argc > 1 ? argv[1] : "https://collector.example/reports";
  if (quenor_create(&options, &reporter) != QUENOR_OK)
    return fprintf(stderr, "%s\n", quenor_last_error()), 2;
  sent = quenor_send(reporter, "started", 7, NULL, NULL);
  if (sent != QUENOR_OK) fprintf(stderr, "not taken: %s\n", quenor_error_text(sent));
  quenor_stop(reporter, 2000, &all); /* Waits no longer than that. */
  quenor_destroy(reporter);
  printf("%" PRIu64 " acknowledged, %" PRIu64 " kept for the next start, %" PRIu64 " lost\n",
         all.acknowledged, all.kept, all.rejected + all.dropped + all.out);
  return sent == QUENOR_OK && all.rejected + all.dropped + all.kept + all.out == 0 ? 0 : 1;
}
