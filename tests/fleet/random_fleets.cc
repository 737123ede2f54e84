// random_fleets FIRST COUNT [--events]: small fleets in scenarios that the seeds draw, each with
// what came of it in one line; with --events every event in a line. Linked twice, with the
// simulator's engine and with the tests' virtual time: both print the same.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>

#include "fleet/model/fleet.h"
#include "fleet/model/random.h"
#include "fleet/output/files.h"
#include "fleet/scenario/parse.h"
#include "quenor_base/data_report/https/cache_option.h"
#include "quenor_base/platform/config_center.h"

namespace quenor::fleet {
namespace {

std::string Number(Random* random, double least, double most) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", least + random->Unit() * (most - least));
  return text;
}

template <size_t kCount>
const char* OneOf(Random* random, const char* const (&choices)[kCount]) {
  return choices[random->Below(kCount)];
}

void DrawOwners(Random* random, uint64_t channels, std::ostringstream* out) {
  *out << "channels " << channels << "\n";
  if (random->Below(3) == 0) {
    *out << "channels " << 1 + random->Below(5) << " at " << random->Below(300) << "s over "
         << random->Below(20) << "s\n";
  }
  *out << "report every " << Number(random, 0.2, 60) << "s phase "
       << OneOf(random, {"spread", "same"}) << "\nsize 16.." << 16 + random->Below(500) << "\n"
       << OneOf(random, {"", "owner limit none\n", "owner limit 1\n", "owner limit 30\n"})
       << OneOf(random, {"", "", "owner obeys\n"});
  if (random->Below(5) == 0) *out << "owner interval " << Number(random, 0, 20) << "s\n";
  if (random->Below(3) == 0) {
    *out << "restart " << 50 + random->Below(2000) << "% per hour"
         << OneOf(random, {"", " with cache"}) << "\n";
  }
}

std::string DrawScenario(uint64_t seed) {
  Random random(seed);
  std::ostringstream out;
  const uint64_t channels = 1 + random.Below(50);
  DrawOwners(&random, channels, &out);
  out << "server capacity " << Number(&random, 0.02, 2) << " queue " << Number(&random, 0, 70)
      << "s refusal " << Number(&random, 0, 1) << " latency " << Number(&random, 0.001, 2)
      << "s sigma " << OneOf(&random, {"0", "0", "0.5", "2"}) << " connect "
      << OneOf(&random, {"0", "2"}) << " tls " << OneOf(&random, {"0", "5"}) << "\n";
  // A capacity for one channel, and for all of them.
  out << "server capacity " << Number(&random, 0.02, 0.3 * static_cast<double>(channels)) << "\n";
  out << "client timeout " << Number(&random, 1, 60) << "s connect " << Number(&random, 1, 20)
      << "s\n";
  for (uint64_t i = random.Below(4); i > 0; --i) {
    out << "from " << random.Below(500) << "s for " << random.Below(300) << "s: "
        << OneOf(&random, {"refuse", "blackhole", "status 503", "capacity 0.5", "latency 5s",
                           "report every 500ms"})
        << "\n";
  }
  out << "policy " << OneOf(&random, {"none", "fixed", "brake", "pace", "steer"}) << " "
      << OneOf(&random, {"1ms..100ms", "1s..5s", "15s..45s", "30s..50s"}) << " target "
      << Number(&random, 0.1, 1) << OneOf(&random, {"", " duration 1s..100s"}) << "\n";
  out << "length " << 30 + random.Below(700) << "s\n";
  return out.str();
}

uint64_t Hash(const std::string& text, uint64_t hash) {
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211u;
  return hash;
}

// Whether its books closed.
bool RunSeed(uint64_t seed, bool tells_events) {
  const std::string text = DrawScenario(seed);
  const Scenario scenario = ParseScenario("seed " + std::to_string(seed), text, {});
  uint64_t hash = Hash(text, 14695981039346656037u);
  size_t events = 0;
  Fleet fleet(scenario, seed);
  fleet.books().SetTrace([&](const std::string& line) {
    ++events;
    hash = Hash(line, hash);
    if (tells_events) std::printf("%s\n", line.c_str());
  });
  fleet.Run(nullptr);
  const bool closes = fleet.End();
  hash = Hash(Csv(fleet.books().rows()), hash);
  if (tells_events) std::printf("%s%s", text.c_str(), Csv(fleet.books().rows()).c_str());
  std::printf("seed %llu: %zu events, hash %016llx, books %s\n",
              static_cast<unsigned long long>(seed), events, static_cast<unsigned long long>(hash),
              closes ? "closed" : "OPEN");
  return closes;
}

int Main(int argc, char** argv) {
  if (argc < 3) return 64;
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                           uint64_t{kCacheMmap});
  const uint64_t first = std::strtoull(argv[1], nullptr, 10);
  const uint64_t count = std::strtoull(argv[2], nullptr, 10);
  const bool tells_events = argc > 3 && std::strcmp(argv[3], "--events") == 0;
  bool all_close = true;
  for (uint64_t seed = first; seed < first + count; ++seed) {
    all_close = RunSeed(seed, tells_events) && all_close;
  }
  return all_close ? 0 : 1;
}

}  // namespace
}  // namespace quenor::fleet

int main(int argc, char** argv) { return quenor::fleet::Main(argc, argv); }
