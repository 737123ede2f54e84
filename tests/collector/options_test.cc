#include "collector/options.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "collector/fatal.h"
#include "collector/option_types.h"

namespace quenor::collector {
namespace {

std::optional<Options> Parse(std::vector<std::string> words) {
  words.insert(words.begin(), "quenor-collector");
  std::vector<const char*> argv;
  for (const std::string& word : words) argv.push_back(word.c_str());
  return ParseCommandLine(static_cast<int>(argv.size()), argv.data());
}

// The one line that a wrong command line ends with.
std::string UsageError(const std::vector<std::string>& words) {
  try {
    Parse(words);
  } catch (const Fatal& fatal) {
    EXPECT_EQ(fatal.exit_code(), kExitUsage);
    return fatal.what();
  }
  return "accepted";
}

TEST(OptionsTest, DefaultsListenOnAFreeLoopbackPort) {
  const Options options = *Parse({});

  EXPECT_EQ(options.server.host, "127.0.0.1");
  EXPECT_EQ(options.server.port, 0);
  EXPECT_EQ(options.server.threads, 64u);
  EXPECT_EQ(options.server.max_body_bytes, 64u << 20);
  EXPECT_EQ(options.server.idle_timeout_s, 300u);
  EXPECT_EQ(options.server.head_timeout_s, 10u);
  EXPECT_EQ(options.server.body_timeout_s, 300u);
  EXPECT_EQ(options.server.misbehaviour.PlanFor(1).words, "");
  EXPECT_FALSE(options.recorder.inflate);
}

TEST(OptionsTest, SizesTakeUnitsOf1024) {
  EXPECT_EQ(Parse({"--max-body", "3MiB"})->server.max_body_bytes, 3u << 20);
  EXPECT_EQ(Parse({"--max-body", "3kb"})->server.max_body_bytes, 3u << 10);
  EXPECT_EQ(Parse({"--max-inflated", "77"})->recorder.max_inflated_bytes, 77u);
}

TEST(OptionsTest, PageIsServedOnLoopback) {
  const auto page = std::get<PageOptions>(Parse({"page", "--store", "a,b"})->command);
  EXPECT_EQ(page.host, "127.0.0.1");
  EXPECT_EQ(page.port, 8390);
  EXPECT_EQ(page.reader, "export");

  const auto given =
      std::get<PageOptions>(Parse({"page", "--store", "a", "--listen", "[::]:0", "--collector",
                                   "http://a:1", "--collector", "https://[::1]", "--monitor",
                                   "http://b:8222", "--name", "page.internal"})
                                ->command);
  EXPECT_EQ(given.host, "::");
  EXPECT_EQ(given.collectors, (std::vector<std::string>{"http://a:1", "https://[::1]"}));
  EXPECT_EQ(given.monitors, std::vector<std::string>{"http://b:8222"});
  EXPECT_EQ(given.names, std::vector<std::string>{"page.internal"});
}

TEST(OptionsTest, PageAsksUrlsWithoutPaths) {
  for (const char* url : {"", "one", "http://", "ftp://one", "http://one/metrics", "http://u@one",
                          "http://one?a", "nats://one"}) {
    EXPECT_NE(UsageError({"page", "--store", "a", "--collector", url}).find("not an address"),
              std::string::npos)
        << url;
  }
}

TEST(OptionsTest, ControlFieldsOfZeroAreSet) {
  const Options options = *Parse({"--send-interval", "0", "--report-duration", "7"});

  EXPECT_EQ(options.server.reply.send_interval_ms, std::optional<uint64_t>(0));
  EXPECT_EQ(options.server.reply.max_resend_count, std::nullopt);
  EXPECT_EQ(options.server.reply.report_duration_s, std::optional<uint64_t>(7));
}

TEST(OptionsTest, AddressesOfBothFamiliesAreSplit) {
  using Address = std::pair<std::string, int>;

  EXPECT_EQ(ParseAddress("127.0.0.1:8443"), Address("127.0.0.1", 8443));
  EXPECT_EQ(ParseAddress("localhost:0"), Address("localhost", 0));
  EXPECT_EQ(ParseAddress("[::1]:65535"), Address("::1", 65535));
}

TEST(OptionsTest, WrongAddressesAreNamed) {
  for (const char* address : {"", "host", ":1", "host:", "host:x", "host:65536", "host:-1",
                              "host:000001", "::1:80", "[]:80", "[::1]", "[::1:80"}) {
    EXPECT_NE(UsageError({"--listen", address}).find("\"" + std::string(address) + "\""),
              std::string::npos)
        << address;
  }
}

TEST(OptionsTest, WrongValuesNameTheirOption) {
  const std::vector<std::pair<std::string, std::string>> wrong = {
      {"--seed", "-3"},
      {"--seed", "x"},
      {"--misbehave", ""},
      {"--max-body", "-1"},
      {"--max-body", "1 parsec"},
      {"--threads", "0"},
      {"--send-interval", "4294967296"},
      {"--idle-timeout", "0"},
      {"--out", ""},
      {"--log", ""},
      {"--max-resend", "99999999999999999999"},
  };
  for (const auto& [option, value] : wrong) {
    EXPECT_NE(UsageError({option, value}).find(option), std::string::npos) << option << value;
  }
}

TEST(OptionsTest, EachNumberIsTakenUpToItsBoundsAndNoFurther) {
  struct Bound {
    const char* option;
    std::vector<const char*> taken;
    std::vector<const char*> refused;
  };
  const Bound bounds[] = {
      {"--threads", {"1", "4096"}, {"0", "4097"}},
      {"--idle-timeout", {"1", "86400"}, {"0", "86401"}},
      {"--head-timeout", {"1", "86400"}, {"0", "86401"}},
      {"--body-timeout", {"1", "86400"}, {"0", "86401"}},
      {"--max-body", {"0", "1TiB", "1099511627776"}, {"1025GiB", "1099511627777"}},
      {"--max-inflated", {"0", "1099511627776"}, {"1099511627777"}},
      {"--send-interval", {"0", "4294967295"}, {"4294967296"}},
      {"--max-resend", {"0", "4294967295"}, {"4294967296"}},
      {"--report-duration", {"0", "4294967295"}, {"4294967296"}},
      {"--seed", {"0", "9223372036854775807"}, {"9223372036854775808", "10000000000000000000"}},
      {"--listen", {"h:0", "h:65535"}, {"h:65536", "h:000000"}},
  };
  for (const Bound& bound : bounds) {
    for (const char* value : bound.taken) {
      EXPECT_EQ("accepted", UsageError({bound.option, value})) << bound.option;
    }
    for (const char* value : bound.refused) {
      EXPECT_NE("accepted", UsageError({bound.option, value})) << bound.option << " " << value;
    }
  }
}

TEST(OptionsTest, ScriptLinesAndFilesAddUpInTheirOrder) {
  const std::string path = ::testing::TempDir() + "quenor-script-" + std::to_string(::getpid());
  std::ofstream(path) << "2: status=502\n3: status=502\n";

  const Options options = *Parse({"--misbehave", "all: status=501", "--misbehave", path,
                                  "--misbehave", "3: status=503\n4: status=504", "--seed", "9"});
  std::remove(path.c_str());

  const Misbehaviour& misbehaviour = options.server.misbehaviour;
  EXPECT_EQ(misbehaviour.seed(), 9u);
  for (int number = 1; number <= 4; ++number) {
    EXPECT_EQ(misbehaviour.PlanFor(number).status, 500 + number) << number;
  }
}

TEST(OptionsTest, AlertsNeedACertificate) {
  const std::string error = UsageError({"--misbehave", "all: alert"});

  EXPECT_NE(error.find("--misbehave:1: "), std::string::npos) << error;
  EXPECT_NE(error.find("--cert"), std::string::npos) << error;
  EXPECT_TRUE(Parse({"--cert", "c", "--key", "k", "--misbehave", "all: alert"}));
}

TEST(OptionsTest, UnknownOptionsAndStrayWordsAreNamed) {
  EXPECT_NE(UsageError({"--bogus"}).find("--bogus"), std::string::npos);
  EXPECT_NE(UsageError({"stray"}).find("stray"), std::string::npos);
}

TEST(OptionsTest, CertificateAndKeyNeedEachOther) {
  EXPECT_NE(UsageError({"--cert", "c"}).find("--key"), std::string::npos);
  EXPECT_NE(UsageError({"--key", "k"}).find("--cert"), std::string::npos);
}

TEST(OptionsTest, ControlAloneSaysWhatItCanDo) {
  EXPECT_NE(UsageError({"control"}).find("A subcommand is required"), std::string::npos);
}

TEST(OptionsTest, NumberWithALeadingZeroIsNotTakenForOctal) {
  EXPECT_NE(UsageError({"--threads", "010"}).find("not a whole number from 1 to 4096: \"010\""),
            std::string::npos);
}

TEST(OptionsTest, StoreIsAListOfNodes) {
  const TierOptions tier =
      Parse({"--store", "nats://a,u:p@b:4223,nats://c", "--stream", "S-1", "--hold", "2500ms",
             "--ack-wait", "1s", "--max-in-flight-bytes", "1MiB", "--max-body", "7", "--listen",
             "[::1]:80", "--path", "/a", "--path", "/b"})
          ->tier;

  EXPECT_EQ(tier.store.nodes,
            (std::vector<std::string>{"nats://a", "nats://u:p@b:4223", "nats://c"}));
  EXPECT_EQ(tier.store.stream, "S-1");
  EXPECT_EQ(tier.hold.hold, std::chrono::milliseconds(2500));
  EXPECT_EQ(tier.hold.ack_wait, std::chrono::seconds(1));
  EXPECT_EQ(tier.hold.max_reports, 50'000u);
  EXPECT_EQ(tier.hold.max_bytes, 1u << 20);
  EXPECT_EQ(tier.max_body_bytes, 7u);
  EXPECT_EQ(tier.host, "::1");
  EXPECT_EQ(tier.paths, (std::vector<std::string>{"/a", "/b"}));
  EXPECT_TRUE(Parse({})->tier.store.nodes.empty());
}

TEST(OptionsTest, WhatHasNoMeaningBesideAStoreIsRefused) {
  EXPECT_NE(UsageError({"--store", "a", "--out", "x"}).find("--out has no meaning"),
            std::string::npos);
  EXPECT_NE(UsageError({"--hold", "1s"}).find("requires --store"), std::string::npos);
  for (const char* path : {"app", "", "/app?v=1", "/app#a", "/a b"}) {  // No report's would be.
    EXPECT_NE(UsageError({"--store", "a", "--path", path}).find("is no path of a request"),
              std::string::npos)
        << path;
  }
  EXPECT_NE(UsageError({"--store", "a,,b"}).find("give the nodes as in"), std::string::npos);
  EXPECT_NE(UsageError({"--store", "a,tls://b"}).find("no TLS to the store"), std::string::npos);
  EXPECT_NE(UsageError({"--store", "http://a"}).find("give the nodes as in"), std::string::npos);
  EXPECT_NE(UsageError({"--store", "a", "--send-interval", "9"}).find("at least 15000"),
            std::string::npos);
  EXPECT_NE(UsageError({"--store", "a", "--stream", "a.b"}).find("name for the store"),
            std::string::npos);
  for (const char* hold : {"20", "0s", "-1s", "soon"}) {
    EXPECT_NE(UsageError({"--store", "a", "--hold", hold}).find("--hold"), std::string::npos)
        << hold;
  }
}

}  // namespace
}  // namespace quenor::collector
