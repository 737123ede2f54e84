// What the crash tests put into cache files: messages that tell their number, and lists of them
// that have a short name, so that one program can tell another what to save.
#ifndef QUENOR_TESTS_CRASH_SUPPORT_CONTENTS_H_
#define QUENOR_TESTS_CRASH_SUPPORT_CONTENTS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quenor::test {

using Content = std::vector<std::string>;

// `size` bytes, at least as long as the number needs ("m42:"); all of them follow from `number`.
std::string Message(uint64_t number, size_t size);
// 0 when the bytes are no message, or not as Message() made it.
uint64_t NumberOf(const std::string& message);

// "1-12x300+14x5000+9-7x20": numbers 1 to 12 of 300 bytes, then 14 of 5,000, then 9, 8, 7 of 20.
// Empty for none. Ends the process on anything else.
Content ContentOf(const std::string& name);

// What a busy sender may have saved as his save `number`: mostly that of the save before without a
// message or two and with a new one, sometimes nothing, sometimes something large.
Content ContentOfSave(uint64_t number);

// The numbers, shortened to ranges: "1-12,14,9-7"; "?" for what is no message. For messages to
// people.
std::string Describe(const Content& content);

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CRASH_SUPPORT_CONTENTS_H_
