#include <quenor_base/reporter/reporter.h>

bool HostReports(const char* url) {
  std::string error;
  const auto reporter = quenor::Reporter::Create({"host", url}, &error);
  return reporter != nullptr && reporter->Send("started", 7) &&
         reporter->Stop(std::chrono::milliseconds(0)).kept == 1;
}
