// Decoder of raw deflate streams (no zlib or gzip header, no checksum), independent of the sender.
// Threads: InflateRaw is a pure function; any thread.
#ifndef COLLECTOR_REPORTS_INFLATE_H_
#define COLLECTOR_REPORTS_INFLATE_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace quenor::collector {

enum class InflateVerdict {
  kOk,         // One whole stream, nothing after it.
  kTruncated,  // Valid as far as it goes, but the input ends before the stream does.
  kCorrupt,    // Not a deflate stream from some byte on.
  kTrailing,   // One whole stream, then bytes that do not belong to it.
  kTooLarge,   // The output limit was reached before the end of the stream.
};

struct Inflated {
  InflateVerdict verdict = InflateVerdict::kOk;
  std::string output;         // Everything that could be decoded, whatever the verdict.
  size_t consumed_bytes = 0;  // Input bytes the decoder used; less than the input for kTrailing.
};

// Any thread. Decodes `input`, keeping at most `max_output_bytes`. Does not throw on bad input;
// std::bad_alloc when memory runs out.
Inflated InflateRaw(std::string_view input, size_t max_output_bytes);

// The word for a verdict in the log: "ok", "truncated", "corrupt", "trailing", "too-large".
const char* InflateVerdictName(InflateVerdict verdict);

}  // namespace quenor::collector

#endif  // COLLECTOR_REPORTS_INFLATE_H_
