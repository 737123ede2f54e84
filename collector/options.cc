#include "collector/options.h"

#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "collector/commands.h"
#include "collector/fatal.h"
#include "collector/option_types.h"

#ifndef QUENOR_COLLECTOR_VERSION
#define QUENOR_COLLECTOR_VERSION "unknown"
#endif

namespace quenor::collector {
namespace {

constexpr char kFooter[] = R"(Examples:
  quenor-collector
      plain HTTP on a free port of 127.0.0.1; the first line of output names the URL
  quenor-collector --listen 127.0.0.1:8443 --cert cert.pem --key key.pem --log -
      HTTPS, every request as one JSON line on standard output
  quenor-collector --out bodies --log requests.jsonl --inflate
      one file per report, decompressed
  quenor-collector --misbehave 'all: delay=200ms' --misbehave 'every 3: status=503'
      every third request answered 503, all of them late
  quenor-collector --misbehave storm.txt --seed 7
      what the lines of storm.txt say, with the draws of seed 7
  quenor-collector --store nats://one,two,three --stream REPORTS
      answers 200 once a majority of the three nodes has the report

A throw-away certificate:
  openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out cert.pem -days 30 \
      -subj /CN=localhost -addext subjectAltName=DNS:localhost,IP:127.0.0.1

SIGINT or SIGTERM ends it in order. Exit codes: 0 ended in order, 64 wrong usage,
66 unreadable certificate, key or script, 69 cannot listen or use the store, 70 no memory, thread or descriptor,
73 cannot create output.)";

constexpr uint64_t kMaxControlField = std::numeric_limits<uint32_t>::max();
constexpr uint64_t kMaxTimeoutS = 86'400;
void AddControlFields(CLI::App* app, ReplyOptions* reply) {
  app->add_option("--errinfo", reply->errinfo, "\"bytes_errinfo\" of the reply")
      ->type_name("TEXT")
      ->capture_default_str();
  app->add_option("--send-interval", reply->send_interval_ms,
                  "add \"uint32_send_interval\" (milliseconds) to the reply")
      ->type_name("N")
      ->check(WholeNumber(0, kMaxControlField));
  app->add_option("--max-resend", reply->max_resend_count,
                  "add \"uint32_max_resend_count\" to the reply")
      ->type_name("N")
      ->check(WholeNumber(0, kMaxControlField));
  app->add_option("--report-duration", reply->report_duration_s,
                  "add \"uint32_report_duration\" (seconds) to the reply")
      ->type_name("N")
      ->check(WholeNumber(0, kMaxControlField));
}

void AddMisbehaviour(CLI::App* app, std::vector<std::string>* scripts, uint64_t* seed) {
  app->add_option(
         "--misbehave", *scripts,
         "what to do to which request: a FILE of lines, or with a colon in it one line, as "
         "in 'every 3: status=503'; may be repeated")
      ->type_name("SCRIPT")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->check(NotEmpty());
  app->add_option("--seed", *seed, "of the chances and noise of --misbehave")
      ->type_name("N")
      ->check(WholeNumber(0, kMaxCount))
      ->capture_default_str();
}

// Throws Fatal.
void ReadScripts(const std::vector<std::string>& scripts, Options* options) {
  Misbehaviour* const misbehaviour = &options->server.misbehaviour;
  for (const std::string& script : scripts) {
    if (script.find(':') != std::string::npos) {
      misbehaviour->AddText(script, "--misbehave");
    } else {
      misbehaviour->AddFile(script);
    }
  }
  if (options->cert_path.empty() && !misbehaviour->needs_tls().empty()) {
    throw Fatal(kExitUsage, misbehaviour->needs_tls() +
                                ": only TLS has alerts; give --cert and --key, or write close or "
                                "reset");
  }
}

void AddServing(CLI::App* app, std::string* listen, Options* options) {
  app->add_option("--listen", *listen, "HOST:PORT to listen on; port 0: any free one")
      ->type_name("HOST:PORT")
      ->capture_default_str();
  app->add_option("--port-file", options->port_file, "write the port here once listening")
      ->type_name("FILE")
      ->check(NotEmpty());
  CLI::Option* cert = app->add_option("--cert", options->cert_path, "PEM certificate: serve HTTPS")
                          ->type_name("FILE")
                          ->check(NotEmpty());
  CLI::Option* key = app->add_option("--key", options->key_path, "PEM private key of --cert")
                         ->type_name("FILE")
                         ->check(NotEmpty());
  cert->needs(key);
  key->needs(cert);
  app->add_option("--threads", options->server.threads,
                  "requests served at the same time, without those that wait for their sender")
      ->type_name("N")
      ->check(WholeNumber(1, 4096))
      ->capture_default_str();
  app->add_option("--max-body", options->server.max_body_bytes,
                  "largest body taken, in bytes or as 64MiB; larger ones are answered 413")
      ->transform(AsSize())
      ->type_name("SIZE")
      ->check(WholeNumber(0, kMaxSizeBytes))
      ->default_str("64MiB");
  app->add_option("--idle-timeout", options->server.idle_timeout_s,
                  "seconds after which a silent connection is closed")
      ->type_name("S")
      ->check(WholeNumber(1, kMaxTimeoutS))
      ->capture_default_str();
  app->add_option("--head-timeout", options->server.head_timeout_s,
                  "seconds that a request's head, or a TLS handshake, may take; then 408")
      ->type_name("S")
      ->check(WholeNumber(1, kMaxTimeoutS))
      ->capture_default_str();
  app->add_option("--body-timeout", options->server.body_timeout_s,
                  "seconds that a request's body may take; then 408")
      ->type_name("S")
      ->check(WholeNumber(1, kMaxTimeoutS))
      ->capture_default_str();
}

// What only a collector with a store heeds.
void AddTier(CLI::App* app, std::string* store, TierOptions* tier, std::array<int64_t, 2>* times) {
  CLI::Option* const given = AddStore(app, false, store, &tier->store);
  const auto add = [&](const char* name, auto& value, const char* help, const char* type) {
    return app->add_option(name, value, help)->type_name(type)->needs(given);
  };
  add("--hold", times->at(0), "how long a report waits for the store; then 503", "TIME")
      ->transform(AsTime())
      ->check(WholeNumber(1, kMaxTimeoutS * 1000))
      ->default_str("20s");
  add("--ack-wait", times->at(1), "after how long without an answer it is published again", "TIME")
      ->transform(AsTime())
      ->check(WholeNumber(1, kMaxTimeoutS * 1000))
      ->default_str("1500ms");
  add("--max-in-flight", tier->hold.max_reports, "most reports that wait; beyond it 503", "N")
      ->check(WholeNumber(1, kMaxCount))
      ->capture_default_str();
  add("--max-in-flight-bytes", tier->hold.max_bytes, "most bytes of them; beyond it 503", "SIZE")
      ->transform(AsSize())
      ->check(WholeNumber(1, kMaxSizeBytes))
      ->default_str("256MiB");
  add("--bucket", tier->store.bucket, "the bucket of the control fields", "NAME")
      ->check(StoreName())
      ->capture_default_str();
  add("--path", tier->paths, "take reports on this path alone; may be repeated", "PATH")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->check(RequestPath());
}

// Throws Fatal for what has no meaning beside --store.
void RefuseBesideStore(const CLI::App& app) {
  for (const char* name : {"--cert", "--out", "--log", "--inflate", "--misbehave", "--threads",
                           "--head-timeout", "--body-timeout", "--errinfo"}) {
    if (app.get_option(name)->count() == 0) continue;
    throw Fatal(kExitUsage, std::string(name) +
                                " has no meaning beside --store, where nginx stands in front and "
                                "the store keeps the reports; leave one of them out");
  }
}

// What a collector with a store shares with one without.
void CompleteTier(const Options& options, const std::array<int64_t, 2>& times, TierOptions* tier) {
  tier->hold.hold = std::chrono::milliseconds(times[0]);
  tier->hold.ack_wait = std::chrono::milliseconds(times[1]);
  tier->host = options.server.host;
  tier->port = options.server.port;
  tier->port_file = options.port_file;
  tier->max_body_bytes = options.server.max_body_bytes;
  tier->idle_timeout_s = options.server.idle_timeout_s;
  const ReplyOptions& reply = options.server.reply;
  const auto field = [](const std::optional<uint64_t>& given, uint32_t otherwise) {
    return given ? static_cast<uint32_t>(*given) : otherwise;
  };
  ControlSettings* const control = &tier->control;
  control->send_interval_ms = field(reply.send_interval_ms, control->send_interval_ms);
  control->max_resend_count = field(reply.max_resend_count, control->max_resend_count);
  control->report_duration_s = field(reply.report_duration_s, control->report_duration_s);
  const std::string problem = ProblemOf(*control);
  if (!tier->store.nodes.empty() && !problem.empty()) {
    throw Fatal(kExitUsage, "cannot reply with " + problem);
  }
}

void AddRecording(CLI::App* app, RecorderOptions* recorder) {
  app->add_option("--out", recorder->out_dir, "folder for one file per accepted body")
      ->type_name("DIR")
      ->check(NotEmpty());
  app->add_option("--log", recorder->log_path,
                  "file to append one JSON line per request to; \"-\": standard output")
      ->type_name("FILE")
      ->check(NotEmpty());
  app->add_flag("--inflate", recorder->inflate,
                "decode bodies as raw deflate, file and log the result");
  app->add_option("--max-inflated", recorder->max_inflated_bytes,
                  "most bytes one body is inflated to")
      ->transform(AsSize())
      ->type_name("SIZE")
      ->check(WholeNumber(0, kMaxSizeBytes))
      ->default_str("256MiB");
}

}  // namespace

std::optional<Options> ParseCommandLine(int argc, const char* const* argv) {
  Options options;
  std::string listen = "127.0.0.1:0";
  CLI::App app(
      "Collection server for development, tests and demonstrations: takes HTTP POSTs on "
      "any path, puts each on record, then acknowledges it.",
      "quenor-collector");
  app.footer(kFooter);
  app.set_version_flag("--version", "quenor-collector " QUENOR_COLLECTOR_VERSION);

  AddServing(&app, &listen, &options);
  AddRecording(&app, &options.recorder);
  AddControlFields(&app, &options.server.reply);
  std::vector<std::string> scripts;
  uint64_t seed = 0;
  AddMisbehaviour(&app, &scripts, &seed);
  std::string store;
  std::array<int64_t, 2> times = {options.tier.hold.hold.count(),
                                  options.tier.hold.ack_wait.count()};
  AddTier(&app, &store, &options.tier, &times);

  Commands commands(&app);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      app.exit(error);
      return std::nullopt;
    }
    throw Fatal(kExitUsage, std::string(error.what()) + "; see quenor-collector --help");
  }
  if (commands.Finish(&options.command)) return options;
  options.server.misbehaviour.set_seed(seed);
  ReadScripts(scripts, &options);
  std::tie(options.server.host, options.server.port) = ParseAddress(listen);
  if (!store.empty()) {
    RefuseBesideStore(app);
    options.tier.store.nodes = ParseStore(store);
  }
  CompleteTier(options, times, &options.tier);
  return options;
}

}  // namespace quenor::collector
