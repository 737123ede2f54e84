#include "collector/reports/inflate.h"

#include <zlib.h>

#include <algorithm>
#include <new>

namespace quenor::collector {
namespace {

constexpr int kRawDeflateWindowBits = -15;
constexpr size_t kOutputStepBytes = 64 * 1024;
// zlib counts with 32 bits, so larger inputs are handed over in slices.
constexpr size_t kInputSliceBytes = size_t{1} << 30;

class InflateStream {
 public:
  InflateStream() {
    if (inflateInit2(&stream_, kRawDeflateWindowBits) != Z_OK) throw std::bad_alloc();
  }
  ~InflateStream() { inflateEnd(&stream_); }
  InflateStream(const InflateStream&) = delete;
  InflateStream& operator=(const InflateStream&) = delete;

  z_stream* get() { return &stream_; }

 private:
  z_stream stream_{};
};

}  // namespace

Inflated InflateRaw(std::string_view input, size_t max_output_bytes) {
  InflateStream holder;
  z_stream* stream = holder.get();
  Inflated result;
  size_t handed_over = 0;
  int code = Z_OK;

  while (code == Z_OK) {
    if (stream->avail_in == 0 && handed_over < input.size()) {
      const size_t slice = std::min(input.size() - handed_over, kInputSliceBytes);
      // zlib does not write through next_in; its type is older than const.
      stream->next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data() + handed_over));
      stream->avail_in = static_cast<uInt>(slice);
      handed_over += slice;
    }
    // One byte beyond the limit tells "exactly at the limit" from "more than the limit".
    Bytef step[kOutputStepBytes];
    const size_t room = max_output_bytes - result.output.size();
    const size_t want = room < sizeof(step) ? room + 1 : sizeof(step);
    stream->next_out = step;
    stream->avail_out = static_cast<uInt>(want);
    code = inflate(stream, Z_NO_FLUSH);
    if (code == Z_MEM_ERROR) throw std::bad_alloc();

    const size_t made = want - stream->avail_out;
    result.output.append(reinterpret_cast<const char*>(step), std::min(made, room));
    if (made > room) {
      result.consumed_bytes = handed_over - stream->avail_in;
      result.verdict = InflateVerdict::kTooLarge;
      return result;
    }
  }

  result.consumed_bytes = handed_over - stream->avail_in;
  if (code == Z_STREAM_END) {
    result.verdict =
        result.consumed_bytes == input.size() ? InflateVerdict::kOk : InflateVerdict::kTrailing;
  } else if (code == Z_BUF_ERROR) {
    // There was room for output, so the only thing lacking is input.
    result.verdict = InflateVerdict::kTruncated;
  } else {
    result.verdict = InflateVerdict::kCorrupt;
  }
  return result;
}

const char* InflateVerdictName(InflateVerdict verdict) {
  switch (verdict) {
    case InflateVerdict::kOk:
      return "ok";
    case InflateVerdict::kTruncated:
      return "truncated";
    case InflateVerdict::kCorrupt:
      return "corrupt";
    case InflateVerdict::kTrailing:
      return "trailing";
    case InflateVerdict::kTooLarge:
      return "too-large";
  }
  return "corrupt";
}

}  // namespace quenor::collector
