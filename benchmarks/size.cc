// What the library adds to a program, in bytes, from a build of its own at -O2 (benchmarks/size).
#include <sys/stat.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "benchmarks/footprint_support.h"
#include "benchmarks/support/area.h"

namespace quenor::bench {
namespace {

const std::string kTree = QUENOR_SIZE_TREE;

// The text column of `size`: code, constants, unwinding tables and whatever else is read only.
double TextBytes(const std::string& path) {
  std::istringstream lines(OutputOf({"size", path}));
  double sum = 0;
  bool any = false;
  std::string line;
  std::getline(lines, line);  // The head of the table.
  while (std::getline(lines, line)) {
    double text = 0;
    if (!(std::istringstream(line) >> text)) Fail("size says: " + line);
    sum += text;
    any = true;
  }
  if (!any) Fail("size says nothing about " + path);
  return sum;
}

std::string Archive(const std::string& name) { return kTree + "/quenor/libquenor_" + name + ".a"; }

double FileBytes(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) Fail("there is no " + path);
  return static_cast<double>(status.st_size);
}

// The text of the archives, each told, and their sum beside the limit.
void TellGroup(Area* area, const std::string& name, const std::vector<std::string>& archives,
               const std::string& note) {
  double sum = 0;
  std::string parts;
  for (const std::string& archive : archives) {
    const double kib = TextBytes(Archive(archive)) / 1024;
    sum += kib;
    char part[100];
    std::snprintf(
        part, sizeof(part), "%s%s %.1f", parts.empty() ? "" : ", ",
        archive
            .substr(archive.rfind("default_") == std::string::npos ? 0
                                                                   : archive.rfind("default_") + 8)
            .c_str(),
        kib);
    parts += part;
  }
  area->Tell({name, "KiB", sum, 150, note + parts});
}

int Main(int argc, char** argv) {
  Area area(argc, argv, "size", "Size: what the library adds to a program");
  TellGroup(&area, "text of channel, pools and buffer", {"channel", "object_pool", "buffer"},
            "at -O2, every object of the archives whole: ");
  std::vector<std::string> services;
  for (const char* service : {"dispatch_queue", "timer", "http_client", "http_rules",
                              "proxy_config", "json", "config_center", "path_service", "cache_io",
                              "mmap_file", "cache_file", "report_events", "throtter", "log"}) {
    services.push_back(std::string("platform_default_") + service);
  }
  TellGroup(&area, "text of the default services", services, "");
  const std::string empty = kTree + "/empty";
  const std::string minimal = kTree + "/minimal";
  area.Tell({"stripped program with a channel: text", "KiB", TextBytes(minimal) / 1024, -1,
             "linked with all default services; libcurl, zlib and the C++ library are shared"});
  area.Tell({"stripped empty program: text", "KiB", TextBytes(empty) / 1024, -1, ""});
  area.Tell({"stripped program with a channel: file", "KiB", FileBytes(minimal) / 1024, -1, ""});
  area.Tell({"stripped empty program: file", "KiB", FileBytes(empty) / 1024, -1, ""});
  return area.Finish();
}

}  // namespace
}  // namespace quenor::bench

int main(int argc, char** argv) { return quenor::bench::Main(argc, argv); }
