// Scripts of --misbehave on TLS connections: alerts, and ends with and without a farewell.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "collector/http/misbehaviour.h"
#include "tests/collector/support/child.h"
#include "tests/collector/support/raw_http.h"
#include "tests/collector/support/raw_tls.h"
#include "tests/support/temp_folder.h"

namespace quenor::collector::test {
namespace {

using End = RawTlsClient::End;

constexpr char kPost[] = "POST / HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\n\r\nx";
constexpr int kVersions[] = {TLS1_2_VERSION, TLS1_3_VERSION};

class MisbehaviourTlsTest : public ::testing::Test {
 protected:
  TempFolder dir_;
};

TEST_F(MisbehaviourTlsTest, AnswersEndAsTheScriptSays) {
  struct Case {
    const char* kind;
    End end;
  };
  for (const Case& ending : {Case{"close", End::kFarewell}, Case{"cut", End::kCut},
                             Case{"reset", End::kReset}, Case{"alert", End::kAlert}}) {
    Collector collector(dir_ / "", Collector::Transport::kTls,
                        {"--misbehave", std::string("all: ") + ending.kind + "=body+5"});
    for (const int version : kVersions) {
      RawTlsClient client(collector.port(), version);
      client.Send(kPost);

      const std::string answer = client.ReadAll();

      EXPECT_EQ(answer.substr(answer.find("\r\n\r\n") + 4), "{\"byt") << ending.kind;
      EXPECT_EQ(client.end(), ending.end) << ending.kind;
      EXPECT_EQ(client.alert(), ending.end == End::kAlert ? 20 : 0) << ending.kind;
    }
    const Ended ended = collector.Stop();
    EXPECT_EQ(ended.exit_code, 0) << ended.err;
  }
}

TEST_F(MisbehaviourTlsTest, AnAlertCanTakeThePlaceOfTheAnswerOrComeWithTheNextRequest) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--misbehave", "1: alert\n2: alert=next\n3: alert=request+1"});
  for (const bool is_next : {false, true, false}) {
    RawTlsClient client(collector.port());
    client.Send(kPost);
    if (is_next) client.Send(kPost);

    EXPECT_EQ(CountOf(client.ReadAll(), "HTTP/1.1 200 OK"), is_next ? 1 : 0);

    EXPECT_EQ(client.end(), End::kAlert);
  }
}

TEST_F(MisbehaviourTlsTest, HandshakesAreRefusedWithTheAlertOfTheScript) {
  const std::vector<std::string> names = {
      "unexpected_message",     "bad_record_mac",      "record_overflow",
      "handshake_failure",      "bad_certificate",     "unsupported_certificate",
      "certificate_revoked",    "certificate_expired", "certificate_unknown",
      "illegal_parameter",      "unknown_ca",          "access_denied",
      "decode_error",           "decrypt_error",       "protocol_version",
      "insufficient_security",  "internal_error",      "unrecognized_name",
      "no_application_protocol"};
  std::string script;
  for (size_t i = 0; i < 2 * names.size(); ++i) {
    script += "connection " + std::to_string(i + 1) + ": refuse=" + names[i / 2] + "\n";
  }
  Collector collector(dir_ / "", Collector::Transport::kTls, {"--misbehave", script});

  for (const std::string& name : names) {
    for (const int version : kVersions) {
      const RawTlsClient client(collector.port(), version);

      EXPECT_FALSE(client.is_up()) << name;
      EXPECT_EQ(client.alert(), AlertNumber(name)) << name;
    }
  }
  EXPECT_EQ(Post(*collector.NewClient(), "body"), 200);
  const Ended ended = collector.Stop();
  EXPECT_EQ(ended.exit_code, 0) << ended.err;
  EXPECT_EQ(ended.out, "requests=1 accepted=1 failed=0 distinct=1 bytes=4\n");
}

TEST_F(MisbehaviourTlsTest, ConnectionsEndInPlaceOfTheHandshake) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--misbehave", "connection 1: close\nconnection 2: reset"});

  const RawTlsClient closed(collector.port());
  const RawTlsClient reset(collector.port());

  EXPECT_EQ(closed.end(), End::kCut);
  EXPECT_EQ(reset.end(), End::kReset);
  EXPECT_EQ(Post(*collector.NewClient(), "body"), 200);
}

TEST_F(MisbehaviourTlsTest, AnAnswerThatIsReadLateComesWhole) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--misbehave", "1: body-size=32MiB", "--threads", "1"});
  RawTlsClient client(collector.port());
  client.Send("POST / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
  // The one worker answers others once it waits for this client to read.
  EXPECT_EQ(Post(*collector.NewClient(), "body"), 200);

  const std::string answer = client.ReadAll();

  EXPECT_EQ(answer.size() - answer.find("\r\n\r\n") - 4, 32u << 20);
}

TEST_F(MisbehaviourTlsTest, AHandshakeThatIsNeverAnsweredSparesTheWorker) {
  Collector collector(dir_ / "", Collector::Transport::kTls,
                      {"--misbehave", "connection 1: hang", "--threads", "1"});
  RawClient client(collector.port());
  client.Send("\x16\x03\x01");

  // By the second post the one worker has seen what came before it.
  EXPECT_EQ(Post(*collector.NewClient(), "body"), 200);
  EXPECT_EQ(Post(*collector.NewClient(), "body"), 200);

  EXPECT_EQ(client.ReadWhatIsThere(), "");
  EXPECT_FALSE(client.has_ended());
  const Ended ended = collector.Stop();
  EXPECT_EQ(ended.exit_code, 0) << ended.err;
}

}  // namespace
}  // namespace quenor::collector::test
