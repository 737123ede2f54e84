#include "tests/support/deflate_faults.h"

#include <zlib.h>

#include <algorithm>
#include <utility>

namespace quenor::test {

DeflateFaults& DeflateFaults::Get() {
  static auto* faults = new DeflateFaults;
  return *faults;
}

}  // namespace quenor::test

using quenor::test::DeflateFaults;

extern "C" {

int __real_deflateInit2_(z_stream*, int, int, int, int, int, const char*, int);
int __real_deflateReset(z_stream*);
int __real_deflate(z_stream*, int);
int __real_deflateEnd(z_stream*);

int __wrap_deflateInit2_(z_stream* stream, int level, int method, int window_bits, int memory_level,
                         int strategy, const char* version, int stream_size) {
  DeflateFaults& faults = DeflateFaults::Get();
  ++faults.inits;
  faults.level = level;
  faults.method = method;
  faults.window_bits = window_bits;
  faults.memory_level = memory_level;
  faults.strategy = strategy;
  faults.version = version;
  faults.stream_size = stream_size;
  const auto* bytes = reinterpret_cast<const unsigned char*>(stream);
  faults.stream_was_zero =
      std::all_of(bytes, bytes + sizeof(z_stream), [](unsigned char byte) { return byte == 0; });
  if (faults.fail_next_init != 0) return std::exchange(faults.fail_next_init, 0);
  return __real_deflateInit2_(stream, level, method, window_bits, memory_level, strategy, version,
                              stream_size);
}

int __wrap_deflateReset(z_stream* stream) {
  DeflateFaults& faults = DeflateFaults::Get();
  ++faults.resets;
  if (faults.fail_next_reset != 0) return std::exchange(faults.fail_next_reset, 0);
  return __real_deflateReset(stream);
}

int __wrap_deflate(z_stream* stream, int flush) {
  DeflateFaults& faults = DeflateFaults::Get();
  ++faults.deflates;
  faults.last_flush_was_finish = flush == Z_FINISH;
  if (faults.fail_next_deflate != 0) return std::exchange(faults.fail_next_deflate, 0);
  return __real_deflate(stream, flush);
}

int __wrap_deflateEnd(z_stream* stream) {
  ++DeflateFaults::Get().ends;
  return __real_deflateEnd(stream);
}

}  // extern "C"
