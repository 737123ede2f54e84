// quenor-report doctor against real servers and proxies that are well, or ill in one way each.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "quenor_base/platform/base/json_reader.h"
#include "tests/cli/reporting.h"
#include "tests/integration/support/scripted_server.h"
#include "tests/integration/support/servers.h"
#include "tests/support/certificates.h"
#include "tests/support/process.h"

namespace quenor::test {
namespace {

constexpr char kNames[] = "DNS:localhost,IP:127.0.0.1,IP:::1";
constexpr long kYear = 365 * 86400;

// quenor-collector with a certificate of the test's own.
class TlsCollector {
 public:
  explicit TlsCollector(const Certificate& certificate, const Arguments& more = {})
      : process_(Command(certificate, more), Containing("")) {
    url_ = process_.out().LineAfter("listening url=");
  }

  const std::string& url() const { return url_; }
  std::string port() const {
    const size_t colon = url_.rfind(':');
    return url_.substr(colon + 1, url_.find('/', colon) - colon - 1);
  }

  // Ends it in order. How many requests it got.
  size_t Stop() {
    process_.Signal(SIGTERM);
    process_.Wait();
    return CountIn(process_.out().Whole(), "\"sha256\":");
  }

 private:
  static Arguments Command(const Certificate& certificate, const Arguments& more) {
    Arguments arguments = {QUENOR_COLLECTOR_PATH,
                           "--listen",
                           "127.0.0.1:0",
                           "--cert",
                           certificate.certificate_file,
                           "--key",
                           certificate.key_file,
                           "--log",
                           "-"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  Process process_;
  std::string url_;
};

// openssl's own server, for what no sound server does.
class OpensslServer {
 public:
  OpensslServer(const Certificate& certificate, const Arguments& more)
      : process_(Command(certificate, more), Containing("")),
        port_(process_.out().LineAfter("ACCEPT 127.0.0.1:")) {}

  std::string Url() const { return "https://127.0.0.1:" + port_ + "/"; }

 private:
  static Arguments Command(const Certificate& certificate, const Arguments& more) {
    Arguments arguments = {"openssl",
                           "s_server",
                           "-www",
                           "-accept",
                           "127.0.0.1:0",
                           "-cert",
                           certificate.certificate_file,
                           "-key",
                           certificate.key_file};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

  Process process_;
  const std::string port_;
};

// Listens and never accepts: connections are made and nobody speaks. With `full` there is no room
// for one either: the attempt is never answered.
class SilentPort {
 public:
  explicit SilentPort(bool full) : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address_);
    auto* const raw = reinterpret_cast<sockaddr*>(&address_);
    EXPECT_EQ(0, ::bind(listener_.get(), raw, size));
    EXPECT_EQ(0, ::listen(listener_.get(), full ? 0 : 16));
    EXPECT_EQ(0, ::getsockname(listener_.get(), raw, &size));
    // On loopback an attempt that finds room is through at once: the first that is not finds none.
    while (full && Fill()) {
    }
  }

  std::string Address() const { return "127.0.0.1:" + std::to_string(ntohs(address_.sin_port)); }

 private:
  bool Fill() {
    fillers_.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    auto* const raw = reinterpret_cast<sockaddr*>(&address_);
    if (::connect(fillers_.back().get(), raw, sizeof(address_)) == 0) return true;
    sockaddr_in peer{};
    socklen_t size = sizeof(peer);
    return ::getpeername(fillers_.back().get(), reinterpret_cast<sockaddr*>(&peer), &size) == 0;
  }

  Fd listener_;
  sockaddr_in address_{};
  std::vector<Fd> fillers_;
};

class DoctorTest : public ::testing::Test {
 protected:
  DoctorTest()
      : authority_(folder_.path(), "ca"), good_(authority_.Issue("good", kNames, -3600, kYear)) {}

  Result Examine(const std::string& url, const Arguments& more = {}) const {
    Arguments arguments = {QUENOR_REPORT_PATH, "doctor", "--url", url};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return RunWhole(arguments, "");
  }
  // With the test's authority as the trusted one.
  Result ExamineTrusting(const std::string& url, Arguments more = {}) const {
    more.insert(more.end(), {"--cacert", authority_.ca_file()});
    return Examine(url, more);
  }

  TempFolder folder_;
  CertificateAuthority authority_;
  const Certificate good_;
};

// The result and the cause of a step in the lines of --json; empty when it is not among them.
std::string CauseOf(const Result& result, const std::string& step) {
  std::istringstream lines(result.out);
  for (std::string line; std::getline(lines, line);) {
    const auto read = base::JSONReader::Read(line, 0, 10);
    EXPECT_TRUE(read.has_value()) << line;
    if (!read.has_value() || *read->FindStringKey("step") != step) continue;
    return *read->FindStringKey("result") + " " + *read->FindStringKey("cause");
  }
  return "";
}

// The step failed for this reason with advice, was the last before the verdict, and the exit code
// says so.
void ExpectFailed(const Result& result, const std::string& step, const std::string& cause,
                  const std::string& words) {
  EXPECT_EQ(69, result.exit_code) << result.out << result.err;
  const size_t at = result.out.find("\n" + step + " ");
  ASSERT_NE(std::string::npos, at) << result.out;
  const size_t verdict = result.out.find("\nverdict ");
  const std::string text = result.out.substr(at, verdict - at);
  EXPECT_TRUE(Mentions(text, " FAILED ")) << text;
  EXPECT_TRUE(Mentions(text, words)) << text;
  EXPECT_EQ(1u, CountIn(text, "    what to do: ")) << text;
  EXPECT_EQ(1u, CountIn(text, " ms  ")) << text;
  EXPECT_TRUE(Mentions(result.out, "the step " + step + " failed (" + cause + ")")) << result.out;
  EXPECT_EQ("", result.err);
}

void ExpectWell(const Result& result) {
  EXPECT_EQ(0, result.exit_code) << result.out << result.err;
  EXPECT_EQ(0u, CountIn(result.out, " FAILED ")) << result.out;
  EXPECT_EQ("", result.err);
}

// ---- A server that is well ----------------------------------------------------------------------

TEST_F(DoctorTest, FindsNothingWrongAndSendsNoReport) {
  TlsCollector collector(good_);

  const Result result = ExamineTrusting(collector.url());

  ExpectWell(result);
  for (const char* const part :
       {"url            ok", "settings       ok", "resolve        ok", "connect        ok",
        "tls            ok", "verdict        ok", "version: TLSv1.3", "verification: ok",
        "certificate 1 subject: CN=good", "certificate 1 issuer: CN=ca",
        "certificate 1 names: localhost, 127.0.0.1, ::1", " days left)", "--probe",
        "protocol: http/1.1\n"}) {
    EXPECT_TRUE(Mentions(result.out, part)) << part << "\n" << result.out;
  }
  const std::string host = "    host: 127.0.0.1\n    port: " + collector.port() + "\n";
  EXPECT_TRUE(Mentions(result.out, host)) << result.out;
  EXPECT_TRUE(std::regex_search(
      result.out, std::regex("127\\.0\\.0\\.1:\\d+: connected after \\d+\\.\\d ms\n")))
      << result.out;
  EXPECT_TRUE(Mentions(result.out, "pin: " + good_.pin + "\n    pinned: no keys are\n"))
      << result.out;
  EXPECT_EQ(0u, collector.Stop());
}

TEST_F(DoctorTest, ProbeSendsOneReportAndReadsTheReply) {
  TlsCollector collector(good_, {"--send-interval", "500", "--max-resend", "7"});

  const Result result = ExamineTrusting(collector.url(), {"--probe"});

  ExpectWell(result);
  EXPECT_TRUE(Mentions(result.out, "answered 200")) << result.out;
  EXPECT_TRUE(Mentions(result.out, "uint32_send_interval: 500 (obeyed")) << result.out;
  EXPECT_TRUE(Mentions(result.out, "uint32_max_resend_count: 7 (obeyed")) << result.out;
  EXPECT_TRUE(Mentions(result.out, "reports arrive\n")) << result.out;
  EXPECT_EQ(1u, collector.Stop());
}

TEST_F(DoctorTest, JsonIsALineForEachStepThatWasDone) {
  TlsCollector collector(good_);

  const Result result = ExamineTrusting(collector.url(), {"--probe", "--json", "--http1"});

  EXPECT_EQ(0, result.exit_code) << result.out;
  for (const char* const step :
       {"url", "settings", "resolve", "connect", "tls", "probe", "verdict"}) {
    EXPECT_EQ("ok ", CauseOf(result, step)) << result.out;
  }
  EXPECT_EQ(7u, CountIn(result.out, "\n"));
}

TEST_F(DoctorTest, NegotiatesHttp2WhereTheServerSpeaksIt) {
  NginxServer::Options options;
  options.certificate = &good_;
  options.http2 = true;
  options.server_lines = "location / { return 200; }";
  const NginxServer nginx(options);

  EXPECT_TRUE(Mentions(ExamineTrusting(nginx.Origin()).out, "protocol: h2\n"));
  EXPECT_TRUE(Mentions(ExamineTrusting(nginx.Origin(), {"--http1"}).out, "protocol: http/1.1\n"));
}

TEST_F(DoctorTest, PlainHttpIsSaidToBeReadableByEveryone) {
  Process process({QUENOR_COLLECTOR_PATH, "--listen", "127.0.0.1:0"}, Containing(""));
  const std::string url = process.out().LineAfter("listening url=");

  const Result result = Examine(url, {"--probe"});

  ExpectWell(result);
  EXPECT_TRUE(Mentions(result.out, "tls            skipped")) << result.out;
  EXPECT_TRUE(Mentions(result.out, "can read them")) << result.out;
}

TEST_F(DoctorTest, WarnsOfAnAddressOfTheNameThatIsRefused) {
  TlsCollector collector(good_);

  const Result result = ExamineTrusting("https://localhost:" + collector.port() + "/");

  ExpectWell(result);
  EXPECT_TRUE(Mentions(result.out, "connect        warning")) << result.out;
  EXPECT_TRUE(Mentions(result.out, "[::1]:" + collector.port() + ": ")) << result.out;
  EXPECT_TRUE(Mentions(result.out, "127.0.0.1:" + collector.port() + ": connected")) << result.out;
}

TEST_F(DoctorTest, WarnsOfAKeyLogAndOfACertificateThatExpiresSoon) {
  const Certificate old = authority_.Issue("old", kNames, -kYear, 86400);
  TlsCollector collector(old);

  const Result result =
      RunWhole({"env", "SSLKEYLOGFILE=" + folder_.File("keys"), QUENOR_REPORT_PATH, "doctor",
                "--json", "--url", collector.url(), "--cacert", authority_.ca_file()},
               "");

  EXPECT_EQ(0, result.exit_code) << result.out;
  EXPECT_EQ("warning key_log", CauseOf(result, "settings"));
  EXPECT_EQ("warning expires_soon", CauseOf(result, "tls"));
  EXPECT_TRUE(Mentions(result.out, "see 2 warnings")) << result.out;
}

// ---- Certificates -------------------------------------------------------------------------------

TEST_F(DoctorTest, NamesAnExpiredCertificate) {
  const Certificate certificate = authority_.Issue("expired", kNames, -90000, -3600);
  TlsCollector collector(certificate);

  const Result result = ExamineTrusting(collector.url());

  ExpectFailed(result, "tls", "expired", "the server's certificate has expired");
  EXPECT_TRUE(Mentions(result.out, "this machine's clock: 20")) << result.out;
  EXPECT_TRUE(Mentions(result.out, "expired less than a day ago")) << result.out;
}

TEST_F(DoctorTest, NamesACertificateOfTheFuture) {
  const Certificate certificate = authority_.Issue("future", kNames, 3600, 7200);
  TlsCollector collector(certificate);

  ExpectFailed(ExamineTrusting(collector.url()), "tls", "not_yet_valid",
               "set this machine's clock");
}

TEST_F(DoctorTest, NamesAHostThatTheCertificateIsNotFor) {
  const Certificate certificate = authority_.Issue("other", "DNS:other.example", -3600, kYear);
  TlsCollector collector(certificate);

  const Result result = ExamineTrusting(collector.url());

  ExpectFailed(result, "tls", "wrong_host", "the certificate is not for \"127.0.0.1\"");
  EXPECT_TRUE(Mentions(result.out, "certificate 1 names: other.example\n")) << result.out;
  EXPECT_EQ(0u, collector.Stop());
}

TEST_F(DoctorTest, NamesTheAuthorityThatIsNotTrusted) {
  const CertificateAuthority stranger(folder_.path(), "stranger");
  TlsCollector collector(good_);

  const Result result = Examine(collector.url(), {"--cacert", stranger.ca_file()});

  ExpectFailed(result, "tls", "wrong_ca", "(CN=ca) with --cacert");
  EXPECT_TRUE(Mentions(result.out, "pin: " + good_.pin)) << result.out;
}

TEST_F(DoctorTest, NamesTheCipherOfAHandshakeThatItBroke) {
  const CertificateAuthority stranger(folder_.path(), "stranger");
  const OpensslServer server(good_, {"-tls1_2"});

  const Result result = Examine(server.Url(), {"--cacert", stranger.ca_file()});

  EXPECT_TRUE(Mentions(result.out, "cipher: ECDHE-")) << result.out;
}

TEST_F(DoctorTest, NamesASelfSignedCertificateUnlessItIsTheTrustedOne) {
  const Certificate own = {folder_.File("own.pem"), folder_.File("own.key"), ""};
  const Result made = RunWhole(
      {"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
       "-days", "365", "-subj", "/CN=own", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout",
       own.key_file, "-out", own.certificate_file},
      "");
  ASSERT_EQ(0, made.exit_code) << made.err;
  TlsCollector collector(own);

  ExpectFailed(ExamineTrusting(collector.url()), "tls", "self_signed", "signed by itself");
  ExpectWell(Examine(collector.url(), {"--cacert", own.certificate_file, "--probe"}));
}

// The doctor's handshake is not the one of reports, and must judge alike.
TEST_F(DoctorTest, AcceptsAndRefusesTheServersThatSendDoes) {
  const CertificateAuthority stranger(folder_.path(), "stranger");
  CertificateAuthority second(folder_.path(), "second");
  const Certificate for_address = authority_.Issue("localhost", "IP:127.0.0.1");
  const struct {
    const char* what;
    Certificate certificate;
    std::string ca_file;
    bool as_address;  // Whether https://127.0.0.1 is accepted.
    bool as_name;     // Whether https://localhost is.
  } cases[] = {
      {"good", good_, authority_.ca_file(), true, true},
      {"the server's own certificate as CA", good_, good_.certificate_file, true, true},
      {"stranger", good_, stranger.ca_file(), false, false},
      {"expired", authority_.Issue("a", kNames, -7200, -3600), authority_.ca_file(), false, false},
      {"future", authority_.Issue("b", kNames, 3600, 7200), authority_.ca_file(), false, false},
      {"name", authority_.Issue("c", "DNS:localhost"), authority_.ca_file(), false, true},
      {"address and common name", for_address, authority_.ca_file(), true, false},
      {"address as a name", authority_.Issue("d", "DNS:127.0.0.1"), authority_.ca_file(), false,
       false},
      {"common name alone", second.Issue("localhost", "email:a@b"), second.ca_file(), false, true},
      {"neither", second.Issue("other", "email:a@b"), second.ca_file(), false, false},
      {"wildcard", authority_.Issue("e", "DNS:*"), authority_.ca_file(), false, false},
  };
  for (const auto& test : cases) {
    TlsCollector collector(test.certificate);
    for (const bool by_name : {false, true}) {
      const std::string url =
          by_name ? "https://localhost:" + collector.port() + "/" : collector.url();
      const int expected = (by_name ? test.as_name : test.as_address) ? 0 : 69;

      const Result diagnosis = Examine(url, {"--cacert", test.ca_file});
      const Result delivery =
          RunWhole({QUENOR_REPORT_PATH, "send", "--url", url, "--cacert", test.ca_file, "--cache",
                    "none", "--send-now", "--max-resend", "1"},
                   "a\n");

      EXPECT_EQ(expected, diagnosis.exit_code) << test.what << " " << by_name << diagnosis.out;
      EXPECT_EQ(expected, delivery.exit_code) << test.what << " " << by_name << delivery.err;
    }
  }
}

TEST_F(DoctorTest, TheSystemsCertificatesDoNotTrustTheTests) {
  TlsCollector collector(good_);

  const Result result = Examine(collector.url(), {"--json"});

  EXPECT_EQ(69, result.exit_code);
  // A machine without any fails earlier.
  const bool named =
      CauseOf(result, "tls") == "failed wrong_ca" || CauseOf(result, "settings") == "failed no_ca";
  EXPECT_TRUE(named) << result.out;
}

TEST_F(DoctorTest, APinThatDoesNotMatchIsFollowedByTheOneThatDoes) {
  const Certificate other = authority_.Issue("other", kNames);
  TlsCollector collector(good_);

  const Result result = ExamineTrusting(collector.url(), {"--pin", other.pin});

  ExpectFailed(result, "tls", "pin_mismatch", "add --pin " + good_.pin);
  const Result repaired =
      ExamineTrusting(collector.url(), {"--pin", other.pin, "--pin", good_.pin, "--probe"});
  ExpectWell(repaired);
  EXPECT_TRUE(Mentions(repaired.out, good_.pin + "\n    pinned: this key is\n")) << repaired.out;
}

// ---- Client certificates ------------------------------------------------------------------------

class DoctorClientCertificateTest : public DoctorTest,
                                    public ::testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Versions, DoctorClientCertificateTest,
                         ::testing::Values("-tls1_2", "-tls1_3"),
                         [](const auto& test) { return std::string(test.param).substr(1); });

TEST_P(DoctorClientCertificateTest, SaysThatTheServerWantsOneOrRefusesTheOneGiven) {
  const Certificate client = authority_.Issue("client", "DNS:client");
  CertificateAuthority stranger(folder_.path(), "stranger");
  const Certificate strange = stranger.Issue("client", "DNS:client");
  const OpensslServer server(
      good_, {GetParam(), "-Verify", "1", "-verify_return_error", "-CAfile", authority_.ca_file()});

  ExpectFailed(ExamineTrusting(server.Url()), "tls", "client_cert_required", "give --client-cert");
  ExpectFailed(ExamineTrusting(server.Url(), {"--client-cert", strange.certificate_file,
                                              "--client-key", strange.key_file}),
               "tls", "client_cert_refused", "refused the client certificate");
  const Result result = ExamineTrusting(
      server.Url(), {"--client-cert", client.certificate_file, "--client-key", client.key_file});
  ExpectWell(result);
  EXPECT_TRUE(Mentions(result.out, "the one given was shown")) << result.out;
}

TEST_F(DoctorTest, AServerThatAsksForAClientCertificateInHttpIsSeenByTheProbe) {
  const Certificate client = authority_.Issue("client", "DNS:client");
  NginxServer::Options options;
  options.certificate = &good_;
  options.server_lines = "ssl_verify_client on; ssl_client_certificate " + authority_.ca_file() +
                         "; location / { return 200; }";
  const NginxServer nginx(options);
  const Arguments shown = {"--client-cert", client.certificate_file, "--client-key",
                           client.key_file, "--probe"};

  const Result without = ExamineTrusting(nginx.Origin(), {"--probe"});

  EXPECT_TRUE(Mentions(without.out, "the server asked for one; none is given")) << without.out;
  ExpectFailed(without, "probe", "http_status", "(--client-cert)");
  ExpectWell(ExamineTrusting(nginx.Origin(), shown));
}

TEST_F(DoctorTest, AKeyOfAnotherCertificateIsNamedBeforeAnythingIsTried) {
  const Certificate client = authority_.Issue("client", "DNS:client");
  TlsCollector collector(good_);

  const Result result = ExamineTrusting(
      collector.url(), {"--client-cert", client.certificate_file, "--client-key", good_.key_file});

  EXPECT_EQ(64, result.exit_code) << result.out;
  EXPECT_TRUE(
      Mentions(result.err, "the key in --client-key '" + good_.key_file + "' is not that of"))
      << result.err;
}

// ---- Other TLS troubles -------------------------------------------------------------------------

TEST_F(DoctorTest, NamesATlsVersionThatIsTooOld) {
  const OpensslServer server(good_, {"-tls1_1", "-cipher", "ALL:@SECLEVEL=0"});

  ExpectFailed(ExamineTrusting(server.Url()), "tls", "tls_too_old", "TLS 1.2 or 1.3");
}

TEST_F(DoctorTest, NamesCiphersThatNobodyShares) {
  const OpensslServer server(good_, {"-tls1_2", "-cipher", "AES128-SHA"});

  ExpectFailed(ExamineTrusting(server.Url()), "tls", "no_common_cipher", "ciphers");
}

TEST_F(DoctorTest, NamesPlainHttpOnTheTlsPort) {
  const ScriptedServer server([](ScriptedServer::Connection& connection) {
    connection.Write("HTTP/1.1 400 Bad Request\r\n\r\n");
    connection.HoldUntilClosed();
  });

  ExpectFailed(ExamineTrusting("https://127.0.0.1:" + std::to_string(server.port()) + "/"), "tls",
               "not_tls", "does not speak TLS");
}

TEST_F(DoctorTest, NamesAConnectionThatIsClosedWithinTheHandshake) {
  const ScriptedServer server([](ScriptedServer::Connection&) {});

  ExpectFailed(ExamineTrusting("https://127.0.0.1:" + std::to_string(server.port()) + "/"), "tls",
               "closed", "closed within the handshake");
}

TEST_F(DoctorTest, NamesAConnectionThatIsResetAtOnce) {
  const ScriptedServer server(
      [](ScriptedServer::Connection& connection) { connection.ResetNow(); });

  const Result result =
      ExamineTrusting("https://127.0.0.1:" + std::to_string(server.port()) + "/", {"--json"});

  // The reset comes before the connection is seen to be made, or after that.
  EXPECT_EQ(69, result.exit_code);
  EXPECT_EQ("failed closed", CauseOf(result, "verdict")) << result.out;
}

TEST_F(DoctorTest, NamesAServerThatIsSilentInTheHandshake) {
  const SilentPort port(/*full=*/false);

  ExpectFailed(ExamineTrusting("https://" + port.Address() + "/", {"--timeout", "0.1"}), "tls",
               "timeout", "no answer in time within the handshake");
}

// ---- Connections --------------------------------------------------------------------------------

TEST_F(DoctorTest, NamesARefusedConnection) {
  const RefusingPort port;

  ExpectFailed(ExamineTrusting("https://" + port.Address() + "/"), "connect", "refused",
               "Connection refused");
}

TEST_F(DoctorTest, NamesAPortThatNeverAnswers) {
  const SilentPort port(/*full=*/true);

  ExpectFailed(ExamineTrusting("https://" + port.Address() + "/", {"--timeout", "0.1"}), "connect",
               "timeout", "firewall that drops packets");
}

TEST_F(DoctorTest, ASignalEndsItAtOnce) {
  const SilentPort port(/*full=*/false);
  Process process({QUENOR_REPORT_PATH, "doctor", "--url", "https://" + port.Address() + "/",
                   "--timeout", "3600"},
                  Containing(""));
  ASSERT_TRUE(process.out().WaitFor("connect        ok", 1));

  process.Signal(SIGINT);

  EXPECT_EQ(-SIGINT, process.Wait());
}

// ---- The probe ----------------------------------------------------------------------------------

TEST_F(DoctorTest, AStatusOtherThan200FailsTheProbe) {
  TlsCollector collector(good_, {"--misbehave", "all: status=503"});

  ExpectFailed(ExamineTrusting(collector.url(), {"--probe"}), "probe", "http_status",
               "answered 503");
}

TEST_F(DoctorTest, AnAnswerThatDoesNotComeFailsTheProbe) {
  TlsCollector collector(good_, {"--misbehave", "all: hang=0"});

  ExpectFailed(ExamineTrusting(collector.url(), {"--probe", "--timeout", "1"}), "probe", "timeout",
               "no whole answer in time");
}

TEST_F(DoctorTest, AConnectionThatIsClosedWithoutAnAnswerFailsTheProbeInTheClientsWords) {
  TlsCollector collector(good_, {"--misbehave", "all: close=0"});

  ExpectFailed(ExamineTrusting(collector.url(), {"--probe"}), "probe", "no_answer",
               "client: http: cannot post to " + collector.url());
}

// ---- The proxy ----------------------------------------------------------------------------------

class DoctorProxyTest : public DoctorTest {
 protected:
  DoctorProxyTest() : collector_(good_), proxy_("reporter", "p@ss") {}

  Arguments Through(const std::string& credentials, const std::string& address) const {
    return {"--proxy", "socks5h://" + credentials + address};
  }
  std::string ProxyAddress() const { return "127.0.0.1:" + std::to_string(proxy_.port()); }

  TlsCollector collector_;
  SocksProxy proxy_;
};

TEST_F(DoctorProxyTest, GoesThroughItAndLetsItResolveTheName) {
  if (!HostsFileNamesLocalhost()) GTEST_SKIP() << kNoLocalhost;
  std::atomic<size_t> reports{0};
  const ScriptedServer server(
      [&](ScriptedServer::Connection& connection) {
        ReceivedRequest request;
        while (connection.ReadRequest(&request)) {
          ++reports;
          connection.Respond(200, "{\"bytes_errinfo\":\"success\"}");
        }
      },
      &good_);
  Arguments more = Through("reporter:p%40ss@", ProxyAddress());
  more.push_back("--probe");

  const Result result = ExamineTrusting(server.Origin("localhost") + "/", more);

  ExpectWell(result);
  EXPECT_TRUE(Mentions(result.out, "resolve        skipped")) << result.out;
  EXPECT_TRUE(Mentions(result.out, "the proxy resolves \"localhost\"")) << result.out;
  EXPECT_TRUE(Mentions(result.out, "proxy-connect  ok")) << result.out;
  EXPECT_TRUE(Mentions(result.out, "reply code: 0, succeeded")) << result.out;
  EXPECT_FALSE(Mentions(result.out, "p@ss")) << result.out;
  EXPECT_EQ(1u, reports.load());
}

TEST_F(DoctorProxyTest, ReportsGoThroughItToo) {
  const Result result =
      RunWhole({QUENOR_REPORT_PATH, "send", "--url", collector_.url(), "--cacert",
                authority_.ca_file(), "--cache", "none", "--send-now", "--max-resend", "1",
                "--socks5", "reporter:p%40ss@" + ProxyAddress()},
               "a\n");

  EXPECT_EQ(0, result.exit_code) << result.err;
  EXPECT_EQ(1u, collector_.Stop());
}

TEST_F(DoctorProxyTest, NamesAWrongPassword) {
  const Result result =
      ExamineTrusting(collector_.url(), Through("reporter:wr0ng@", ProxyAddress()));

  ExpectFailed(result, "proxy", "proxy_auth", "refused user \"reporter\"");
  EXPECT_FALSE(Mentions(result.out, "wr0ng")) << result.out;
}

TEST_F(DoctorProxyTest, NamesAPasswordThatIsMissing) {
  ExpectFailed(ExamineTrusting(collector_.url(), Through("", ProxyAddress())), "proxy",
               "proxy_auth", "give --socks5 user:password@host:port");
}

TEST_F(DoctorProxyTest, NamesAProxyThatIsDown) {
  const RefusingPort port;

  const Result result = ExamineTrusting(collector_.url(), Through("", port.Address()));

  ExpectFailed(result, "proxy-connect", "refused", "cannot connect to the proxy");
  EXPECT_EQ(0u, collector_.Stop());
}

TEST_F(DoctorProxyTest, NamesAProxyThatIsSilent) {
  const SilentPort port(/*full=*/false);
  Arguments more = Through("", port.Address());
  more.insert(more.end(), {"--timeout", "0.1"});

  ExpectFailed(ExamineTrusting(collector_.url(), more), "proxy", "proxy_timeout",
               "did not answer in time");
}

TEST_F(DoctorProxyTest, SaysTheProxysOwnWordsForAServerThatRefuses) {
  const RefusingPort port;

  ExpectFailed(ExamineTrusting("https://" + port.Address() + "/",
                               Through("reporter:p%40ss@", ProxyAddress())),
               "proxy", "proxy_refused", "reply code: 5");
}

TEST_F(DoctorProxyTest, NamesAProxyThatSpeaksSomethingElse) {
  const ScriptedServer http([](ScriptedServer::Connection& connection) {
    connection.Write("HTTP/1.1 400 Bad Request\r\n\r\n");
    connection.HoldUntilClosed();
  });

  ExpectFailed(
      ExamineTrusting(collector_.url(), Through("", "127.0.0.1:" + std::to_string(http.port()))),
      "proxy", "proxy_not_socks5", "no SOCKS5 proxy");
}

TEST_F(DoctorProxyTest, JudgesTheCertificateBehindIt) {
  const Result result =
      Examine(collector_.url(), {"--proxy", "reporter:p%40ss@" + ProxyAddress(), "--cacert",
                                 CertificateAuthority(folder_.path(), "stranger").ca_file()});

  ExpectFailed(result, "tls", "wrong_ca", "(CN=ca) with --cacert");
}

// ---- Usage --------------------------------------------------------------------------------------

TEST_F(DoctorTest, WrongUsageIsNamedInOneLineOnStandardError) {
  const std::string url = "https://127.0.0.1:1/";
  for (const Arguments& more :
       {Arguments{"--cacert", "/nowhere/ca.pem"}, Arguments{"--capath", "/nowhere/cas"},
        Arguments{"--pin", "sha256//short"}, Arguments{"--client-cert", "/nowhere/client.pem"},
        Arguments{"--frobnicate"}}) {
    const Result result = Examine(url, more);

    EXPECT_EQ(64, result.exit_code) << result.out;
    EXPECT_TRUE(Mentions(result.err, more.back())) << result.err;
    EXPECT_EQ(1u, CountIn(result.err, "\n")) << result.err;
  }
}

TEST_F(DoctorTest, HasHelpWithItsExitCodes) {
  const Result result = RunWhole({QUENOR_REPORT_PATH, "doctor", "--help"}, "");

  EXPECT_EQ(0, result.exit_code);
  EXPECT_TRUE(Mentions(result.out, "Exit codes: 0 no step failed")) << result.out;
}

TEST_F(DoctorTest, AFullStandardOutputIsNoSuccess) {
  const RefusingPort port;

  const Result result = RunWhole({"sh", "-c",
                                  std::string(QUENOR_REPORT_PATH) + " doctor --url https://" +
                                      port.Address() + "/ >/dev/full"},
                                 "");

  EXPECT_EQ(74, result.exit_code);
  EXPECT_TRUE(Mentions(result.err, "cannot write to standard output")) << result.err;
}

}  // namespace
}  // namespace quenor::test
