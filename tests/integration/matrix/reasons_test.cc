// Of every misbehaviour: what the HTTP client says is the reason, and what "quenor-report doctor"
// says. A table, and no disagreement. Time limits are the same for both.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "quenor_base/platform/local_log.h"
#include "tests/integration/matrix/row_server.h"
#include "tests/support/loopback.h"
#include "tests/support/patience.h"
#include "tests/support/process.h"

namespace quenor::test {
namespace {

using Connection = ScriptedServer::Connection;

constexpr uint32_t kAmpleMs = 20000;  // Never reached.
constexpr uint32_t kShortMs = 1500;   // Reached by what is slow, and by that alone.
constexpr char kBody[] = R"({"quenor_doctor":"probe"})";

// What the client has logged last.
class LastLine {
 public:
  static void Sink(void* last, int, const char*, int, const char* text, size_t size) {
    auto* const line = static_cast<LastLine*>(last);
    std::lock_guard<std::mutex> hold(line->mutex_);
    line->text_.assign(text, size);
  }
  std::string text() {
    std::lock_guard<std::mutex> hold(mutex_);
    return text_;
  }

 private:
  std::mutex mutex_;
  std::string text_;  // Guarded by `mutex_`.
};

// Where a report is to go, and how.
struct Way {
  std::string url;
  bool http2 = false;
  bool is_slow = false;
  uint16_t proxy_port = 0;  // 0: none.
  std::string user = "";
  std::string scheme = "socks5h";
};

struct Verdict {
  std::string reason;
  std::string words;  // Of the doctor.
};

class ReasonsTest : public ::testing::Test {
 protected:
  ReasonsTest() : why_no_peer_(PeerProcess::WhyNot()) {
    if (why_no_peer_.empty()) peer_ = std::make_unique<PeerProcess>();
    SetLogSink(&LastLine::Sink, &logged_);
  }
  ~ReasonsTest() override { SetLogSink(nullptr, nullptr); }

  std::string ByTheClient(const Way& way) const {
    HttpDefaults defaults;
    defaults.ca_file = certificates_.ca_file();
    defaults.connect_timeout_ms = way.is_slow ? kShortMs : kAmpleMs;
    defaults.total_timeout_ms = 2 * defaults.connect_timeout_ms;
    const bool is_http_proxy = way.scheme != "socks5h";
    if (is_http_proxy) {
      const std::string url = way.scheme + "://127.0.0.1:" + std::to_string(way.proxy_port);
      defaults.proxy = {url, way.user, way.user, "", {}};
    }
    EXPECT_EQ("", SetHttpDefaults(defaults));
    HttpClient::Config config;
    config.enable_http2 = way.http2;
    if (way.proxy_port != 0 && !is_http_proxy) {
      config.SetSocks5Proxy("127.0.0.1", way.proxy_port, way.user, way.user);
    }
    const auto client = HttpClientFactory::Create(config);
    HttpClient::Request request;
    request.url = way.url;
    request.method = "POST";
    request.body = CopyOnWriteBuffer(kBody, sizeof(kBody) - 1);
    std::mutex mutex;
    std::condition_variable ended;
    std::string reason;
    client->SendRequest(request, [&](HttpClient::State, const HttpClient::Request& sent,
                                     std::unique_ptr<HttpClient::Response>) {
      std::lock_guard<std::mutex> hold(mutex);
      reason = HttpReasonName(sent.reason);
      ended.notify_all();
    });
    std::unique_lock<std::mutex> hold(mutex);
    WaitPatiently(&ended, &hold, "an exchange", [&] { return !reason.empty(); });
    return reason;
  }

  Verdict ByTheDoctor(const Way& way) const {
    std::vector<std::string> arguments = {QUENOR_REPORT_PATH,
                                          "doctor",
                                          "--json",
                                          "--probe",
                                          "--url",
                                          way.url,
                                          "--cacert",
                                          certificates_.ca_file(),
                                          "--timeout",
                                          way.is_slow ? "1.5" : "20"};
    if (!way.http2) arguments.push_back("--http1");
    if (way.proxy_port != 0) {
      const std::string user = way.user.empty() ? "" : way.user + ":" + way.user + "@";
      arguments.insert(
          arguments.end(),
          {"--proxy", way.scheme + "://" + user + "127.0.0.1:" + std::to_string(way.proxy_port)});
    }
    Process process(arguments, Containing(""));
    const std::string out = process.out().Whole();
    process.Wait();
    const std::string verdict = out.substr(out.rfind("{\"step\":\"verdict\"") + 1);
    const auto between = [&verdict](const std::string& begin, const std::string& end) {
      const size_t at = verdict.find(begin);
      if (at == verdict.npos) return std::string();
      const size_t from = at + begin.size();
      return verdict.substr(from, verdict.find(end, from) - from);
    };
    return {between("\"reason\":\"", "\""), between("the step ", "\"")};
  }

  // `other`: who is quicker decides, so that one of both may hear this instead.
  void Compare(const std::string& name, const Way& way, const std::string& other = "") {
    const std::string reason = ByTheClient(way);
    const Verdict verdict = ByTheDoctor(way);
    const bool agree = reason == verdict.reason;
    std::printf("%s | %-17s | %-17s | %s | %s\n", way.http2 ? "2  " : "1.1", reason.c_str(),
                agree ? "the same" : verdict.reason.c_str(), verdict.words.c_str(), name.c_str());
    ++compared_;
    const bool is_race = !other.empty() && (reason == other || verdict.reason == other);
    EXPECT_TRUE(agree || is_race) << name << ": the client says " << reason << " ("
                                  << logged_.text() << "), the doctor " << verdict.reason << " ("
                                  << verdict.words << ")";
  }

  // One row of so many, or all with QUENOR_NETWORK_FULL=1: behind the handshake the doctor asks the
  // client itself.
  void CompareAll(const Rows& rows, size_t one_of = 1) {
    const char* const full = std::getenv("QUENOR_NETWORK_FULL");
    if (full != nullptr && *full == '1') one_of = 1;
    size_t count = 0;
    for (const Cell& cell : CellsOf(rows, peer_ != nullptr)) {
      if (count++ % one_of != 0) continue;
      const RowServer server(cell.row, cell.protocol, certificates_, peer_.get());
      Way way;
      way.url = server.Url();
      way.http2 = cell.protocol == Protocol::kHttp2;
      way.is_slow = cell.row.is_slow || cell.row.low_speed;
      const bool is_either = cell.row.expected.what == Expected::kEither;
      // libcurl has no words of OpenSSL's for what it finds before it asks.
      Compare(cell.row.name, way, is_either ? "none" : cell.row.comes_first ? "protocol" : "");
    }
    std::printf("%zu compared\n", compared_);
  }

  const std::string why_no_peer_;
  std::unique_ptr<PeerProcess> peer_;
  const RowCertificates certificates_;
  LastLine logged_;
  size_t compared_ = 0;
};

TEST_F(ReasonsTest, OfTcpAndTlsAreTheSameForClientAndDoctor) {
  if (peer_ == nullptr) GTEST_SKIP() << why_no_peer_;
  CompareAll(TlsRows());
}

TEST_F(ReasonsTest, OfOddRepliesAreTheSameForClientAndDoctor) { CompareAll(ReplyRows(), 10); }

TEST_F(ReasonsTest, OfHttp1AreTheSameForClientAndDoctor) { CompareAll(Http1Rows(), 10); }

TEST_F(ReasonsTest, OfHttp2AreTheSameForClientAndDoctor) {
  if (peer_ == nullptr) GTEST_SKIP() << why_no_peer_;
  CompareAll(Http2Rows(), 10);
}

// Nobody accepts, and there is no room for another connection: the attempt is never answered.
class BlackHole {
 public:
  BlackHole() : listener_(BindLoopback(&port_)) {
    EXPECT_EQ(0, ::listen(listener_.get(), 0));
    while (Fill()) {
    }
  }
  uint16_t port() const { return port_; }

 private:
  // On loopback an attempt that finds room is through at once.
  bool Fill() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port_);
    fillers_.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int fd = fillers_.back().get();
    ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    socklen_t size = sizeof(address);
    return ::getpeername(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  }

  uint16_t port_ = 0;
  Fd listener_;
  std::vector<Fd> fillers_;
};

std::string At(uint16_t port, const std::string& host = "127.0.0.1") {
  return "https://" + host + ":" + std::to_string(port) + "/reports";
}

TEST_F(ReasonsTest, OfAConnectionThatNeverStandsAreTheSameForClientAndDoctor) {
  uint16_t refusing = 0;
  const Fd bound(BindLoopback(&refusing));
  const BlackHole hole;
  const std::string no_name = std::string(64, 'n') + ".invalid";  // No resolver asks anybody.

  Compare("nobody listens", {At(refusing)});
  Compare("nobody listens on either address", {At(refusing, "localhost")});
  Compare("never answered", {At(hole.port()), false, true});
  Compare("one address refuses, one never answers", {At(hole.port(), "localhost"), false, true});
  Compare("no route", {"https://255.255.255.255/"});
  Compare("no such name", {At(443, no_name)});
  Compare("nobody listens where the proxy should", {At(1), false, false, refusing});
  Compare("the proxy never answers", {At(1), false, true, hole.port()});
}

// Reads what the client says in its greeting (first), with user and password, or of where to go.
bool ReadSocks5Step(Connection& connection, bool is_first) {
  const auto skip = [&connection](int count) {
    std::string bytes;
    return connection.ReadBytes(static_cast<size_t>(count), &bytes) ? bytes : std::string();
  };
  const std::string head = skip(2);
  if (head.size() != 2) return false;
  if (is_first) return !skip(head[1]).empty();
  if (head[0] == 1) {
    skip(head[1]);
    const std::string size = skip(1);
    return !size.empty() && !skip(size[0]).empty();
  }
  const std::string kind = skip(2);
  return kind.size() == 2 && !skip(kind[1] == 1 ? 6 : 18).empty();
}

// A SOCKS5 proxy that says one of these behind each step of the client's, and then, once it has
// read one more or the first, holds the connection or closes it.
ScriptedServer::Script Says(std::vector<std::string> answers, bool holds) {
  return [answers = std::move(answers), holds](Connection& connection) {
    for (size_t i = 0; i < answers.size(); ++i) {
      if (!ReadSocks5Step(connection, i == 0)) return;
      connection.Write(answers[i]);
    }
    if (holds) connection.HoldUntilClosed();
    const bool is_over = answers.size() > 1 || (!answers.empty() && answers[0][1] > 2);
    if (!is_over) ReadSocks5Step(connection, answers.empty());
  };
}

TEST_F(ReasonsTest, OfASocks5ProxyAreTheSameForClientAndDoctor) {
  const auto bytes = [](std::initializer_list<int> values) {
    std::string text;
    for (const int value : values) text += static_cast<char>(value);
    return text;
  };
  const auto compare = [&](const std::string& name, std::vector<std::string> answers,
                           const std::string& user = "", bool holds = false) {
    const ScriptedServer proxy(Says(std::move(answers), holds));
    Compare("SOCKS5: " + name, {At(1), false, holds, proxy.port(), user});
  };

  compare("closes at once", {});
  compare("speaks HTTP", {"HTTP/1.1 400 Bad Request\r\n\r\n"});
  compare("speaks SOCKS4", {bytes({0, 91, 0, 0, 0, 0, 0, 0})});
  compare("wants user and password, there are none", {bytes({5, 255})});
  compare("takes neither", {bytes({5, 255})}, "me");
  compare("wants GSSAPI", {bytes({5, 1})}, "me");
  compare("wants what nobody knows", {bytes({5, 42})}, "me");
  compare("refuses user and password", {bytes({5, 2}), bytes({1, 1})}, "me");
  compare("closes on user and password", {bytes({5, 2})}, "me");
  compare("closes on the request", {bytes({5, 0})});
  compare("cuts its answer", {bytes({5, 0}), bytes({5, 0})});
  for (int code = 1; code < 10; ++code) {
    compare("reply code " + std::to_string(code),
            {bytes({5, 0}), bytes({5, code, 0, 1, 0, 0, 0, 0, 0, 0})});
  }
  compare("says nothing", {}, "", /*holds=*/true);
  compare("says nothing to user and password", {bytes({5, 2})}, "me", /*holds=*/true);
  compare("says nothing to the request", {bytes({5, 0})}, "", /*holds=*/true);
  compare("connects, and behind it is silence",
          {bytes({5, 0}), bytes({5, 0, 0, 1, 0, 0, 0, 0, 0, 0})}, "", /*holds=*/true);
  compare("connects, and behind it is the end",
          {bytes({5, 0}), bytes({5, 0, 0, 1, 0, 0, 0, 0, 0, 0})});
}

// An HTTP proxy that says this to each CONNECT, and then holds the connection or closes it.
ScriptedServer::Script Answers(const std::string& answer, bool holds) {
  return [answer, holds](Connection& connection) {
    ReceivedRequest request;
    while (connection.ReadRequestHead(&request)) {
      connection.Write(answer);
      if (answer.find("Content-Length") != answer.npos) continue;
      if (holds) connection.HoldUntilClosed();
      return;
    }
  };
}

TEST_F(ReasonsTest, OfAnHttpProxyAreTheSameForClientAndDoctor) {
  const auto says = [](int status, const std::string& header = "") {
    return "HTTP/1.1 " + std::to_string(status) + " Words\r\nContent-Length: 0\r\n" + header +
           "\r\n";
  };
  const std::string basic = "Proxy-Authenticate: Basic realm=\"r\"\r\n";
  const std::string digest =
      "Proxy-Authenticate: Digest realm=\"r\", nonce=\"n\", qop=\"auth\"\r\n";
  const auto compare = [&](const std::string& name, const std::string& answer,
                           const std::string& user = "", bool holds = false) {
    const ScriptedServer plain(Answers(answer, holds));
    const ScriptedServer tls(Answers(answer, holds), &certificates_.Of(Row::kGood));
    Compare("HTTP proxy: " + name, {At(1), false, holds, plain.port(), user, "http"});
    Compare("HTTPS proxy: " + name, {At(1), false, holds, tls.port(), user, "https"});
  };

  for (const int status : {300, 400, 401, 403, 404, 405, 500, 502, 503, 504}) {
    compare("answers " + std::to_string(status), says(status));
  }
  compare("wants user and password, there are none", says(407, basic));
  compare("refuses user and password", says(407, basic), "me");
  compare("refuses user and password by digest", says(407, digest), "me");
  compare("wants what nobody knows", says(407, "Proxy-Authenticate: Other\r\n"), "me");
  compare("closes on the request", "");
  compare("cuts its answer", "HTTP/1.1 200 Connection est");
  compare("speaks SOCKS5", std::string("\5\0", 2));
  compare("says nothing", "", "", /*holds=*/true);
  compare("connects, and behind it is silence", "HTTP/1.1 200 OK\r\n\r\n", "", /*holds=*/true);
  compare("connects, and behind it is the end", "HTTP/1.1 200 OK\r\n\r\n");
  const ScriptedServer unknown(Answers(says(200), false), &certificates_.Of(Row::kOtherAuthority));
  Compare("HTTPS proxy: nobody trusts it", {At(1), false, false, unknown.port(), "", "https"});
  const ScriptedServer plain(Answers(says(200), false));
  Compare("HTTPS proxy: speaks no TLS", {At(1), false, false, plain.port(), "", "https"});
}

}  // namespace
}  // namespace quenor::test
