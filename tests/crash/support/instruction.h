// Just enough of the x86-64 instruction format to tell which address an instruction may store to.
#ifndef QUENOR_TESTS_CRASH_SUPPORT_INSTRUCTION_H_
#define QUENOR_TESTS_CRASH_SUPPORT_INSTRUCTION_H_

#include <sys/user.h>

#include <cstddef>
#include <cstdint>

namespace quenor::test {

struct Instruction {
  bool is_system_call = false;
  // Whether Address() means anything. True too often is harmless: nothing changed there then.
  bool may_store = false;
  int base = -1;  // Register numbers as the format has them; -1 for none.
  int index = -1;
  int scale = 1;
  int64_t displacement = 0;

#if defined(__x86_64__)
  uint64_t Address(const user_regs_struct& registers) const;
#endif
};

constexpr size_t kLongestInstruction = 15;
// `bytes` are kLongestInstruction readable ones.
Instruction Decode(const uint8_t* bytes);

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CRASH_SUPPORT_INSTRUCTION_H_
