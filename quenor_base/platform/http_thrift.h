// Caps of what the default HTTP client moves, for devices that pay for each byte. Process-wide; a
// forked child has the caps, and has spent nothing. Over a cap HttpClient::SendRequest() answers
// below 1, so that a channel keeps the message, its place and its count, and tries again with its
// next tick. Threads: any. What a cap costs in delay: docs/guide/embedding.md.
#ifndef QUENOR_BASE_PLATFORM_HTTP_THRIFT_H_
#define QUENOR_BASE_PLATFORM_HTTP_THRIFT_H_

#include <cstdint>
#include <string>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN

// 0: no cap. Counted are heads and bodies both ways, as HTTP/1.1 writes them, and 4,096 bytes for
// each new TLS connection; not what TLS, TCP and IP wrap around them. What has begun is never cut:
// a request goes on charge with its own size, and when it has ended with what it really moved.
struct HttpThrift {
  // On average. What was not used is saved up, as much as ten seconds bring, but 16 KiB at least:
  // so much may go at once. A request goes while any of that is left; what it has too much is paid
  // off before the next one. At most 1 GiB.
  uint64_t bytes_per_second = 0;
  // In no 24 hours in a row more is begun: what goes out within an hour counts until 24 hours after
  // that hour's end. A request larger than this goes when nothing else counts. 16,384 at least,
  // at most 1 PiB. Kept in memory: a process that starts again has spent nothing.
  uint64_t bytes_per_day = 0;
};

struct HttpSpent {
  uint64_t bytes = 0;  // Since the process began, capped or not; of exchanges that have ended.
  uint64_t bytes_within_day = 0;  // What counts for the day now, requests under way included.
  uint64_t exchanges = 0;         // That have ended, and were given to the network.
  uint64_t connections = 0;       // That were opened for them.
  uint64_t held_back = 0;         // How often SendRequest() answered below 1 for a cap.
};

// From the next request on. What has been spent already counts, also when there was no cap. Answers
// an empty string or, of a value that cannot be meant, one line that names it and says what to do;
// nothing is changed then.
[[nodiscard]] std::string SetHttpThrift(const HttpThrift& thrift);

HttpThrift GetHttpThrift();
HttpSpent GetHttpSpent();

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_HTTP_THRIFT_H_
