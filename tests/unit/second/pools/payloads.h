// Bodies for the compression tests, and a decompressor that does not know the channel.
#ifndef QUENOR_TESTS_UNIT_SECOND_POOLS_PAYLOADS_H_
#define QUENOR_TESTS_UNIT_SECOND_POOLS_PAYLOADS_H_

#include <zlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

namespace quenor::test {

// `size` bytes that do not compress.
inline std::string Noise(size_t size, uint32_t seed = 1) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() >> 11);
  return bytes;
}

// `size` bytes of something like a report: words that come again.
inline std::string Report(size_t size, uint32_t seed = 1) {
  static const char* const kWords[] = {"stream", "bitrate=", "fps ", "loss:", "0.25", "\n", "user"};
  std::mt19937 random(seed);
  std::string text;
  while (text.size() < size) text += kWords[random() % 7] + std::to_string(random() % 50);
  text.resize(size);
  return text;
}

struct Inflated {
  std::string bytes;
  bool ended = false;    // The stream came to its end.
  size_t left_over = 0;  // Bytes behind that end.
};

// Reads `deflated` as a raw deflate stream, as far as it goes.
inline Inflated InflateRaw(const std::string& deflated) {
  Inflated result;
  z_stream stream{};
  if (inflateInit2(&stream, -15) != Z_OK) return result;
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(deflated.data()));
  stream.avail_in = static_cast<uInt>(deflated.size());
  int code = Z_OK;
  char chunk[4096];
  while (code == Z_OK) {
    stream.next_out = reinterpret_cast<Bytef*>(chunk);
    stream.avail_out = sizeof(chunk);
    code = inflate(&stream, Z_SYNC_FLUSH);
    result.bytes.append(chunk, sizeof(chunk) - stream.avail_out);
  }
  result.ended = code == Z_STREAM_END;
  result.left_over = stream.avail_in;
  inflateEnd(&stream);
  return result;
}

}  // namespace quenor::test

#endif  // QUENOR_TESTS_UNIT_SECOND_POOLS_PAYLOADS_H_
