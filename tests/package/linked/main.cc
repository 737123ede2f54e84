// What the shared library exports of C++ is what a host of Reporter needs, and to set its network.
#include <quenor_base/platform/http_thrift.h>
#include <quenor_base/platform/network_change.h>
#include <quenor_base/reporter/exposition.h>
#include <quenor_base/reporter/reporter.h>

#include <iostream>

namespace {

// Empty, or what went wrong.
std::string SetNetwork() {
  quenor::HttpDefaults http = quenor::GetHttpDefaults();
  http.user_agent = "linked";
  http.fresh_headers = [] { return std::map<std::string, std::string>{{"Authorization", "none"}}; };
  const std::string refused = quenor::SetHttpThrift({1, 1});
  if (refused.find("bytes_per_day") == std::string::npos) return "taken: " + refused;
  std::string error = quenor::SetHttpDefaults(http);
  if (error.empty()) error = quenor::SetHttpSettings("https://127.0.0.1:1", http);
  if (error.empty()) error = quenor::SetHttpThrift({1 << 20, 1 << 20});
  if (error.empty()) error = quenor::WatchNetwork(false);
  quenor::NetworkChanged();
  const bool is_set = quenor::ResetHttpSettings("https://127.0.0.1:1") &&
                      quenor::GetHttpDefaults().user_agent == "linked" &&
                      quenor::GetHttpThrift().bytes_per_day == 1 << 20 &&
                      quenor::GetHttpSpent().bytes == 0;
  if (error.empty() && !is_set) error = "it is not as it was set";
  return error;
}

}  // namespace

int main(int, char** argv) {
  std::string error = SetNetwork();
  if (!error.empty()) return std::cerr << error << '\n', 1;
  quenor::Reporter::Options options;
  options.name = "linked_too";
  options.url = "https://127.0.0.1:1/";
  options.shared.folder = argv[1];
  options.on_update = [](const quenor::Reporter::Update& update) {
    std::cerr << NameOf(update.cause) << ' ' << HttpReasonName(update.reason) << '\n';
  };
  const auto reporter = quenor::Reporter::Create(options, &error);
  if (reporter == nullptr) return std::cerr << error << '\n', 1;
  if (!reporter->Send("started", 7)) return 2;
  reporter->Flush(std::chrono::milliseconds(0));
  reporter->SetSendInterval(reporter->ReportIntervalMs());
  reporter->SetUrl(options.url);
  const auto all = reporter->Stop(std::chrono::milliseconds(0));
  std::cerr << quenor::Reporter::TextOf(reporter->Send("late", 4).refusal) << '\n';
  std::cerr << quenor::Reporter::Metrics() << quenor::Reporter::ReadProcessBooks().Refused()
            << '\n';
  if (!reporter->ReadBooks().Closes() || reporter->Now().kept != all.kept) return 3;
  std::cout << all.acknowledged << " acknowledged, " << all.kept << " kept\n";
}
