#include "cli/doctor/socks5.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace quenor::cli {
namespace {

using Result = Step::Result;

// Answers what the test wrote down, then ends as it says.
class ScriptedWire : public Wire {
 public:
  explicit ScriptedWire(std::string answers, End end = End::kClosed)
      : answers_(std::move(answers)), end_(end) {}

  End Write(const std::string& bytes) override {
    written += bytes;
    return End::kNone;
  }
  End Read(size_t size, std::string* bytes) override {
    *bytes = answers_.substr(0, size);
    answers_.erase(0, size);
    return bytes->size() == size ? End::kNone : end_;
  }

  std::string written;
  size_t unread() const { return answers_.size(); }

 private:
  std::string answers_;
  const End end_;
};

std::string Bytes(std::initializer_list<int> values) {
  std::string bytes;
  for (const int value : values) bytes += static_cast<char>(value);
  return bytes;
}

const Socks5Address kOpen = {"proxy", 1080, "", ""};
const Socks5Address kNamed = {"proxy", 1080, "me", "pa"};
const Place kServer = {"server.example", 443};

std::string Connected() { return Bytes({5, 0, 0, 1, 127, 0, 0, 1, 4, 5}); }

TEST(DoctorSocks5Test, AsksForTheNameWithoutAuthentication) {
  ScriptedWire wire(Bytes({5, 0}) + Connected());

  const Step step = AskProxy(wire, kOpen, kServer);

  EXPECT_EQ(Result::kOk, step.result) << step.summary;
  EXPECT_EQ(Bytes({5, 1, 0, 5, 1, 0, 3, 14}) + "server.example" + Bytes({1, 187}), wire.written);
  EXPECT_EQ(0u, wire.unread());
}

TEST(DoctorSocks5Test, ProvesUserAndPassword) {
  ScriptedWire wire(Bytes({5, 2, 1, 0}) + Connected());

  const Step step = AskProxy(wire, kNamed, kServer);

  EXPECT_EQ(Result::kOk, step.result) << step.summary;
  EXPECT_EQ(Bytes({5, 2, 0, 2, 1, 2, 'm', 'e', 2, 'p', 'a', 5, 1, 0, 3, 14}),
            wire.written.substr(0, 16));
}

TEST(DoctorSocks5Test, LeavesThePasswordOutWhenTheProxyDoesNotWantIt) {
  ScriptedWire wire(Bytes({5, 0}) + Connected());

  const Step step = AskProxy(wire, kNamed, kServer);

  EXPECT_EQ(Result::kOk, step.result) << step.summary;
  EXPECT_EQ(std::string::npos, wire.written.find("pa"));
}

TEST(DoctorSocks5Test, SendsAddressesAsAddresses) {
  ScriptedWire four(Bytes({5, 0}) + Connected());
  ScriptedWire six(Bytes({5, 0}) + Connected());

  AskProxy(four, kOpen, {"127.0.0.2", 80});
  AskProxy(six, kOpen, {"::1", 80});

  EXPECT_EQ(Bytes({5, 1, 0, 1, 127, 0, 0, 2, 0, 80}), four.written.substr(3));
  EXPECT_EQ(Bytes({5, 1, 0, 4}) + std::string(15, '\0') + Bytes({1, 0, 80}), six.written.substr(3));
}

TEST(DoctorSocks5Test, TakesTheWholeReplyWhateverAddressIsInIt) {
  for (const std::string& reply :
       {Bytes({5, 0, 0, 3, 2, 'a', 'b', 0, 1}), Bytes({5, 0, 0, 4}) + std::string(18, 'x')}) {
    ScriptedWire wire(Bytes({5, 0}) + reply + "tls");

    EXPECT_EQ(Result::kOk, AskProxy(wire, kOpen, kServer).result);
    EXPECT_EQ(3u, wire.unread());
  }
}

TEST(DoctorSocks5Test, NamesEveryReplyCode) {
  const struct {
    int code;
    const char* cause;
    const char* words;
  } cases[] = {
      {1, "proxy_failure", "general failure"},     {2, "proxy_ruleset", "rules"},
      {3, "proxy_network", "network unreachable"}, {4, "proxy_host", "host unreachable"},
      {5, "proxy_refused", "connection refused"},  {6, "proxy_ttl", "TTL expired"},
      {7, "proxy_command", "how to connect"},      {8, "proxy_address", "kind of address"},
      {9, "proxy_failure", "does not know"},       {255, "proxy_failure", "does not know"},
  };
  for (const auto& test : cases) {
    ScriptedWire wire(Bytes({5, 0, 5, test.code, 0, 1, 0, 0, 0, 0, 0, 0}));

    const Step step = AskProxy(wire, kOpen, kServer);

    EXPECT_EQ(Result::kFailed, step.result);
    EXPECT_EQ(test.cause, step.cause);
    EXPECT_NE(std::string::npos, step.summary.find(test.words)) << step.summary;
    EXPECT_NE("", step.advice);
  }
}

TEST(DoctorSocks5Test, SaysWhatTheProxyWantsInTheGreeting) {
  const struct {
    const Socks5Address* proxy;
    std::string answer;
    const char* cause;
    const char* words;
  } cases[] = {
      {&kOpen, Bytes({5, 255}), "proxy_auth", "without user and password"},
      {&kNamed, Bytes({5, 255}), "proxy_auth", "neither user and password"},
      {&kNamed, Bytes({5, 1}), "proxy_auth", "of kind 1"},
      {&kOpen, Bytes({5, 2}), "proxy_auth", "of kind 2"},
      {&kOpen, "HTTP/1.1 400", "proxy_not_socks5", "no SOCKS5"},
      {&kOpen, Bytes({4}), "proxy_not_socks5", "no SOCKS5"},
      {&kOpen, Bytes({5}), "proxy_closed", "after the greeting"},
      {&kOpen, "", "proxy_closed", "after the greeting"},
  };
  for (const auto& test : cases) {
    ScriptedWire wire(test.answer);

    const Step step = AskProxy(wire, *test.proxy, kServer);

    EXPECT_EQ(Result::kFailed, step.result);
    EXPECT_EQ(test.cause, step.cause) << step.summary;
    EXPECT_NE(std::string::npos, step.summary.find(test.words)) << step.summary;
  }
}

TEST(DoctorSocks5Test, AWrongPasswordIsNamedWithoutIt) {
  for (const std::string& answer : {Bytes({5, 2, 1, 1}), Bytes({5, 2, 1, 255}), Bytes({5, 2})}) {
    ScriptedWire wire(answer);

    const Step step = AskProxy(wire, {"proxy", 1, "me", "s3cret"}, kServer);

    EXPECT_EQ("proxy_auth", step.cause);
    EXPECT_NE(std::string::npos, step.summary.find("\"me\""));
    EXPECT_EQ(std::string::npos, AsText(step).find("s3cret"));
  }
}

TEST(DoctorSocks5Test, ATimeLimitIsNamedWhereverItPasses) {
  const std::string whole = Bytes({5, 2, 1, 0}) + Connected();
  for (size_t size = 0; size < whole.size(); ++size) {
    ScriptedWire wire(whole.substr(0, size), Wire::End::kTimedOut);

    EXPECT_EQ("proxy_timeout", AskProxy(wire, kNamed, kServer).cause) << size;
  }
}

TEST(DoctorSocks5Test, AnEndWithinTheReplyIsNamed) {
  const std::string whole = Bytes({5, 0}) + Connected();
  for (size_t size = 2; size < whole.size(); ++size) {
    ScriptedWire wire(whole.substr(0, size));

    EXPECT_EQ("proxy_closed", AskProxy(wire, kOpen, kServer).cause) << size;
  }
}

TEST(DoctorSocks5Test, WritingEndsWithItsTimeAndWithThePeer) {
  int ends[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends));
  SocketWire wire(ends[0], /*timeout_ms=*/1);

  EXPECT_EQ(Wire::End::kTimedOut, wire.Write(std::string(16 << 20, 'x')));
  ::close(ends[1]);
  EXPECT_EQ(Wire::End::kClosed, wire.Write("x"));
  ::close(ends[0]);
}

}  // namespace
}  // namespace quenor::cli
