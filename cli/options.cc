#include "cli/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

#include "cli/cache_use.h"
#include "cli/fatal.h"
#include "cli/text.h"
#include "cli/version.h"

namespace quenor::cli {
namespace {

constexpr char kFooter[] = R"(Examples:
  quenor-report send --url https://collector.example/reports --send-now < events.jsonl
      each line is one report; ends when all are delivered, or 30 s after the end of input
  tail -F app.log | quenor-report send --url https://collector.example/reports --wait 300
      goes on for ever; after SIGINT or SIGTERM it says what was delivered and what was left
  quenor-report send --url https://collector.example/crashes --max-resend 10 a.dmp b.dmp
      each file is one report, given up after ten sends
  curl -s http://127.0.0.1/stats | quenor-report send --url https://collector.example/stats -
      standard input whole is one report
  quenor-report send --url https://collector.example/crashes --compress a.dmp
      the server must know that the bodies are raw deflate: no header says so
  quenor-report send --url https://localhost:8443/ --cacert ca.pem --socks5 me:pa%40ss@[::1]:1080 a
      trusts a CA of one's own and goes through a SOCKS5 proxy, the password being "pa@ss"

The last line on standard output is for scripts:
  handed_over=3 delivered=3 failed_attempts=1 dropped=0 left=0

Exit codes: 0 all delivered, 64 wrong usage, 65 unreadable input, 69 something was dropped,
70 no memory or thread, 75 something is left. The guide is docs/guide/quenor-report.md.)";

constexpr size_t kMaxChannelBytes = 200;
constexpr double kMaxWaitS = 1e9;

void AddDelivery(CLI::App* send, Options* options) {
  send->add_option("--url", options->url, "where reports are POSTed: https:// or http://")
      ->type_name("URL")
      ->required();
  send->add_option("--channel", options->channel, "name of the channel")
      ->type_name("NAME")
      ->capture_default_str();
  send->add_flag("--send-now", options->send_now,
                 "send each message at once, not one per 100 ms; without effect while a send "
                 "interval is set, by --interval or by the server");
  send->add_flag(
      "--compress", options->compress,
      "send each message as raw deflate; one that this does not make shorter, as many short "
      "ones, is dropped");
  send->add_option("--interval", options->interval_ms,
                   "send one message per MS milliseconds (at least 100; 0: none set)")
      ->type_name("MS");
  send->add_option("--max-resend", options->max_resend,
                   "drop a message when its N-th send has failed; not given: keep trying")
      ->type_name("N")
      ->check(CLI::Range(uint32_t{1}, std::numeric_limits<uint32_t>::max()));
  send->add_option("--wait", options->wait_s,
                   "how long deliveries may take after the end of input, and how long a server may "
                   "fail while the input is held back; 0: do not wait after the end of input")
      ->type_name("SECONDS")
      ->default_str("30");
}

// What is parsed further once the whole line is known.
struct Texts {
  std::string socks5;
  std::string cache;
  std::string cache_dir;
};

const std::map<std::string, CacheKind>& CacheKinds() {
  static const auto* const kinds = new std::map<std::string, CacheKind>{
      {"none", CacheKind::kNone}, {"file", CacheKind::kFile}, {"mmap", CacheKind::kMmap}};
  return *kinds;
}

void AddCache(CLI::App* send, Options* options, Texts* texts) {
  send->add_option("--cache", texts->cache,
                   "what keeps undelivered messages on disk: none, file (of one run at a time) or "
                   "mmap (runs share it; the default)")
      ->type_name("KIND")
      ->check(CLI::IsMember({"none", "file", "mmap"}));
  send->add_option("--cache-dir", texts->cache_dir,
                   "folder in which \"quenor_report\" holds the cache files; not given: "
                   "$XDG_STATE_HOME/quenor or ~/.local/state/quenor")
      ->type_name("DIR");
  send->add_flag("!--no-persist", options->persist,
                 "keep none of this run's messages on disk; what earlier runs left is delivered "
                 "all the same");
  send->add_option("--saved-list", options->saved_list,
                   "append the number of each line (or name of each file) that need not be handed "
                   "over again, even if this process dies: saved in the cache, or delivered")
      ->type_name("FILE");
}

void AddConnection(CLI::App* send, Options* options, std::string* socks5) {
  send->add_option("--cacert", options->ca_file,
                   "PEM file of CA certificates to trust instead of the system's")
      ->type_name("FILE");
  send->add_flag("--http1", options->http1, "speak HTTP/1.1 only; HTTP/2 is offered otherwise");
  send->add_option("--socks5", *socks5,
                   "go through this SOCKS5 proxy; user and password percent-encoded")
      ->type_name("[user:pass@]host:port");
}

void AddInput(CLI::App* send, Options* options) {
  CLI::Option* lines = send->add_flag(
      "--lines", "each line of standard input is one message (the default without FILE)");
  CLI::Option* files =
      send->add_option("FILE", options->files,
                       "each file whole is one message; - is standard input, whole")
          ->type_name("");
  lines->excludes(files);
  files->excludes(lines);
}

// The channel's name becomes the name of a thread and of a file.
void CheckChannel(const std::string& name) {
  const bool usable = !name.empty() && name.size() <= kMaxChannelBytes && name != "." &&
                      name != ".." && name.find('/') == std::string::npos &&
                      Printable(name) == name;
  if (usable) return;
  throw Fatal(kExitUsage, "cannot use the channel name \"" + Printable(name) +
                              "\"; give --channel 1 to 200 bytes without \"/\" or control bytes");
}

void CheckRest(const Options& options) {
  CheckUrl(options.url);
  CheckChannel(options.channel);
  if (!std::isfinite(options.wait_s) || options.wait_s < 0 || options.wait_s > kMaxWaitS) {
    throw Fatal(kExitUsage, "--wait is not a number of seconds from 0 to 1000000000");
  }
  if (std::count(options.files.begin(), options.files.end(), "-") > 1) {
    throw Fatal(kExitUsage, "\"-\" is given more than once; standard input can be read only once");
  }
}

std::string OneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return Printable(text);
}

}  // namespace

std::optional<Options> ParseCommandLine(int argc, const char* const* argv) {
  Options options;
  Texts texts;
  CLI::App app(
      "Delivers reports to a collection server, each as one HTTPS POST that is repeated "
      "until the server has answered 200.",
      "quenor-report");
  app.footer(kFooter);
  app.set_version_flag("--version", VersionText());
  app.require_subcommand(1);
  CLI::App* send = app.add_subcommand("send", "deliver lines of standard input, or files");
  send->footer(kFooter);
  AddDelivery(send, &options);
  AddCache(send, &options, &texts);
  AddConnection(send, &options, &texts.socks5);
  AddInput(send, &options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      app.exit(error);
      return std::nullopt;
    }
    throw Fatal(kExitUsage, OneLine(error.what()) + "; see quenor-report send --help");
  }
  CheckRest(options);
  if (send->count("--socks5") > 0) options.socks5 = ParseSocks5(texts.socks5);
  if (send->count("--cache") > 0) options.cache = CacheKinds().at(texts.cache);
  if (send->count("--cache-dir") > 0) options.cache_dir = CacheFolder(texts.cache_dir);
  return options;
}

}  // namespace quenor::cli
