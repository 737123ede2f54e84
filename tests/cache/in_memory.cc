// Linked into tests that make thousands of files and ask nothing of the disk: their folders are in
// memory where there is such a place. TMPDIR outranks it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

namespace quenor::test {
namespace {

class InMemory : public ::testing::Environment {
  void SetUp() override {
    if (access("/dev/shm", W_OK | X_OK) == 0) setenv("TMPDIR", "/dev/shm", 0);
  }
};
const ::testing::Environment* const g_in_memory = ::testing::AddGlobalTestEnvironment(new InMemory);

}  // namespace
}  // namespace quenor::test
