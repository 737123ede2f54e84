// What values of the command line look like.
#ifndef COLLECTOR_OPTION_TYPES_H_
#define COLLECTOR_OPTION_TYPES_H_

#include <CLI/CLI.hpp>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "collector/store/options.h"

namespace quenor::collector {

constexpr uint64_t kMaxCount = std::numeric_limits<int64_t>::max();
constexpr uint64_t kMaxSizeBytes = uint64_t{1} << 40;
constexpr uint64_t kMaxTimeMs = uint64_t{366} * 86'400 * 1000;

// A whole number from `low` to `high`. Digits only: a minus sign would wrap around.
CLI::Validator WholeNumber(uint64_t low, uint64_t high);

// An empty name is a variable of a script that was never set, not a wish to do without.
CLI::Validator NotEmpty();

// A size in bytes with an optional unit: 65536, 64KiB, 64MiB.
CLI::Validator AsSize();

// A time with its unit, in milliseconds: 1500ms, 20s, 10min, 72h.
CLI::Validator AsTime();

// A name that the store allows: 1 to 32 letters, digits, - or _.
CLI::Validator StoreName();

// A request's target without its query, as "/app/reports".
CLI::Validator RequestPath();

// Adds --store and --stream, of which --store must be given where it is `required`. Returns
// --store; ParseStore() reads *nodes.
CLI::Option* AddStore(CLI::App* app, bool required, std::string* nodes, StoreOptions* store);

// "http://host" or "https://host:port", without a path.
CLI::Validator HttpUrl();

// Splits "HOST:PORT" or "[V6]:PORT". Throws Fatal with kExitUsage.
std::pair<std::string, int> ParseAddress(const std::string& text);

// "nats://a,b:4223" as one URL for each node. Throws Fatal.
std::vector<std::string> ParseStore(const std::string& text);

}  // namespace quenor::collector

#endif  // COLLECTOR_OPTION_TYPES_H_
