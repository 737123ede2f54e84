// The input of the reply fuzzer: what the channel is in when the reply comes, and the reply.
#ifndef QUENOR_FUZZERS_REPLY_INPUT_H_
#define QUENOR_FUZZERS_REPLY_INPUT_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzzers/fuzz_support.h"

namespace quenor::fuzz {

// Bytes of an input before the body: how the exchange ended, the interval, the failures, the limit
// of sends, what else went before, and a nesting limit for the reader on its own.
constexpr size_t kReplyHead = 6;

// An exchange that ended well on a channel that was never told anything, and the usual limit.
inline Bytes MakeReply(const std::string& body) {
  Bytes bytes(kReplyHead);
  bytes.insert(bytes.end(), body.begin(), body.end());
  return bytes;
}

}  // namespace quenor::fuzz

#endif  // QUENOR_FUZZERS_REPLY_INPUT_H_
