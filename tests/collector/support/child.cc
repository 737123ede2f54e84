#include "tests/collector/support/child.h"

#include <signal.h>
#include <sys/resource.h>

#include <stdexcept>

namespace quenor::collector::test {
namespace {

constexpr time_t kClientTimeoutS = 120;

std::vector<std::string> Command(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), QUENOR_COLLECTOR_PATH);
  return arguments;
}

std::vector<std::string> WithTransport(const std::string& dir, Collector::Transport transport,
                                       std::vector<std::string> arguments) {
  if (transport == Collector::Transport::kTls) {
    const Certificate server =
        CertificateAuthority(dir, "ca").Issue("server", "DNS:localhost,IP:127.0.0.1");
    for (const std::string& word :
         {std::string("--cert"), server.certificate_file, std::string("--key"), server.key_file}) {
      arguments.push_back(word);
    }
  }
  return arguments;
}

}  // namespace

Child::Child(const std::vector<std::string>& arguments)
    : process_(Command(arguments), quenor::test::Containing("")) {
  ::signal(SIGPIPE, SIG_IGN);  // A collector that ends first must not take the test along.
}

void Child::LimitDescriptors(unsigned limit) const {
  rlimit limits{};
  bool done = ::prlimit(process_.pid(), RLIMIT_NOFILE, nullptr, &limits) == 0;
  limits.rlim_cur = limit;
  done = done && ::prlimit(process_.pid(), RLIMIT_NOFILE, &limits, nullptr) == 0;
  if (!done) {
    throw std::runtime_error("cannot limit the collector's descriptors");
  }
}

long Child::CountSleeps() const {
  return std::stol(quenor::test::StatusLine(process_.pid(), "voluntary_ctxt_switches"));
}

Ended Child::Wait() {
  Ended ended;
  // A child that fills a pipe waits for none: both are read all the time.
  const int result = process_.Wait();
  if (result >= 0) ended.exit_code = result;
  ended.out = process_.out().Whole();
  ended.err = process_.err().Whole();
  return ended;
}

Collector::Collector(const std::string& dir, Transport transport,
                     std::vector<std::string> arguments)
    : ca_path_(transport == Transport::kTls ? dir + "/ca.pem" : ""),
      child_(WithTransport(dir, transport, std::move(arguments))) {
  const std::string line = child_.ReadLine().value_or("");
  const std::string before = "listening url=";
  const size_t colon = line.rfind(':');
  if (line.rfind(before, 0) != 0 || line.back() != '/' || colon == std::string::npos) {
    child_.Signal(SIGKILL);
    throw std::runtime_error("collector is not up: \"" + line + "\" " + child_.Wait().err);
  }
  url_ = line.substr(before.size());
  port_ = std::stoi(line.substr(colon + 1));
}

std::unique_ptr<httplib::Client> Collector::NewClient() const {
  auto client = std::make_unique<httplib::Client>(url_.substr(0, url_.size() - 1));
  if (!ca_path_.empty()) {
    client->set_ca_cert_path(ca_path_);
    client->enable_server_certificate_verification(true);
  }
  client->set_keep_alive(true);
  client->set_tcp_nodelay(true);
  client->set_connection_timeout(kClientTimeoutS);
  client->set_read_timeout(kClientTimeoutS);
  client->set_write_timeout(kClientTimeoutS);
  return client;
}

Ended Collector::Stop() {
  child_.Signal(SIGTERM);
  return child_.Wait();
}

int Post(httplib::Client& client, const std::string& body) {
  const httplib::Result result = client.Post("/report", body, "application/octet-stream");
  return result ? result->status : 0;
}

}  // namespace quenor::collector::test
