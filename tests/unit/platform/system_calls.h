// Stands between the services under test and the system: the executable's own mkdir(), stat(),
// getpwuid_r() and writev() count, fail or shorten calls as a test asks, and otherwise pass them
// on. One thread only while anything but the initial state is set.
#ifndef QUENOR_TESTS_UNIT_PLATFORM_SYSTEM_CALLS_H_
#define QUENOR_TESTS_UNIT_PLATFORM_SYSTEM_CALLS_H_

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

namespace quenor::system_calls {

// mkdir(), stat() and getpwuid_r().
extern std::atomic<bool> interrupt_every_second_folder_call;  // EINTR for the 1st, 3rd, 5th ...
extern std::atomic<int> folder_calls;                         // Of all three.
extern std::atomic<int> mkdir_calls;
extern std::atomic<int> fail_mkdir_number;  // From 1; 0: none.
extern std::atomic<int> fail_mkdir_errno;
extern std::atomic<bool> create_before_mkdir;  // Someone else is quicker.

// getpwuid_r() then wants so much room for a user whose home is "/some/home"; 0: it is passed on.
// The first call is interrupted.
extern std::atomic<size_t> user_entry_bytes;

// writev() to descriptor 2 follows the script, one step a call, then keeps to its last step.
struct WriteStep {
  int error = 0;          // The call fails with it, if it is not 0.
  size_t most_bytes = 0;  // Else it takes at most so many bytes.
};
void ScriptStderr(const std::vector<WriteStep>& script);
// What the script's calls took, and how many there were.
const std::string& StderrTaken();
int StderrCalls();

// Back to the initial state: everything is passed on.
void Reset();

}  // namespace quenor::system_calls

#endif  // QUENOR_TESTS_UNIT_PLATFORM_SYSTEM_CALLS_H_
