#include "cli/doctor/doctor.h"

#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <vector>

#include "cli/console.h"
#include "cli/doctor/probe.h"
#include "cli/doctor/proxy.h"
#include "cli/text.h"
#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/http_client.h"

namespace quenor::cli {
namespace {

using Result = Step::Result;

// A part of a parsed URL; empty when it has none.
std::string Part(CURLU* url, CURLUPart part, unsigned int flags = 0) {
  char* text = nullptr;
  if (curl_url_get(url, part, &text, flags) != CURLUE_OK) return "";
  const std::string copy = text;
  curl_free(text);
  return copy;
}

std::string WithoutBrackets(const std::string& host) {
  return !host.empty() && host.front() == '[' ? host.substr(1, host.size() - 2) : host;
}

using Url = std::unique_ptr<CURLU, void (*)(CURLU*)>;

Place PlaceOf(const Url& parsed) {
  Place place;
  const std::string zone = Part(parsed.get(), CURLUPART_ZONEID);
  place.host =
      WithoutBrackets(Part(parsed.get(), CURLUPART_HOST)) + (zone.empty() ? "" : "%") + zone;
  place.port = static_cast<uint16_t>(
      std::atoi(Part(parsed.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT).c_str()));
  return place;
}

// Of the proxy's URL, which the client has taken.
Place PlaceOf(const std::string& url) {
  const Url parsed(curl_url(), &curl_url_cleanup);
  curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME);
  return PlaceOf(parsed);
}

void DescribeTrust(const Connection& connection, const CaSource& ca, Step* step) {
  const bool is_system = connection.ca_file.empty() && connection.ca_folder.empty();
  const std::string whose = is_system ? " (the system's)" : "";
  for (const std::string& path : {ca.file, ca.folder}) {
    if (!path.empty()) step->Add("CA certificates", path + whose);
  }
  for (const std::string& pin : connection.pins) step->Add("pin", pin);
  if (connection.pins.empty()) step->Add("pin", "none: any certified key is accepted");
  const std::string& certificate = connection.client_certificate_file;
  const std::string& key = connection.client_key_file;
  step->Add(
      "client certificate",
      certificate.empty() ? "none" : certificate + ", key in " + (key.empty() ? certificate : key));
}

void JudgeSystemCa(const Connection& connection, const CaSource& ca, Step* step) {
  if (!connection.ca_file.empty() || !connection.ca_folder.empty()) return;
  if (ca.file.empty() && ca.folder.empty()) {
    step->Fail("no_ca", "the HTTP client knows of no CA certificates of the system's",
               "give --cacert or --capath");
  } else if (!ca.file.empty() && ::access(ca.file.c_str(), R_OK) != 0) {
    const int error = errno;
    step->Fail("no_ca",
               "cannot read the system's CA certificates " + ca.file + ": " + ErrnoText(error),
               "install them (on Debian the package ca-certificates), or give --cacert");
  }
}

void DescribeEnvironment(const Environment& environment, bool proxies_count, Step* step) {
  for (const char* const name :
       {"https_proxy", "HTTPS_PROXY", "http_proxy", "all_proxy", "ALL_PROXY", "no_proxy",
        "NO_PROXY", "SSL_CERT_FILE", "SSL_CERT_DIR", "CURL_CA_BUNDLE"}) {
    const char* const value = environment(name);
    if (value == nullptr || *value == '\0') continue;
    const std::string text = name;
    const bool is_of_certificates = text.find("CERT") != std::string::npos || text[0] == 'C';
    if (proxies_count && !is_of_certificates) {
      step->Add("environment", text + " is set, and read: --proxy-from-environment is given");
      continue;
    }
    step->Add("environment", text + " is set, which changes nothing for reports: give " +
                                 (is_of_certificates ? "--cacert or --capath"
                                                     : "--proxy, or --proxy-from-environment"));
  }
  const char* const keys = environment("SSLKEYLOGFILE");
  if (keys == nullptr || *keys == '\0') return;
  step->Add("environment", std::string("SSLKEYLOGFILE is set: ") + keys);
  step->Warn("key_log",
             "the keys of all TLS connections are written to that file, and whoever has "
             "it can read the reports; unset SSLKEYLOGFILE unless this is wanted");
}

class Doctor {
 public:
  Doctor(const DoctorCommand& command, int out_fd)
      : command_(command),
        out_fd_(out_fd),
        timeout_ms_(static_cast<uint32_t>(std::ceil(command.timeout_s * 1000))),
        target_(ParseTarget(command.url)) {}

  ExitCode Run();

 private:
  // Runs one step and shows it. False when it failed.
  template <typename F>
  bool Do(F make);
  bool Show(const Step& step);
  void Skip(const std::string& name, const std::string& why) {
    Step step(name, why);
    step.result = Result::kSkipped;
    Show(step);
  }

  bool Prepare();
  bool Reach();
  bool ReachThroughProxy();
  bool ReachDirectly();
  bool Secure();
  void Conclude(double total_ms);

  Step DescribeUrl() const;

  const DoctorCommand& command_;
  const int out_fd_;
  const uint32_t timeout_ms_;
  const Target target_;
  CaSource ca_;
  std::shared_ptr<const ClientSettings> settings_;
  Socket socket_;
  std::string failed_;  // The step that failed.
  std::string cause_;
  HttpReason reason_ = HttpReason::kNone;
  int warnings_ = 0;
};

template <typename F>
bool Doctor::Do(F make) {
  const auto begin = base::MonotonicNow();
  Step step = make();
  const auto end = base::MonotonicNow();
  step.duration_ms = std::chrono::duration<double, std::milli>(end - begin).count();
  return Show(step);
}

bool Doctor::Show(const Step& step) {
  if (!WriteAll(out_fd_, command_.json ? AsJson(step) : AsText(step))) {
    const int error = errno;
    throw Fatal(kExitIo, "cannot write to standard output: " + ErrnoText(error));
  }
  if (step.result == Result::kWarning) ++warnings_;
  if (step.result != Result::kFailed) return true;
  failed_ = step.name;
  cause_ = step.cause;
  reason_ = step.reason;
  return false;
}

Step Doctor::DescribeUrl() const {
  Step step("url", target_.shown_url);
  step.Add("host", target_.place.host);
  step.Add("port", std::to_string(target_.place.port));
  return step;
}

bool Doctor::Prepare() {
  ca_ = CaInForce(command_);
  return Do([&] { return DescribeUrl(); }) && Do([&] {
           ApplyConnection(command_);
           settings_ = SettingsInForce(command_, target_.is_tls);
           return DescribeSettings(command_, ca_, target_.is_tls, settings_->proxy,
                                   [](const char* name) { return std::getenv(name); });
         });
}

bool Doctor::ReachDirectly() {
  std::vector<Endpoint> endpoints;
  return Do([&] {
           return Resolve("resolve", target_.place, timeout_ms_, &SystemLookUp, &endpoints);
         }) &&
         Do([&] { return Connect("connect", "the server", endpoints, timeout_ms_, &socket_); });
}

bool Doctor::ReachThroughProxy() {
  Skip("resolve", "not done here: the proxy resolves \"" + target_.place.host + "\"");
  const Place place = PlaceOf(settings_->proxy.url);
  std::vector<Endpoint> endpoints;
  return Do([&] {
           return Resolve("proxy-resolve", place, timeout_ms_, &SystemLookUp, &endpoints);
         }) &&
         Do([&] {
           return Connect("proxy-connect", "the proxy", endpoints, timeout_ms_, &socket_);
         }) &&
         Do([&] { return AskProxy(*settings_, target_.place, timeout_ms_, &socket_); });
}

bool Doctor::Reach() {
  const Route route = RouteTo(target_.place, *settings_);
  if (route.is_proxied) return ReachThroughProxy();
  const std::string& host = target_.place.host;
  if (!settings_->proxy.url.empty()) {
    Skip("proxy", "\"" + host + "\" is among what is reached without it");
  }
  if (!route.pinned) return ReachDirectly();
  Skip("resolve", "not done: --connect-to says where \"" + host + "\" is");
  return Do(
      [&] { return Connect("connect", "the server", {*route.pinned}, timeout_ms_, &socket_); });
}

bool Doctor::Secure() {
  if (target_.is_tls && socket_.get() < 0) {
    return Do([&] { return CheckTlsInTls(*settings_, target_.place, timeout_ms_); });
  }
  if (target_.is_tls) {
    return Do([&] { return CheckTls(socket_.get(), target_.host, command_, ca_, timeout_ms_); });
  }
  Skip("tls", "the URL is http://: reports go as they are, and everyone between can read them");
  return true;
}

void Doctor::Conclude(double total_ms) {
  Step step("verdict");
  step.duration_ms = total_ms;
  if (!failed_.empty()) {
    step.Fail(cause_, "reports do not arrive: the step " + failed_ + " failed (" + cause_ + ")",
              "");
    step.reason = reason_;
    step.Add("reason", HttpReasonName(reason_));
  } else {
    step.summary = command_.probe ? "reports arrive"
                                  : "no step failed; no report was sent, which --probe does";
    if (warnings_ > 0)
      step.summary += "; see " + CountOf(static_cast<uint64_t>(warnings_), "warning");
  }
  Show(step);
}

ExitCode Doctor::Run() {
  const auto begin = base::MonotonicNow();
  if (Prepare() && Reach() && Secure() && command_.probe) {
    socket_ = Socket();
    Do([&] { return Probe(command_.url, target_.is_tls, command_, timeout_ms_); });
  }
  const auto end = base::MonotonicNow();
  Conclude(std::chrono::duration<double, std::milli>(end - begin).count());
  return failed_.empty() ? kExitOk : kExitUnavailable;
}

}  // namespace

Target ParseTarget(const std::string& url) {
  const Url parsed(curl_url(), &curl_url_cleanup);
  const CURLUcode code = curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0);
  if (code != CURLUE_OK) {
    throw Fatal(kExitUsage, std::string("cannot use the URL: ") + curl_url_strerror(code) +
                                "; give --url a whole one, as in "
                                "https://collector.example/reports");
  }
  Target target;
  target.is_tls = Part(parsed.get(), CURLUPART_SCHEME) == "https";
  target.host = WithoutBrackets(Part(parsed.get(), CURLUPART_HOST));
  target.place = PlaceOf(parsed);
  for (const CURLUPart secret :
       {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_QUERY, CURLUPART_FRAGMENT}) {
    curl_url_set(parsed.get(), secret, nullptr, 0);
  }
  target.shown_url = Part(parsed.get(), CURLUPART_URL);
  return target;
}

CaSource CaInForce(const Connection& connection) {
  if (!connection.ca_file.empty() || !connection.ca_folder.empty()) {
    return {connection.ca_file, connection.ca_folder};
  }
  const curl_version_info_data* const info = curl_version_info(CURLVERSION_NOW);
  CaSource ca;
  if (info->cainfo != nullptr) ca.file = info->cainfo;
  if (info->cainfo == nullptr && info->capath != nullptr) ca.folder = info->capath;
  return ca;
}

Step DescribeSettings(const Connection& connection, const CaSource& ca, bool is_tls,
                      const HttpProxy& proxy, const Environment& environment) {
  Step step("settings", std::string("those that quenor-report send has with these options"));
  if (is_tls) {
    DescribeTrust(connection, ca, &step);
    step.Add("TLS", "1.2 or newer");
  }
  step.Add("HTTP", connection.http1 || !is_tls ? "HTTP/1.1 only" : "HTTP/2 is offered");
  const std::string user = proxy.user.empty() ? "" : " as \"" + proxy.user + "\"";
  step.Add("proxy", proxy.url.empty() ? "none" : proxy.url + user);
  for (const std::string& name : proxy.except) step.Add("without it", name);
  for (const std::string& place : connection.connect_to) step.Add("connect to", place);
  for (const auto& [name, value] : connection.headers) step.Add("header", name);
  step.Add("HTTP client", HttpClientFactory::ImplementationName());
  DescribeEnvironment(environment, connection.proxy_from_environment, &step);
  if (is_tls) JudgeSystemCa(connection, ca, &step);
  return step;
}

ExitCode RunDoctor(const DoctorCommand& command, int out_fd) {
  return Doctor(command, out_fd).Run();
}

}  // namespace quenor::cli
