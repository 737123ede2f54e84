// Reads the body of a request: whole, within its limit, and not one byte of what follows it.
// Threads: the worker that serves the connection. Page: docs/guide/collector.md.
#ifndef COLLECTOR_HTTP_BODY_H_
#define COLLECTOR_HTTP_BODY_H_

#include <httplib.h>

#include <cstdint>
#include <string>

namespace quenor::collector {

// How the head announces the body.
struct BodyFraming {
  bool chunked = false;
  uint64_t length_bytes = 0;  // Meaningless when chunked.
};

enum class BodyOutcome {
  kWhole,
  kTooLarge,          // Over the limit; all of it was read away, and the connection can go on.
  kFarTooLarge,       // Over the limit by so much that the rest was left unread.
  kMalformed,         // No chunk where one was due.
  kTrailersTooLarge,  // More than a head may have.
  kIncomplete,        // The input ended, failed or was late.
};

// A body that is over the limit by no more than this is read away.
constexpr uint64_t kMaxReadAwayBytes = uint64_t{64} << 20;

// Appends the body to `*body`, which stays or becomes empty when it is too large. `*size_bytes` is
// what was announced or, of a chunked body, the chunks that were begun.
BodyOutcome ReadBody(httplib::Stream* input, const BodyFraming& framing, uint64_t limit_bytes,
                     std::string* body, uint64_t* size_bytes);

// Digits only, as HTTP wants it, at most 18 of them (15 for base 16); strtoull would take signs and
// blanks. False leaves `*number` alone.
bool ParseDigits(const std::string& text, int base, uint64_t* number);

}  // namespace quenor::collector

#endif  // COLLECTOR_HTTP_BODY_H_
