#include "tests/crash/support/instruction.h"

#include <cstring>

namespace quenor::test {
namespace {

// What prefixes add to the operand byte.
struct Prefixes {
  int index_high = 0;  // 8 when the index is one of the eight newer registers.
  int base_high = 0;
  int displacement_unit = 1;  // Of a one-byte displacement.
  bool other_segment = false;
};

bool IsLegacyPrefix(uint8_t byte) {
  return byte == 0x66 || byte == 0x67 || byte == 0xf2 || byte == 0xf3 || byte == 0xf0 ||
         byte == 0x2e || byte == 0x36 || byte == 0x3e || byte == 0x26 || byte == 0x64 ||
         byte == 0x65;
}

bool IsStringStore(uint8_t opcode) {
  return opcode == 0xa4 || opcode == 0xa5 || opcode == 0xaa || opcode == 0xab;
}

void DecodeOperand(const uint8_t* at, const Prefixes& prefixes, Instruction* out) {
  const uint8_t operand = *at++;
  const int mode = operand >> 6;
  const int memory = operand & 7;
  if (mode == 3 || (mode == 0 && memory == 5)) return;  // A register, or beside the code.
  bool has_base = true;
  out->base = memory;
  if (memory == 4) {
    const uint8_t scaled = *at++;
    const int index = (scaled >> 3 & 7) + prefixes.index_high;
    if (index != 4) out->index = index;
    out->scale = 1 << (scaled >> 6);
    out->base = scaled & 7;
    has_base = mode != 0 || out->base != 5;
  }
  out->base = has_base ? out->base + prefixes.base_high : -1;
  if (mode == 1) {
    out->displacement = int64_t{static_cast<int8_t>(*at)} * prefixes.displacement_unit;
  } else if (mode == 2 || !has_base) {
    int32_t displacement;
    std::memcpy(&displacement, at, sizeof(displacement));
    out->displacement = displacement;
  }
  out->may_store = true;
}

}  // namespace

Instruction Decode(const uint8_t* bytes) {
  uint8_t padded[kLongestInstruction + 8] = {};
  std::memcpy(padded, bytes, kLongestInstruction);
  const uint8_t* at = padded;
  const uint8_t* const last = padded + kLongestInstruction - 1;
  Prefixes prefixes;
  Instruction out;
  for (; at < last && IsLegacyPrefix(*at); ++at) {
    prefixes.other_segment |= *at == 0x64 || *at == 0x65;
  }
  if ((*at & 0xf0) == 0x40) {
    prefixes.index_high = (*at & 2) << 2;
    prefixes.base_high = (*at & 1) << 3;
    ++at;
  }
  const uint8_t opcode = *at++;
  if (IsStringStore(opcode)) {
    out.base = 7;
    out.may_store = true;
    return out;
  }
  switch (opcode) {
    case 0x0f:
      out.is_system_call = *at == 0x05;
      at += *at == 0x38 || *at == 0x3a ? 2 : 1;
      break;
    case 0xc5:  // Vector prefixes: the high bits of the registers are inverted.
      at += 2;
      break;
    case 0xc4:
      prefixes.index_high = at[0] & 0x40 ? 0 : 8;
      prefixes.base_high = at[0] & 0x20 ? 0 : 8;
      at += 3;
      break;
    case 0x62:
      prefixes.index_high = at[0] & 0x40 ? 0 : 8;
      prefixes.base_high = at[0] & 0x20 ? 0 : 8;
      prefixes.displacement_unit = 16 << (at[2] >> 5 & 3);  // Of moves of whole vectors.
      at += 4;
      break;
    default:
      break;
  }
  if (!out.is_system_call && !prefixes.other_segment) DecodeOperand(at, prefixes, &out);
  return out;
}

#if defined(__x86_64__)
uint64_t Instruction::Address(const user_regs_struct& r) const {
  const uint64_t values[] = {r.rax, r.rcx, r.rdx, r.rbx, r.rsp, r.rbp, r.rsi, r.rdi,
                             r.r8,  r.r9,  r.r10, r.r11, r.r12, r.r13, r.r14, r.r15};
  uint64_t address = static_cast<uint64_t>(displacement);
  if (base >= 0) address += values[base];
  if (index >= 0) address += values[index] * static_cast<uint64_t>(scale);
  return address;
}
#endif

}  // namespace quenor::test
