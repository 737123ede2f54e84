#include "tests/integration/support/traced_getenv.h"

#include <unistd.h>

#include <atomic>
#include <cstring>

namespace {

// Filled before any constructor has run, too. The names are the callers' own literals or are gone
// soon: they are copied.
constexpr size_t kMost = 4096;
char g_names[kMost][64];
std::atomic<size_t> g_count{0};

char* Ask(const char* name) {
  const size_t index = g_count.fetch_add(1, std::memory_order_relaxed);
  if (index < kMost) std::strncpy(g_names[index], name, sizeof(g_names[index]) - 1);
  const size_t length = std::strlen(name);
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, name, length) == 0 && (*entry)[length] == '=') {
      return *entry + length + 1;
    }
  }
  return nullptr;
}

}  // namespace

extern "C" {
char* getenv(const char* name) noexcept { return Ask(name); }
char* secure_getenv(const char* name) noexcept { return Ask(name); }
}

namespace quenor::test {

std::set<std::string> VariablesAskedFor() {
  std::set<std::string> names;
  for (size_t i = 0; i < g_count && i < kMost; ++i) names.insert(g_names[i]);
  return names;
}

}  // namespace quenor::test
