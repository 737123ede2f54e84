#include "cli/options/options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>

#include "cli/console.h"
#include "cli/fatal.h"
#include "cli/options/cache_use.h"
#include "cli/options/help.h"
#include "cli/options/secrets.h"
#include "cli/options/suggest.h"
#include "cli/options/version.h"
#include "cli/text.h"

namespace quenor::cli {
namespace {

constexpr char kSendFooter[] = R"(Examples:
  quenor-report send --url https://collector.example/reports --send-now < events.jsonl
      each line is one report; ends when all are delivered, or 30 s after the end of input
  tail -F app.log | quenor-report send --url https://collector.example/reports --send-now --wait 300
      goes on for ever; after SIGINT, SIGTERM or SIGHUP it says what was delivered and what was left
  quenor-report send --url https://collector.example/crashes --max-resend 10 a.dmp b.dmp
      each file is one report, given up after ten sends
  curl -s http://127.0.0.1/stats | quenor-report send --url https://collector.example/stats -
      standard input whole is one report
  quenor-report send --url https://collector.example/crashes --compress a.dmp
      the server must know that the bodies are raw deflate: no header says so
  quenor-report send --url https://localhost:8443/ --cacert ca.pem --socks5 me:pa%40ss@[::1]:1080 a
      trusts a CA of one's own and goes through a SOCKS5 proxy, the password being "pa@ss"
  quenor-report send --url https://collector.example/ --proxy http://proxy:3128 --header @token a
      goes through an HTTP proxy; the file "token" has a line such as Authorization: Bearer ...

What is left undelivered stays in a cache file of the channel's name, and the next run with the same
--channel delivers it, to its own --url: give each server a channel of its own. A restart of a run
that died hands over only the lines that --saved-list does not name.

The last line on standard output is for scripts; loaded is what earlier runs left, kept the part of
left that is in the cache file for the next one:
  handed_over=3 delivered=3 failed_attempts=1 dropped=0 left=0 loaded=0 kept=0

Exit codes: 0 all delivered, 64 wrong usage, 65 unreadable input, 69 something was dropped,
70 no memory or thread, 74 standard output cannot be written to, 75 something is left, kept on disk
or not, 77 as 75, but nothing was delivered, each time because of the server's certificate or the
proxy's credentials. The guide is docs/guide/quenor-report.md.)";

constexpr char kCacheFooter[] = R"(Examples:
  quenor-report cache list ~/.local/state/quenor/quenor_report/quenor-report.mmap
      who left how much, and whether a run has it open now
  quenor-report cache dump usage.mmap | less
      the messages that wait there, to be read; with --raw DIR as they are, a file each
  quenor-report cache verify usage.cache || echo damaged, or no such file
  quenor-report cache purge --yes usage.mmap
      the messages in it are never delivered

Exit codes: 0 fine, 1 verify found damage, 64 wrong usage, 65 no cache file or a newer version's,
66 no such file, 70 no memory, 74 the system refused, 75 purge: a run has it open. The guide is
docs/guide/quenor-report.md.)";

constexpr char kDoctorFooter[] = R"(Examples:
  quenor-report doctor --url https://collector.example/reports
      name, connection and TLS; the server gets no report
  quenor-report doctor --url https://collector.example/reports --probe
      sends one small report too, and says what the channel would make of the answer
  quenor-report doctor --url https://collector.example/ --socks5 proxy.example:1080 --json
      a line of JSON for each step, for scripts

Exit codes: 0 no step failed (there may be warnings), 64 wrong usage, 69 a step failed, 70 no memory
or thread, 74 standard output cannot be written to. The guide is docs/guide/quenor-report.md.)";

constexpr size_t kMaxHelpWidth = 100;
constexpr double kMaxTimeoutS = 3600;
constexpr size_t kMaxChannelBytes = 236;
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
  std::string proxy;
  std::string proxy_password_file;
  std::string key_passphrase_file;
  std::string no_proxy;
  std::vector<std::string> headers;
  std::string cache;
  std::string cache_dir;
  std::string raw;
  bool no_persist = false;
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
  send->add_flag("--no-persist", texts->no_persist,
                 "keep none of this run's messages on disk; what earlier runs left is delivered "
                 "all the same");
  send->add_option("--saved-list", options->saved_list,
                   "append the number of each line (or name of each file) that need not be handed "
                   "over again, even if this process dies: saved in the cache, or delivered")
      ->type_name("FILE");
}

void AddMetrics(CLI::App* send, Options* options) {
  send->add_option("--metrics-file", options->metrics_file,
                   "every ten seconds and at the end, replace this file by what has become of the "
                   "messages so far, as text for monitoring systems")
      ->type_name("FILE");
}

CLI::Validator NotEmpty() {
  return CLI::Validator(
      [](std::string& text) { return text.empty() ? std::string("is empty") : std::string(); }, "");
}

void AddProxy(CLI::App* app, Connection* connection, Texts* texts) {
  app->add_option("--socks5", texts->socks5,
                  "go through this SOCKS5 proxy, which also resolves the server's name; user "
                  "and password percent-encoded; \"socks5h://\" may stand before it")
      ->type_name("[user:pass@]host:port");
  app->add_option("--proxy", texts->proxy,
                  "go through this proxy: http://, https:// (TLS up to it) or socks5h://, as "
                  "without a scheme; user and password percent-encoded")
      ->type_name("[SCHEME://][user:pass@]host:port");
  app->add_flag("--proxy-from-environment", connection->proxy_from_environment,
                "go through the proxies that https_proxy, http_proxy, all_proxy and no_proxy name; "
                "they do not count otherwise");
  app->add_option("--no-proxy", texts->no_proxy,
                  "what is reached without --proxy: names, which stand for all below them, "
                  "addresses and networks, with commas between")
      ->type_name("LIST");
  app->add_option("--proxy-password-file", texts->proxy_password_file,
                  "the first line of this file is the password of --proxy (or --socks5) "
                  "user@host:port; not given: $QUENOR_REPORT_PROXY_PASSWORD")
      ->type_name("FILE")
      ->check(NotEmpty());
}

void AddConnection(CLI::App* app, Connection* connection, Texts* texts) {
  const CLI::Validator not_empty = NotEmpty();
  app->add_option("--cacert", connection->ca_file,
                  "PEM file of CA certificates to trust instead of the system's")
      ->type_name("FILE")
      ->check(not_empty);
  app->add_option("--capath", connection->ca_folder,
                  "folder of CA certificates, prepared by \"openssl rehash\", to trust instead of "
                  "the system's")
      ->type_name("DIR")
      ->check(not_empty);
  app->add_option("--pin", connection->pins,
                  "trust the server only with this public key, beside its certificate; give it "
                  "again for a spare")
      ->type_name("sha256//BASE64")
      ->allow_extra_args(false);
  CLI::Option* const certificate =
      app->add_option("--client-cert", connection->client_certificate_file,
                      "PEM certificate to show to a server that asks for one; its key may be in it")
          ->type_name("FILE")
          ->check(not_empty);
  app->add_option("--client-key", connection->client_key_file, "PEM private key of --client-cert")
      ->type_name("FILE")
      ->check(not_empty)
      ->needs(certificate);
  app->add_option("--key-passphrase-file", texts->key_passphrase_file,
                  "the first line of this file opens the key, where that is encrypted")
      ->type_name("FILE")
      ->check(not_empty)
      ->needs(certificate);
  app->add_option("--header", texts->headers,
                  "send this with every report; @FILE: each line of that file, so that the list of "
                  "processes does not show it; may be given again")
      ->type_name("'NAME: VALUE'")
      ->check(not_empty)
      ->allow_extra_args(false);
  app->add_flag("--http1", connection->http1, "speak HTTP/1.1 only; HTTP/2 is offered otherwise");
  app->add_option("--connect-to", connection->connect_to,
                  "connect there instead of asking for HOST; may be given again")
      ->type_name("HOST:PORT:ADDRESS[:PORT]")
      ->check(not_empty)
      ->allow_extra_args(false);
  AddProxy(app, connection, texts);
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

void AddCacheCommands(CLI::App* cache, CacheCommand* command, std::string* raw) {
  using Verb = CacheCommand::Verb;
  const auto add = [&](Verb verb, const char* name, const char* text) {
    CLI::App* const app = cache->add_subcommand(name, text);
    app->add_option("FILE", command->file, "a cache file, NAME.mmap or NAME.cache")
        ->type_name("")
        ->required();
    app->callback([command, verb] { command->verb = verb; });
    return app;
  };
  add(Verb::kList, "list", "one line for each owner, and one for the file");
  add(Verb::kDump, "dump", "the messages: one line each, escaped")
      ->add_option("--raw", *raw,
                   "write the messages as they are: into this folder, a file each, or with - to "
                   "standard output")
      ->type_name("DIR|-");
  add(Verb::kVerify, "verify", "say whether the file is whole, or what is damaged");
  add(Verb::kPurge, "purge", "remove the file and the messages in it, unless a run has it open")
      ->add_flag("--yes", command->yes, "without it nothing is removed");
}

void AddDoctor(CLI::App* doctor, DoctorCommand* command) {
  doctor->add_option("--url", command->url, "where reports would be POSTed: https:// or http://")
      ->type_name("URL")
      ->required();
  doctor->add_option("--timeout", command->timeout_s, "how long each step may take")
      ->type_name("SECONDS")
      ->default_str("10");
  doctor->add_flag("--probe", command->probe,
                   "POST one small report at the end; the server takes it like any other");
  doctor->add_flag("--json", command->json, "a line of JSON for each step");
}

void CheckDoctor(const DoctorCommand& command) {
  CheckUrl(command.url);
  // Below a millisecond nothing could ever succeed.
  if (command.timeout_s >= 0.001 && command.timeout_s <= kMaxTimeoutS) return;
  throw Fatal(kExitUsage, "--timeout is not a number of seconds from 0.001 to 3600");
}

// The channel's name and a suffix are a path below the cache's folder; the cache itself follows no
// "..", so that no name leads out of there.
void CheckChannel(const std::string& name) {
  const size_t slash = name.rfind('/');
  const std::string folder = slash == std::string::npos ? "" : "/" + name.substr(0, slash + 1);
  const bool usable = !name.empty() && name.size() <= kMaxChannelBytes &&
                      folder.find("/../") == std::string::npos && Printable(name) == name;
  if (usable) return;
  throw Fatal(kExitUsage, "cannot use the channel name \"" + Printable(name) +
                              "\"; give --channel 1 to 236 bytes without a folder \"..\" or "
                              "control bytes");
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

std::vector<std::string> OptionsOf(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* const option : app.get_options()) {
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  }
  return names;
}

std::vector<std::string> CommandsOf(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* const command : app.get_subcommands({})) {
    names.push_back(command->get_name());
  }
  return names;
}

// What is wrong about the first word that `app` does not know. What stands behind its '=' may be a
// password.
std::string UnknownWord(const CLI::App& app, const std::string& written) {
  const bool is_option = written.size() > 1 && written.front() == '-';
  const std::string word = is_option ? written.substr(0, written.find('=')) : written;
  const std::vector<std::string> known = is_option ? OptionsOf(app) : CommandsOf(app);
  if (known.empty()) return "\"" + Printable(word) + "\" is one name too many";
  const std::string nearest = Nearest(word, known);
  return std::string("there is no ") + (is_option ? "option" : "command") + " \"" +
         Printable(word) + "\"" + (nearest.empty() ? "" : " (did you mean " + nearest + "?)");
}

Fatal UsageError(const CLI::App& app, const CLI::ParseError& error) {
  std::string problem = OneLine(error.what());
  std::string help = "quenor-report ";
  for (const CLI::App* level = &app; level != nullptr;) {
    const std::vector<std::string> unknown = level->remaining();
    const std::vector<CLI::App*> commands = level->get_subcommands();
    if (!unknown.empty()) {
      problem = UnknownWord(*level, unknown.front());
      break;
    }
    if (level == &app && commands.empty()) problem = "give one of send, cache and doctor";
    level = commands.empty() ? nullptr : commands.front();
  }
  if (!app.get_subcommands().empty()) help += app.get_subcommands().front()->get_name() + " ";
  return Fatal(kExitUsage, problem + "; see " + help + "--help");
}

void Show(const std::string& text) {
  if (WriteAll(STDOUT_FILENO, text)) return;
  const int error = errno;
  if (error == EPIPE) return;  // Whoever closed it has read enough.
  throw Fatal(kExitIo, "cannot write to standard output: " + ErrnoText(error));
}

// What stands between commas and blanks.
std::vector<std::string> ListOf(const std::string& text) {
  std::vector<std::string> list;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find_first_of(", ", at), text.size());
    if (end > at) list.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return list;
}

// The settings of the connection that need more than one option.
void FinishConnection(const CLI::App& app, const Texts& texts, Connection* connection) {
  connection->headers = Headers(texts.headers);
  if (!texts.key_passphrase_file.empty()) {
    connection->key_passphrase = KeyPassphrase(texts.key_passphrase_file);
  }
  const bool is_socks5 = app.count("--socks5") > 0;
  const bool is_any = app.count("--proxy") > 0;
  if (is_socks5 + is_any + connection->proxy_from_environment > 1) {
    throw Fatal(kExitUsage, "give only one of --proxy, --socks5 and --proxy-from-environment");
  }
  if (is_socks5) connection->proxy = ParseSocks5(texts.socks5);
  if (is_any) connection->proxy = ParseProxy(texts.proxy);
  if (connection->proxy) {
    FillProxyPassword(texts.proxy_password_file, std::getenv(kProxyPasswordVariable),
                      &*connection->proxy);
    connection->no_proxy = ListOf(texts.no_proxy);
    return;
  }
  for (const char* const option : {"--proxy-password-file", "--no-proxy"}) {
    if (app.count(option) == 0) continue;
    throw Fatal(kExitUsage, std::string(option) + " needs a proxy; give --proxy or --socks5, too");
  }
}

CacheCommand Finish(const CLI::App& cache, const Texts& texts, CacheCommand command) {
  if (cache.get_subcommands().empty()) {
    throw Fatal(kExitUsage,
                "cache needs one of list, dump, verify and purge; see quenor-report cache --help");
  }
  if (cache.get_subcommand("dump")->count("--raw") > 0) command.raw = texts.raw;
  if (command.file.empty()) throw Fatal(kExitUsage, "the name of the cache file is empty");
  return command;
}

DoctorCommand Finish(const CLI::App& doctor, const Texts& texts, DoctorCommand command) {
  CheckDoctor(command);
  FinishConnection(doctor, texts, &command);
  return command;
}

Options Finish(const CLI::App& send, const Texts& texts, Options options) {
  CheckRest(options);
  FinishConnection(send, texts, &options);
  options.persist = !texts.no_persist;
  if (send.count("--cache") > 0) options.cache = CacheKinds().at(texts.cache);
  if (send.count("--cache-dir") > 0) options.cache_dir = CacheFolder(texts.cache_dir);
  return options;
}

}  // namespace

std::optional<Command> ParseCommandLine(int argc, const char* const* argv) {
  Options options;
  CacheCommand command;
  DoctorCommand diagnosis;
  Texts texts;
  CLI::App app(
      "Delivers reports to a collection server, each as one HTTPS POST that is repeated "
      "until the server has answered 200.",
      "quenor-report");
  app.footer(
      "Each has its own help: quenor-report send --help, quenor-report cache --help, "
      "quenor-report doctor --help. The guide is docs/guide/quenor-report.md.");
  app.set_version_flag("--version", VersionText());
  app.require_subcommand(1);
  CLI::App* send = app.add_subcommand("send", "deliver lines of standard input, or files");
  send->footer(kSendFooter);
  CLI::App* cache = app.add_subcommand("cache", "show, check or remove a cache file");
  cache->footer(kCacheFooter);
  cache->require_subcommand(0, 1);
  AddCacheCommands(cache, &command, &texts.raw);
  CLI::App* doctor = app.add_subcommand("doctor", "find out why reports do not arrive");
  doctor->footer(kDoctorFooter);
  AddDoctor(doctor, &diagnosis);
  AddConnection(doctor, &diagnosis, &texts);
  AddDelivery(send, &options);
  AddCache(send, &options, &texts);
  AddMetrics(send, &options);
  AddConnection(send, &options, &texts);
  AddInput(send, &options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForVersion&) {
    Show(VersionText() + "\n");
    return std::nullopt;
  } catch (const CLI::CallForHelp&) {
    Show(FitHelp(app.help(), std::min(WidthOf(STDOUT_FILENO), kMaxHelpWidth)));
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    throw UsageError(app, error);
  }
  if (cache->parsed()) return Finish(*cache, texts, command);
  if (doctor->parsed()) return Finish(*doctor, texts, diagnosis);
  return Finish(*send, texts, options);
}

}  // namespace quenor::cli
