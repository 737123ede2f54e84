/* Delivers one report through a proxy, with a header that changes.
 *   behind_a_proxy URL PROXY USER PASSWORD CA_FILE TOKEN FOLDER */
#include <quenor/network.h>
#include <stdio.h>

static int fresh_headers(void* token, quenor_headers* to) {
  char value[64];
  snprintf(value, sizeof value, "Bearer %s", (const char*)token);
  return quenor_add_header(to, "Authorization", value) != QUENOR_OK;
}

static int fail(const char* what) {
  fprintf(stderr, "%s: %s\n", what, quenor_last_error());
  return 1;
}

int main(int argc, char** argv) {
  static const quenor_header headers[] = {{"X-Host", "host"}};
  quenor_http http;
  quenor_options options;
  quenor_outcome outcome;
  quenor_spent spent;
  quenor_reporter* reporter;
  if (argc != 8) return 64;
  QUENOR_INIT(&http);
  QUENOR_INIT(&options);
  QUENOR_INIT(&outcome);
  QUENOR_INIT(&spent);
  http.proxy_url = argv[2];
  http.proxy_user = argv[3];
  http.proxy_password = argv[4];
  http.ca_file = argv[5];
  http.headers = headers;
  http.header_count = 1;
  http.fresh_headers = fresh_headers;
  http.context = argv[6];
  options.name = "c-host";
  options.url = argv[1];
  options.folder = argv[7];
  options.send_limit = 1;
  if (quenor_set_http(NULL, &http) != QUENOR_OK) return fail("settings");
  if (quenor_create(&options, &reporter) != QUENOR_OK) return fail("reporter");
  quenor_send(reporter, "started", 7, NULL, NULL);
  quenor_flush(reporter, 60000, &outcome);
  quenor_destroy(reporter);
  quenor_get_spent(&spent);
  printf("acknowledged=%u dropped=%u exchanges=%u\n", (unsigned)outcome.acknowledged,
         (unsigned)outcome.dropped, (unsigned)spent.exchanges);
  return quenor_withdraw_fresh_headers(fresh_headers) != 0;
}
