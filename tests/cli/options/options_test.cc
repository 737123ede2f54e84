#include "cli/options/options.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <variant>
#include <vector>

#include "cli/fatal.h"

namespace quenor::cli {
namespace {

constexpr char kUrl[] = "https://collector.example/reports";

Options Parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), {"quenor-report", "send", "--url", kUrl});
  return std::get<Options>(*ParseCommandLine(static_cast<int>(arguments.size()), arguments.data()));
}

CacheCommand ParseCache(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), {"quenor-report", "cache"});
  return std::get<CacheCommand>(
      *ParseCommandLine(static_cast<int>(arguments.size()), arguments.data()));
}

DoctorCommand ParseDoctor(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), {"quenor-report", "doctor", "--url", kUrl});
  return std::get<DoctorCommand>(
      *ParseCommandLine(static_cast<int>(arguments.size()), arguments.data()));
}

// The one line about wrong usage; empty when there is none.
std::string Objection(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "quenor-report");
  try {
    ParseCommandLine(static_cast<int>(arguments.size()), arguments.data());
    return "";
  } catch (const Fatal& fatal) {
    EXPECT_EQ(kExitUsage, fatal.exit_code());
    EXPECT_EQ(std::string::npos, std::string(fatal.what()).find('\n')) << fatal.what();
    return fatal.what();
  }
}

TEST(OptionsTest, HasDefaultsForAllButTheUrl) {
  const Options options = Parse({});

  EXPECT_EQ(kUrl, options.url);
  EXPECT_EQ("quenor-report", options.channel);
  EXPECT_FALSE(options.send_now);
  EXPECT_FALSE(options.compress);
  EXPECT_EQ("", options.ca_file);
  EXPECT_EQ("", options.ca_folder);
  EXPECT_TRUE(options.pins.empty());
  EXPECT_EQ("", options.client_certificate_file);
  EXPECT_EQ("", options.client_key_file);
  EXPECT_FALSE(options.http1);
  EXPECT_FALSE(options.proxy);
  EXPECT_FALSE(options.interval_ms);
  EXPECT_FALSE(options.max_resend);
  EXPECT_EQ(30, options.wait_s);
  EXPECT_FALSE(options.cache);
  EXPECT_FALSE(options.cache_dir);
  EXPECT_TRUE(options.persist);
  EXPECT_EQ("", options.saved_list);
  EXPECT_EQ("", options.metrics_file);
  EXPECT_TRUE(options.files.empty());
}

TEST(OptionsTest, TakesEveryOption) {
  const Options options = Parse({"--channel",
                                 "usage",
                                 "--send-now",
                                 "--compress",
                                 "--cacert",
                                 "ca.pem",
                                 "--http1",
                                 "--socks5",
                                 "u:p@h:1",
                                 "--interval",
                                 "250",
                                 "--max-resend",
                                 "4294967295",
                                 "--wait",
                                 "0.5",
                                 "--cache",
                                 "file",
                                 "--cache-dir",
                                 "/tmp",
                                 "--no-persist",
                                 "--saved-list",
                                 "saved",
                                 "--metrics-file",
                                 "m.prom",
                                 "a",
                                 "-",
                                 "/b"});

  EXPECT_EQ("usage", options.channel);
  EXPECT_TRUE(options.send_now);
  EXPECT_TRUE(options.compress);
  EXPECT_EQ("ca.pem", options.ca_file);
  EXPECT_TRUE(options.http1);
  ASSERT_TRUE(options.proxy);
  EXPECT_EQ("p", options.proxy->password);
  EXPECT_EQ(250u, options.interval_ms);
  EXPECT_EQ(4294967295u, options.max_resend);
  EXPECT_EQ(0.5, options.wait_s);
  EXPECT_EQ(CacheKind::kFile, options.cache);
  EXPECT_EQ("/tmp", options.cache_dir);
  EXPECT_FALSE(options.persist);
  EXPECT_EQ("saved", options.saved_list);
  EXPECT_EQ("m.prom", options.metrics_file);
  EXPECT_EQ((std::vector<std::string>{"a", "-", "/b"}), options.files);
}

TEST(OptionsTest, TakesWhatTheServerMustProveAndWhatItIsShown) {
  const Options options =
      Parse({"--capath", "cas", "--pin", "sha256//a", "--pin", "sha256//b", "--client-cert",
             "c.pem", "--client-key", "c.key", "--proxy", "socks5h://p:1", "file"});

  EXPECT_EQ("cas", options.ca_folder);
  EXPECT_EQ((std::vector<std::string>{"sha256//a", "sha256//b"}), options.pins);
  EXPECT_EQ("c.pem", options.client_certificate_file);
  EXPECT_EQ("c.key", options.client_key_file);
  ASSERT_TRUE(options.proxy);
  EXPECT_EQ("p", options.proxy->host);
  EXPECT_EQ((std::vector<std::string>{"file"}), options.files);
}

TEST(OptionsTest, TakesEveryKindOfProxyAndWhatGoesPastIt) {
  const Options http =
      Parse({"--proxy", "HTTP://me:p%40@[::1]:3128/", "--no-proxy", "localhost,10.0.0.0/8, b",
             "--header", "A:b", "--header", "C: ", "--connect-to", "h:1:127.0.0.1", "file"});
  EXPECT_EQ("http://[::1]:3128", http.proxy->Url());
  EXPECT_EQ("me", http.proxy->user);
  EXPECT_EQ("p@", http.proxy->password);
  EXPECT_EQ((std::vector<std::string>{"localhost", "10.0.0.0/8", "b"}), http.no_proxy);
  EXPECT_EQ((std::map<std::string, std::string>{{"A", "b"}, {"C", ""}}), http.headers);
  EXPECT_EQ(std::vector<std::string>{"h:1:127.0.0.1"}, http.connect_to);
  EXPECT_EQ(std::vector<std::string>{"file"}, http.files);
  EXPECT_EQ("https://h:1", Parse({"--proxy", "https://h:1"}).proxy->Url());
  EXPECT_EQ("socks5h://h:1", ParseDoctor({"--proxy", "h:1"}).proxy->Url());
  EXPECT_TRUE(ParseDoctor({"--proxy-from-environment"}).proxy_from_environment);
}

TEST(OptionsTest, KnowsEveryKindOfCache) {
  EXPECT_EQ(CacheKind::kNone, Parse({"--cache", "none"}).cache);
  EXPECT_EQ(CacheKind::kFile, Parse({"--cache", "file"}).cache);
  EXPECT_EQ(CacheKind::kMmap, Parse({"--cache", "mmap"}).cache);
}

TEST(OptionsTest, TakesFilesThatLookLikeOptionsAfterTwoDashes) {
  EXPECT_EQ((std::vector<std::string>{"--lines", "-x"}), Parse({"--", "--lines", "-x"}).files);
}

TEST(OptionsTest, LinesIsTheDefaultSpelledOut) { EXPECT_TRUE(Parse({"--lines"}).files.empty()); }

TEST(OptionsTest, TakesEveryCacheCommand) {
  using Verb = CacheCommand::Verb;
  EXPECT_EQ(Verb::kList, ParseCache({"list", "a"}).verb);
  EXPECT_EQ(Verb::kDump, ParseCache({"dump", "a"}).verb);
  EXPECT_EQ(Verb::kVerify, ParseCache({"verify", "a"}).verb);
  EXPECT_EQ(Verb::kPurge, ParseCache({"purge", "a"}).verb);
  EXPECT_EQ("a", ParseCache({"purge", "a"}).file);
}

TEST(OptionsTest, TakesTheOptionsOfCacheCommands) {
  EXPECT_FALSE(ParseCache({"dump", "a"}).raw);
  EXPECT_EQ("-", ParseCache({"dump", "a", "--raw", "-"}).raw);
  EXPECT_EQ("out", ParseCache({"dump", "--raw", "out", "a"}).raw);
  EXPECT_FALSE(ParseCache({"purge", "a"}).yes);
  EXPECT_TRUE(ParseCache({"purge", "a", "--yes"}).yes);
}

TEST(OptionsTest, DoctorHasDefaultsForAllButTheUrl) {
  const DoctorCommand command = ParseDoctor({});

  EXPECT_EQ(kUrl, command.url);
  EXPECT_EQ(10, command.timeout_s);
  EXPECT_FALSE(command.probe);
  EXPECT_FALSE(command.json);
  EXPECT_FALSE(command.proxy);
}

TEST(OptionsTest, DoctorTakesItsOptionsAndThoseOfSendThatConnect) {
  const DoctorCommand command = ParseDoctor(
      {"--timeout", "0.5", "--probe", "--json", "--cacert", "ca.pem", "--capath", "cas", "--pin",
       "p", "--http1", "--socks5", "u:p@h:1", "--client-cert", "c.pem", "--client-key", "c.key"});

  EXPECT_EQ(0.5, command.timeout_s);
  EXPECT_TRUE(command.probe);
  EXPECT_TRUE(command.json);
  EXPECT_EQ("ca.pem", command.ca_file);
  EXPECT_EQ("cas", command.ca_folder);
  EXPECT_EQ(std::vector<std::string>{"p"}, command.pins);
  EXPECT_TRUE(command.http1);
  ASSERT_TRUE(command.proxy);
  EXPECT_EQ("u", command.proxy->user);
  EXPECT_EQ("c.pem", command.client_certificate_file);
  EXPECT_EQ("c.key", command.client_key_file);
}

TEST(OptionsTest, TakesTheChannelNamesThatLeadNowhereElse) {
  for (const char* name : {"a", ".", "..", "a/b", "/a", "a//b", "a/", "a/..", "..a/b", "a../b"}) {
    EXPECT_EQ(name, Parse({"--channel", name}).channel);
  }
  const std::string longest(236, 'n');
  EXPECT_EQ(longest, Parse({"--channel", longest.c_str()}).channel);
  EXPECT_NE("", Objection({"send", "--url", kUrl, "--channel", (longest + "n").c_str()}));
}

TEST(OptionsTest, TakesTheProxysPasswordFromTheEnvironment) {
  ASSERT_EQ(0, ::setenv("QUENOR_REPORT_PROXY_PASSWORD", "p%41", 1));

  EXPECT_EQ("p%41", Parse({"--socks5", "u@h:1"}).proxy->password);
  EXPECT_EQ("p%41", ParseDoctor({"--socks5", "u@h:1"}).proxy->password);
  EXPECT_EQ("q", Parse({"--socks5", "u:q@h:1"}).proxy->password);
  EXPECT_FALSE(Parse({}).proxy);
  ::unsetenv("QUENOR_REPORT_PROXY_PASSWORD");
}

TEST(OptionsTest, NamesWhatWasMistypedAndWhatIsNearest) {
  const struct {
    std::vector<const char*> arguments;
    const char* objection;
  } cases[] = {
      {{"sned", "--url", kUrl},
       "there is no command \"sned\" (did you mean send?); see quenor-report --help"},
      {{"frobnicate"}, "there is no command \"frobnicate\"; see quenor-report --help"},
      {{"--versoin"},
       "there is no option \"--versoin\" (did you mean --version?); see quenor-report --help"},
      {{"send", "--urll", kUrl},
       "there is no option \"--urll\" (did you mean --url?); see quenor-report send --help"},
      {{"send", "--url", kUrl, "--snednow"},
       "there is no option \"--snednow\" (did you mean --send-now?); see quenor-report send "
       "--help"},
      {{"send", "--url", kUrl, "--sock5=me:secret@h:1"},
       "there is no option \"--sock5\" (did you mean --socks5?); see quenor-report send --help"},
      {{"doctor", "--url", kUrl, "--jason"},
       "there is no option \"--jason\" (did you mean --json?); see quenor-report doctor --help"},
      {{"cache", "lst", "f"},
       "there is no command \"lst\" (did you mean list?); see quenor-report cache --help"},
      {{"cache", "purge", "f", "--yess"},
       "there is no option \"--yess\" (did you mean --yes?); see quenor-report cache --help"},
      {{"cache", "list", "f", "g"}, "\"g\" is one name too many; see quenor-report cache --help"},
      {{"send", "--url", kUrl, "--interval", "soon"},
       "Could not convert: --interval = soon; see quenor-report send --help"},
      {{}, "give one of send, cache and doctor; see quenor-report --help"},
  };
  for (const auto& test : cases) EXPECT_EQ(test.objection, Objection(test.arguments));
}

TEST(OptionsTest, RefusesWrongUsageInOneLine) {
  const std::vector<std::vector<const char*>> cases = {
      {},
      {"send"},
      {"recv", "--url", kUrl},
      {"send", "--url", kUrl, "--nonsense"},
      {"send", "--url", "no url"},
      {"send", "--url", ""},
      {"send", "--url", kUrl, "--lines", "file"},
      {"send", "--url", kUrl, "-", "-"},
      {"send", "--url", kUrl, "--socks5", "host"},
      {"send", "--url", kUrl, "--socks5", ""},
      {"send", "--url", kUrl, "--proxy-password-file", "/dev/null"},
      {"send", "--url", kUrl, "--socks5", "u@h:1", "--proxy-password-file", "/dev/null"},
      {"send", "--url", kUrl, "--socks5", "u@h:1", "--proxy-password-file", ""},
      {"doctor", "--url", kUrl, "--socks5", "u@h:1", "--proxy-password-file", "/none/such"},
      {"send", "--url", kUrl, "--socks5", "a:1", "--proxy", "b:1"},
      {"send", "--url", kUrl, "--proxy", "ftp://a:1"},
      {"send", "--url", kUrl, "--proxy", "http://a"},
      {"send", "--url", kUrl, "--proxy", "http://a:1/path"},
      {"send", "--url", kUrl, "--proxy", "a:1", "--proxy-from-environment"},
      {"send", "--url", kUrl, "--no-proxy", "a"},
      {"send", "--url", kUrl, "--header", ""},
      {"send", "--url", kUrl, "--header", "s3cret"},
      {"send", "--url", kUrl, "--header", ": s3cret"},
      {"send", "--url", kUrl, "--header", "A: s3cret", "--header", "A: s3cret"},
      {"send", "--url", kUrl, "--header", "@/none/such"},
      {"send", "--url", kUrl, "--header", "@/"},
      {"doctor", "--url", kUrl, "--key-passphrase-file", "/dev/null"},
      {"doctor", "--url", kUrl, "--client-cert", "c", "--key-passphrase-file", "/dev/null"},
      {"doctor", "--url", kUrl, "--connect-to", ""},
      {"send", "--url", kUrl, "--cacert", ""},
      {"send", "--url", kUrl, "--capath", ""},
      {"send", "--url", kUrl, "--pin"},
      {"send", "--url", kUrl, "--client-cert", ""},
      {"send", "--url", kUrl, "--client-key", "k"},
      {"send", "--url", kUrl, "--interval", "-1"},
      {"send", "--url", kUrl, "--interval", "4294967296"},
      {"send", "--url", kUrl, "--interval", "soon"},
      {"send", "--url", kUrl, "--max-resend", "0"},
      {"send", "--url", kUrl, "--wait", "-1"},
      {"send", "--url", kUrl, "--wait", "nan"},
      {"send", "--url", kUrl, "--wait", "inf"},
      {"send", "--url", kUrl, "--channel", ""},
      {"send", "--url", kUrl, "--channel", "../b"},
      {"send", "--url", kUrl, "--channel", "a/../b"},
      {"send", "--url", kUrl, "--channel", "/../b"},
      {"send", "--url", kUrl, "--channel", "a\nb"},
      {"doctor"},
      {"doctor", "--url", "no url"},
      {"doctor", "--url", kUrl, "--timeout", "0"},
      {"doctor", "--url", kUrl, "--timeout", "-1"},
      {"doctor", "--url", kUrl, "--timeout", "nan"},
      {"doctor", "--url", kUrl, "--timeout", "3601"},
      {"doctor", "--url", kUrl, "--socks5", "host"},
      {"doctor", "--url", kUrl, "--client-key", "k"},
      {"doctor", "--url", kUrl, "--channel", "c"},
      {"doctor", "--url", kUrl, "--insecure"},
      {"doctor", "--url", kUrl, "file"},
      {"cache"},
      {"cache", "list"},
      {"cache", "list", ""},
      {"cache", "frobnicate", "a"},
      {"cache", "list", "a", "b"},
      {"cache", "list", "a", "--yes"},
      {"cache", "purge", "a", "--raw", "-"},
      {"cache", "dump", "a", "--raw"},
      {"send", "--url", kUrl, "--cache", "2"},
      {"send", "--url", kUrl, "--cache", ""},
      {"send", "--url", kUrl, "--cache-dir", ""},
      {"send", "--url", kUrl, "--cache-dir", "/dev/null"},
  };
  for (const auto& arguments : cases) {
    EXPECT_NE("", Objection(arguments))
        << arguments.size() << " " << (arguments.empty() ? "" : arguments.back());
    EXPECT_EQ(std::string::npos, Objection(arguments).find("s3cret")) << Objection(arguments);
  }
}

}  // namespace
}  // namespace quenor::cli
