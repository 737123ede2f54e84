// The client seen from outside its process; http_client_program is the process.
#include <csignal>
#include <filesystem>
#include <set>
#include <sstream>

#include "tests/integration/http_client_fixture.h"
#include "tests/integration/support/flood_server.h"
#include "tests/integration/support/scripted_server.h"
#include "tests/integration/support/servers.h"

namespace quenor::test {
namespace {

using Connection = ScriptedServer::Connection;

class HttpClientProcessTest : public HttpClientTest {
 protected:
  int Run(const std::string& mode, const std::string& url,
          const std::vector<std::string>& environment = {}) {
    ChildProcess child({QUENOR_HTTP_CLIENT_PROGRAM, mode, url, authority_.ca_file()},
                       folder_.File("output"), environment);
    return child.Wait();
  }
  std::string Output() const { return ReadWholeFile(folder_.File("output")); }

  static ScriptedServer::Script Answering() {
    return [](Connection& connection) {
      ReceivedRequest request;
      while (connection.ReadRequest(&request)) connection.Respond(200, "{}");
    };
  }
  // nginx, as it comes to many connections and HTTP/2.
  NginxServer::Options NginxOptions(bool http2) const {
    NginxServer::Options options;
    options.certificate = &certificate_;
    options.http2 = http2;
    options.server_lines = "location / { return 200 '{}'; }";
    return options;
  }
};

// ---- Environment --------------------------------------------------------------------------------

TEST_F(HttpClientProcessTest, ProxiesInTheEnvironmentAreIgnored) {
  ScriptedServer tls(Answering(), &certificate_);
  ScriptedServer plain(Answering());
  const std::string dead = "http://127.0.0.1:" + std::to_string(UnusedPort());
  const std::vector<std::string> environment = {
      "https_proxy=" + dead, "HTTPS_PROXY=" + dead, "http_proxy=" + dead, "HTTP_PROXY=" + dead,
      "all_proxy=" + dead,   "ALL_PROXY=" + dead,   "no_proxy=",          "NO_PROXY="};

  EXPECT_EQ(Run("post", tls.Origin() + "/", environment), 0) << Output();
  EXPECT_EQ(Run("post", plain.Origin() + "/", environment), 0) << Output();
}

TEST_F(HttpClientProcessTest, NoVariableThatIsAskedForWeakensTheClient) {
  CertificateAuthority other(folder_.path(), "other");
  const Certificate not_trusted = other.Issue("server", "IP:127.0.0.1");
  ScriptedServer good(Answering(), &certificate_);
  ScriptedServer bad(Answering(), &not_trusted);
  ASSERT_EQ(Run("asked", good.Origin() + "/"), 0) << Output();
  std::istringstream names(Output());
  std::set<std::string> asked;
  for (std::string name; std::getline(names, name);) {
    // Those of the program's own and of the sanitizers' run-time.
    if (name.rfind("QUENOR_", 0) != 0 && name.find("SAN") == std::string::npos) asked.insert(name);
  }
  EXPECT_EQ(asked.count("OPENSSL_CONF"), 1u) << Output();  // The trace sees what libraries ask.

  // Some name a file that libcurl opens for writing, where the program stands.
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(folder_.path());
  for (const std::string& name : asked) {
    for (const std::string& value : {std::string("1"), other.ca_file(), folder_.path()}) {
      EXPECT_NE(Run("post", bad.Origin() + "/", {name + "=" + value}), 0) << name << "=" << value;
    }
    EXPECT_EQ(Run("post", good.Origin() + "/", {name + "=1"}), 0) << name;
  }
  std::filesystem::current_path(before);
}

TEST_F(HttpClientProcessTest, OpenSslConfigurationNeitherSwitchesEncryptionOffNorAddsAnAuthority) {
  CertificateAuthority other(folder_.path(), "other");
  const Certificate not_trusted = other.Issue("server", "DNS:localhost");
  const auto configured = [&](const std::string& line) {
    EXPECT_TRUE(WriteWholeFile(folder_.File("openssl.cnf"),
                               "openssl_conf = init\n[init]\nssl_conf = ssl\n[ssl]\n"
                               "system_default = default\n[default]\n" +
                                   line + "\n"));
    return std::vector<std::string>{"OPENSSL_CONF=" + folder_.File("openssl.cnf")};
  };
  NginxServer::Options options = NginxOptions(false);
  NginxServer good(options);
  options.certificate = &not_trusted;
  NginxServer bad(options);
  options.certificate = &certificate_;
  options.server_lines += " ssl_protocols TLSv1.2; ssl_ciphers eNULL:@SECLEVEL=0;";
  NginxServer unencrypted(options);

  // The server would agree.
  ChildProcess openssl({"openssl", "s_client", "-cipher", "eNULL:@SECLEVEL=0", "-tls1_2",
                        "-connect", "127.0.0.1:" + std::to_string(unencrypted.port())},
                       folder_.File("s_client"));
  openssl.Wait();
  EXPECT_NE(ReadWholeFile(folder_.File("s_client")).find("NULL-"), std::string::npos);

  EXPECT_NE(
      Run("post", unencrypted.Origin() + "/", configured("CipherString = ALL:eNULL:@SECLEVEL=0")),
      0)
      << Output();
  EXPECT_NE(Run("post", bad.Origin() + "/", configured("VerifyCAFile = " + other.ca_file())), 0);
  EXPECT_EQ(Run("post", good.Origin() + "/", configured("VerifyCAFile = " + other.ca_file())), 0)
      << Output();
}

TEST_F(HttpClientProcessTest, SessionKeysAreWrittenNowhere) {
  ScriptedServer server(Answering(), &certificate_);
  const std::string file = folder_.File("keys");

  EXPECT_EQ(Run("post", server.Origin() + "/", {"SSLKEYLOGFILE=" + file}), 0) << Output();

  EXPECT_EQ(ReadWholeFile(file), "");
}

// ---- Start --------------------------------------------------------------------------------------

TEST_F(HttpClientProcessTest, ThreadStartsWithTheFirstRequestNamedAndWithoutSignals) {
  ScriptedServer server(Answering(), &certificate_);

  EXPECT_EQ(Run("lazy", server.Origin() + "/"), 0) << Output();
}

TEST_F(HttpClientProcessTest, RequestIsRefusedWhileNoThreadCanBeStarted) {
  ScriptedServer server(Answering(), &certificate_);

  EXPECT_EQ(Run("no-thread", server.Origin() + "/"), 0) << Output();
  EXPECT_NE(Output().find("the I/O thread cannot be started"), std::string::npos) << Output();
}

TEST_F(HttpClientProcessTest, RequestsFailWithoutDescriptorsAndWorkAgainAfterwards) {
#if defined(QUENOR_SANITIZED_ADDRESS)
  GTEST_SKIP() << "UndefinedBehaviorSanitizer needs descriptors of its own to check a virtual call";
#endif
  ScriptedServer server(Answering(), &certificate_);

  EXPECT_EQ(Run("no-descriptors", "https://localhost:" + std::to_string(server.port()) + "/"), 0)
      << Output();
  EXPECT_NE(Output().find("no descriptors are left"), std::string::npos) << Output();
}

// ---- Exit ---------------------------------------------------------------------------------------

TEST_F(HttpClientProcessTest, ExitDoesNotWaitForAServerThatHangs) {
  // The server answers nothing until the program has ended: a program that waited would never end.
  ScriptedServer tls([](Connection& connection) { connection.HoldUntilClosed(); }, &certificate_);
  ScriptedServer silent([](Connection& connection) { connection.HoldUntilClosed(); });

  EXPECT_EQ(Run("exit-in-flight", tls.Origin() + "/"), 0) << Output();
  EXPECT_EQ(Run("exit-in-flight", "https://127.0.0.1:" + std::to_string(silent.port()) + "/"), 0)
      << Output();
}

TEST_F(HttpClientProcessTest, ExitInTheMiddleOfTlsTrafficIsClean) {
  NginxServer http1(NginxOptions(false));
  NginxServer http2(NginxOptions(true));
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(Run("exit-while-busy", http1.Origin() + "/"), 0) << Output();
    EXPECT_EQ(Run("exit-while-busy", http2.Origin() + "/", {"QUENOR_TEST_HTTP2=1"}), 0) << Output();
  }
}

TEST_F(HttpClientProcessTest, CallbackMayEndTheProcess) {
  ScriptedServer server(Answering(), &certificate_);

  EXPECT_EQ(Run("exit-inside-callback", server.Origin() + "/"), 0) << Output();
}

TEST_F(HttpClientProcessTest, ExitDoesNotWaitForAServerThatFloods) {
  FloodServer server(Floods()[0], certificate_);

  EXPECT_EQ(Run("exit-while-flooded", server.Url(), {"QUENOR_TEST_HTTP2=1"}), 0) << Output();
}

TEST_F(HttpClientProcessTest, ExitWaitsNoLongerThanItsTimeForAStepThatNeverEnds) {
  ScriptedServer server(Answering(), &certificate_);

  EXPECT_EQ(Run("exit-while-stuck", server.Origin() + "/"), 0) << Output();
}

TEST_F(HttpClientProcessTest, CallbackThatThrowsEndsTheProcessWithALine) {
  ScriptedServer server(Answering(), &certificate_);

  EXPECT_EQ(Run("throw-inside-callback", server.Origin() + "/"), -SIGABRT);
  EXPECT_NE(Output().find("quenor: fatal: an exception left an HTTP completion callback: int"),
            std::string::npos)
      << Output();
}

// ---- Fork ---------------------------------------------------------------------------------------

TEST_F(HttpClientProcessTest, ForkedChildSendsThroughAThreadOfItsOwn) {
  ScriptedServer server(Answering(), &certificate_);

  // The leak check would count what the parent's threads hold.
  EXPECT_EQ(Run("fork", server.Origin() + "/", {"ASAN_OPTIONS=detect_leaks=0"}), 0) << Output();
}

TEST_F(HttpClientProcessTest, ForkInTheMiddleOfTlsTrafficLeavesBothSidesWorking) {
  NginxServer http1(NginxOptions(false));
  NginxServer http2(NginxOptions(true));

  EXPECT_EQ(Run("fork-while-busy", http1.Origin() + "/"), 0) << Output();
  EXPECT_EQ(Run("fork-while-busy", http2.Origin() + "/", {"QUENOR_TEST_HTTP2=1"}), 0) << Output();
}

TEST_F(HttpClientProcessTest, ChildThatReturnsFromACallbackLeavesTheParentsRequestsAlone) {
#if defined(QUENOR_SANITIZED_THREAD)
  GTEST_SKIP() << "TSan itself crashes in a child whose only thread was made detached and returns";
#endif
  ScriptedServer server(Answering(), &certificate_);

  EXPECT_EQ(Run("fork-inside-callback", server.Origin() + "/", {"ASAN_OPTIONS=detect_leaks=0"}), 0)
      << Output();
}

TEST_F(HttpClientProcessTest, WatchingTheNetworkStandsInTheWayOfNoExitAndNoFork) {
  NginxServer server(NginxOptions(true));
  for (const char* const mode :
       {"exit-in-flight", "exit-while-busy", "exit-inside-callback", "fork", "fork-while-busy"}) {
    EXPECT_EQ(Run(mode, server.Origin() + "/",
                  {"QUENOR_TEST_WATCH=1", "QUENOR_TEST_HTTP2=1", "ASAN_OPTIONS=detect_leaks=0"}),
              0)
        << mode << ": " << Output();
  }
}

// ---- Cost ---------------------------------------------------------------------------------------

TEST_F(HttpClientProcessTest, SteadyExchangeStaysWithinItsAllocations) {
  ScriptedServer server(Answering(), &certificate_);

  ASSERT_EQ(Run("allocations", server.Origin() + "/"), 0) << Output();
  // The response, its one header and what the map needs for it; nothing for the request.
  EXPECT_LE(std::stoul(Output()), 4u);
}

TEST_F(HttpClientProcessTest, SteadyExchangeStaysWithinItsSystemCalls) {
  ScriptedServer server(Answering(), &certificate_);

  ASSERT_EQ(Run("system-calls", server.Origin() + "/"), 0) << Output();
  // Wake the I/O thread and take note of it: 2. Is the connection alive, send, has it come, read
  // a record's head and its rest: 6. Wait for the response and for the next request: 2.
  EXPECT_LE(std::stoul(Output()), 10u);
}

TEST_F(HttpClientProcessTest, ThreadThatIsAwakeIsNotWoken) {
  ScriptedServer server(Answering(), &certificate_);

  ASSERT_EQ(Run("chain", server.Origin() + "/"), 0) << Output();
  EXPECT_EQ(Output(), "0\n");
}

TEST_F(HttpClientProcessTest, SystemsAuthoritiesAreReadOnceForManyConnections) {
  ScriptedServer server(Answering(), &certificate_);

  EXPECT_EQ(Run("system-authorities", server.Origin() + "/"), 0) << Output();
}

}  // namespace
}  // namespace quenor::test
