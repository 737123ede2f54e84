// Delivers one report through a proxy, with a header that changes.
//   behind_a_proxy URL PROXY USER PASSWORD CA_FILE TOKEN FOLDER
#include <quenor_base/platform/http_settings.h>
#include <quenor_base/platform/http_thrift.h>
#include <quenor_base/reporter/reporter.h>

#include <iostream>

int main(int argc, char** argv) {
  if (argc != 8) return 64;
  quenor::HttpSettings http;
  http.proxy.url = argv[2];
  http.proxy.user = argv[3];
  http.proxy.password = argv[4];
  http.ca_file = argv[5];
  http.headers = {{"X-Host", "host"}};
  http.fresh_headers = [token = std::string(argv[6])] {
    return std::map<std::string, std::string>{{"Authorization", "Bearer " + token}};
  };
  std::string error = quenor::SetHttpDefaults(http);
  if (!error.empty()) return std::cerr << error << '\n', 1;

  quenor::Reporter::Options options;
  options.name = "cxx-host";
  options.url = argv[1];
  options.shared.folder = argv[7];
  options.send_limit = 1;
  const auto reporter = quenor::Reporter::Create(options, &error);
  if (reporter == nullptr) return std::cerr << error << '\n', 1;
  reporter->Send("started", 7);
  const auto outcome = reporter->Flush(std::chrono::seconds(60));
  std::cout << "acknowledged=" << outcome.acknowledged << " dropped=" << outcome.dropped
            << " exchanges=" << quenor::GetHttpSpent().exchanges << '\n';
}
