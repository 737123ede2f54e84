// What admission_program.cc does, for the test that looks at it.
#ifndef QUENOR_TESTS_CRASH_ADMISSION_PROGRAM_H_
#define QUENOR_TESTS_CRASH_ADMISSION_PROGRAM_H_

#include <cstddef>

namespace quenor::test {

inline constexpr size_t kAdmissionBytes = 256;
inline constexpr int kAdmissionPending = 120;  // Before the first phase; below the list's limit.
inline constexpr int kAdmissions = 50;
// Between the program's marks, one after the other: so many messages handed over, admitted, sent,
// answered.
enum AdmissionPhase : size_t { kHandOver, kAdmit, kSend, kAnswer, kAdmissionPhases };

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CRASH_ADMISSION_PROGRAM_H_
