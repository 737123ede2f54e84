// quenor-fleet: a fleet of report channels in virtual time. Page: docs/guide/fleet.md.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "fleet/model/fleet.h"
#include "fleet/options.h"
#include "fleet/output/files.h"
#include "fleet/output/progress.h"
#include "fleet/output/result.h"
#include "fleet/scenario/measures.h"
#include "fleet/scenario/parse.h"
#include "quenor_base/data_report/https/cache_option.h"
#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/config_center.h"

namespace quenor::fleet {
namespace {

class BooksOpen : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Before the first channel of the process, which reads it for good.
void UseCacheIfNeeded(const std::vector<Scenario>& scenarios) {
  const bool needed = std::any_of(scenarios.begin(), scenarios.end(),
                                  [](const Scenario& each) { return each.owner.with_cache; });
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(
      config::BaseCfg().cache_option, static_cast<uint64_t>(needed ? kCacheMmap : kCacheNone));
}

void PrintSpeed(const Scenario& scenario, const Fleet& fleet, int64_t real_ms) {
  const double channel_seconds =
      fleet.channels() * static_cast<double>(scenario.length_us) / kSecondUs;
  std::fprintf(
      stderr, "%s: %u channels, %lld s in %.1f s: %.1f million channel-seconds/s, %llu events\n",
      scenario.name.c_str(), fleet.channels(),
      static_cast<long long>(scenario.length_us / kSecondUs), static_cast<double>(real_ms) / 1000,
      channel_seconds / 1000 / static_cast<double>(std::max<int64_t>(real_ms, 1)),
      static_cast<unsigned long long>(fleet.events_run()));
}

// Throws BooksOpen, and what WriteFiles() throws.
Result RunOne(const Scenario& scenario, const Options& options) {
  const int64_t begun_ms = base::MonotonicMs();
  Fleet fleet(scenario, options.seed);
  Progress progress(STDERR_FILENO, scenario);
  fleet.Run([&](int64_t now_us) { progress.Tell(now_us); });
  progress.End();
  const int64_t real_ms = base::MonotonicMs() - begun_ms;
  if (!fleet.End()) {
    throw BooksOpen(scenario.name + ": the books do not close: a report is nowhere, or twice");
  }
  PrintSpeed(scenario, fleet, real_ms);
  if (!options.out.empty()) WriteFiles(options.out, scenario, fleet.books().rows());
  return Result(fleet, scenario);
}

void PrintTable(const std::vector<Scenario>& scenarios, const std::vector<Result>& results) {
  std::printf("%-12s", "");
  for (const Scenario& scenario : scenarios) std::printf(" %20s", scenario.name.c_str());
  std::printf("\n");
  for (const Measure& measure : Measures()) {
    const std::string units = measure.units;
    const std::string unit = units.substr(0, units.find(' '));
    std::printf("%-12s", measure.name);
    for (const Result& result : results) {
      std::string text = result.Text(measure.name, unit);
      if (units.find(" /s") != std::string::npos) {
        text += ", " + result.Text(measure.name, "/s");
      }
      std::printf(" %20s", text.c_str());
    }
    std::printf("  %s\n", measure.meaning);
  }
}

// Whether all expectations of all hold; says which do not.
bool Check(const std::vector<Scenario>& scenarios, const std::vector<Result>& results) {
  size_t held = 0, failed = 0;
  for (size_t i = 0; i < scenarios.size(); ++i) {
    for (const Expectation& expectation : scenarios[i].expectations) {
      const std::string failure = FailureOf(expectation, results[i]);
      ++(failure.empty() ? held : failed);
      if (!failure.empty()) std::printf("%s\n", failure.c_str());
    }
  }
  std::printf("check: %zu passed, %zu failed\n", held, failed);
  return failed == 0;
}

ExitCode RunAll(const Options& options) {
  std::vector<Scenario> scenarios;
  for (const std::string& path : options.scenarios) {
    scenarios.push_back(ReadScenario(path, options.settings));
  }
  UseCacheIfNeeded(scenarios);
  std::vector<Result> results;
  for (const Scenario& scenario : scenarios) results.push_back(RunOne(scenario, options));
  if (options.command != Options::Command::kCheck) {
    PrintTable(scenarios, results);
    return kExitOk;
  }
  return Check(scenarios, results) ? kExitOk : kExitNotHeld;
}

int Fail(ExitCode code, const char* what) {
  std::fprintf(stderr, "quenor-fleet: %s\n", what);
  return code;
}

int Main(int argc, const char* const* argv) {
  try {
    const std::optional<Options> options = ParseCommandLine(argc, argv);
    return options ? RunAll(*options) : kExitOk;
  } catch (const std::invalid_argument& error) {
    return Fail(kExitUsage, error.what());
  } catch (const ScenarioError& error) {
    return Fail(kExitScenario, error.what());
  } catch (const BooksOpen& error) {
    return Fail(kExitInternal, error.what());
  } catch (const std::bad_alloc&) {
    return Fail(kExitInternal,
                "no memory left; run fewer channels (--set scale=0.1) or smaller reports");
  } catch (const std::exception& error) {
    return Fail(kExitCannotCreate, error.what());
  }
}

}  // namespace
}  // namespace quenor::fleet

int main(int argc, char** argv) { return quenor::fleet::Main(argc, argv); }
