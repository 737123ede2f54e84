#include "cli/send/deflate.h"

#include <zlib.h>

#include <memory>

namespace quenor::cli {

bool IsWholeDeflateStream(std::string_view stream) {
  constexpr int kRawWindowBits = -15;
  z_stream inflater{};
  if (inflateInit2(&inflater, kRawWindowBits) != Z_OK) return false;
  const std::unique_ptr<z_stream, int (*)(z_stream*)> owner(&inflater, &inflateEnd);
  inflater.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(stream.data()));
  inflater.avail_in = static_cast<uInt>(stream.size());
  int result = Z_OK;
  while (result == Z_OK) {
    Bytef scratch[16384];  // Only the end is of interest.
    inflater.next_out = scratch;
    inflater.avail_out = sizeof(scratch);
    result = inflate(&inflater, Z_NO_FLUSH);
  }
  return result == Z_STREAM_END && inflater.avail_in == 0;
}

}  // namespace quenor::cli
