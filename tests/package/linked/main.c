/* Hands over one report, which nobody takes. What stands behind the structures is not the
 * library's. */
#include <quenor/reporter.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
  struct {
    quenor_options its;
    unsigned char ours[64];
  } options;
  struct {
    quenor_outcome its;
    unsigned char ours[64];
  } outcome;
  quenor_reporter* reporter = NULL;
  size_t i;
  memset(&options, 0xa5, sizeof options);
  memset(&outcome, 0xa5, sizeof outcome);
  QUENOR_INIT(&options.its);
  QUENOR_INIT(&outcome.its);
  options.its.name = "linked";
  options.its.url = "https://127.0.0.1:1/";
  options.its.folder = argc > 1 ? argv[1] : NULL;
  if (quenor_create(&options.its, &reporter) != QUENOR_OK) return puts(quenor_last_error()), 1;
  if (quenor_send(reporter, "started", 7, NULL, NULL) != QUENOR_OK) return 2;
  if (quenor_stop(reporter, 0, &outcome.its) != QUENOR_OK) return 3;
  quenor_destroy(reporter);
  for (i = 0; i < sizeof outcome.ours; ++i) {
    if (outcome.ours[i] != 0xa5) return 4;
  }
  printf("%s\n%u acknowledged, %u kept\n", quenor_version(), (unsigned)outcome.its.acknowledged,
         (unsigned)outcome.its.kept);
  return 0;
}
