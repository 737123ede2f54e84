#include "tests/cli/reporting.h"

#include <netinet/in.h>
#include <openssl/evp.h>
#include <sys/socket.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace quenor::test {
namespace {

// The text between `begin` and `end` behind it.
std::string Between(const std::string& text, const std::string& begin, const std::string& end) {
  const size_t at = text.find(begin);
  if (at == std::string::npos) return "";
  const size_t from = at + begin.size();
  return text.substr(from, text.find(end, from) - from);
}

Arguments CollectorCommand(const Certificates& certificates, const Arguments& more) {
  Arguments arguments = {QUENOR_COLLECTOR_PATH,
                         "--listen",
                         "127.0.0.1:0",
                         "--cert",
                         certificates.server().certificate_file,
                         "--key",
                         certificates.server().key_file,
                         "--log",
                         "-"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

}  // namespace

std::string Certificates::Write(const std::string& name, const std::string& content) const {
  if (!WriteWholeFile(Path(name), content)) throw std::runtime_error("cannot write " + name);
  return Path(name);
}

std::string Sha256Hex(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_sha256(), nullptr);
  std::string hex;
  for (unsigned int i = 0; i < size; ++i) {
    constexpr char kDigits[] = "0123456789abcdef";
    hex += kDigits[digest[i] >> 4];
    hex += kDigits[digest[i] & 15];
  }
  return hex;
}

Collector::Collector(const Certificates& certificates, const Arguments& more)
    : process_(CollectorCommand(certificates, more), Containing("")) {
  const std::string begin = "listening url=";
  const std::string line = process_.out().FirstLine();
  if (line.compare(0, begin.size(), begin) != 0) {
    throw std::runtime_error("the collector does not listen: " + process_.err().Whole());
  }
  url_ = line.substr(begin.size());
}

void Collector::WaitForRequests(size_t count) {
  if (!process_.out().WaitFor("\"sha256\":", count)) {
    throw std::runtime_error("the collector ended early: " + process_.err().Whole());
  }
}

Digests Collector::Stop() {
  process_.Signal(SIGTERM);
  process_.Wait();
  std::istringstream lines(process_.out().Whole());
  Digests accepted;
  for (std::string line; std::getline(lines, line);) {
    const std::string digest = Between(line, "\"sha256\":\"", "\"");
    if (digest.empty()) continue;
    ++requests_;
    const std::string status = Between(line, "\"status\":", "}");
    if (std::atoi(status.c_str()) != 200) continue;
    const std::string verdict = Between(line, "\"inflate\":\"", "\"");
    const std::string inflated = Between(line, "\"inflated_sha256\":\"", "\"");
    ++accepted[verdict.empty() ? digest : verdict == "ok" ? inflated : verdict];
  }
  return accepted;
}

Arguments SendCommand(const Certificates& certificates, const std::string& url,
                      const Arguments& more) {
  Arguments arguments = {QUENOR_REPORT_PATH,
                         "send",
                         "--url",
                         url,
                         "--cacert",
                         certificates.ca_file(),
                         "--cache-dir",
                         certificates.Path("state")};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

Result ResultOf(Process* process) {
  Result result;
  result.exit_code = process->Wait();
  result.out = process->out().Whole();
  result.err = process->err().Whole();
  return result;
}

Result RunWhole(const Arguments& arguments, const std::string& standard_input) {
  Process process(arguments, Containing(standard_input));
  return ResultOf(&process);
}

RefusingPort::RefusingPort() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* const raw = reinterpret_cast<sockaddr*>(&address);
  // Bound but not listening: nobody else gets the port, and connecting to it fails.
  if (::bind(socket_.get(), raw, size) != 0 || ::getsockname(socket_.get(), raw, &size) != 0) {
    throw std::runtime_error("cannot bind a port");
  }
  port_ = ntohs(address.sin_port);
}

int Field(const std::string& out, const std::string& name) {
  const std::string text = Between(" " + out, " " + name + "=", " ");
  return text.empty() ? -1 : std::atoi(text.c_str());
}

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

std::vector<std::string> NumberedLines(int count) {
  std::vector<std::string> lines;
  for (int i = 1; i <= count; ++i) lines.push_back("report number " + std::to_string(i));
  return lines;
}

Digests DigestsOf(const std::vector<std::string>& messages) {
  Digests digests;
  for (const std::string& message : messages) ++digests[Sha256Hex(message)];
  return digests;
}

void ExpectEachArrived(const std::vector<std::string>& messages, const Digests& arrived) {
  const Digests sent = DigestsOf(messages);
  for (const auto& [digest, count] : sent) {
    const auto found = arrived.find(digest);
    EXPECT_TRUE(found != arrived.end() && found->second >= count) << digest;
  }
  for (const auto& [digest, count] : arrived) EXPECT_EQ(1u, sent.count(digest)) << digest;
}

bool Mentions(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace quenor::test
