#include "fuzzers/sparse_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace quenor::fuzz {
namespace {

struct Stretch {
  uint32_t offset;
  const uint8_t* bytes;
  size_t size;
};

size_t SizeOf(const uint8_t* data, size_t size) {
  uint32_t file_size = 0;
  if (size >= sizeof file_size) std::memcpy(&file_size, data, sizeof file_size);
  return file_size % (kLargestSparseFile + 1);
}

std::vector<Stretch> StretchesOf(const uint8_t* data, size_t size) {
  const size_t file_size = SizeOf(data, size);
  std::vector<Stretch> stretches;
  for (size_t at = 4; at + 6 <= size;) {
    uint32_t offset;
    uint16_t length;
    std::memcpy(&offset, data + at, sizeof offset);
    std::memcpy(&length, data + at + 4, sizeof length);
    at += 6;
    const size_t given = std::min<size_t>(length, size - at);
    if (offset < file_size) {
      stretches.push_back({offset, data + at, std::min<size_t>(given, file_size - offset)});
    }
    at += given;
  }
  return stretches;
}

}  // namespace

Bytes FromSparse(const uint8_t* data, size_t size) {
  Bytes file(SizeOf(data, size));
  for (const Stretch& stretch : StretchesOf(data, size)) {
    if (stretch.size > 0) std::memcpy(file.data() + stretch.offset, stretch.bytes, stretch.size);
  }
  return file;
}

Bytes ToSparse(const Bytes& file) {
  constexpr size_t kShortestHole = 16;
  Bytes sparse;
  const auto put = [&](const void* value, size_t size) {
    const uint8_t* const first = static_cast<const uint8_t*>(value);
    sparse.insert(sparse.end(), first, first + size);
  };
  const uint32_t file_size = static_cast<uint32_t>(file.size());
  put(&file_size, sizeof file_size);
  for (size_t at = 0; at < file.size();) {
    if (file[at] == 0) {
      ++at;
      continue;
    }
    size_t end = at + 1;
    for (size_t i = end; i < file.size() && i - end < kShortestHole && i - at < UINT16_MAX; ++i) {
      if (file[i] != 0) end = i + 1;
    }
    const uint32_t offset = static_cast<uint32_t>(at);
    const uint16_t length = static_cast<uint16_t>(end - at);
    put(&offset, sizeof offset);
    put(&length, sizeof length);
    put(file.data() + at, length);
    at = end;
  }
  return sparse;
}

size_t WriteFuzzedSparse(const uint8_t* data, size_t size) {
  RemoveFuzzed();
  const size_t file_size = SizeOf(data, size);
  const int fd = open(FuzzedPath().c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
  FUZZ_CHECK(fd >= 0 && ftruncate(fd, static_cast<off_t>(file_size)) == 0);
  for (const Stretch& stretch : StretchesOf(data, size)) {
    FUZZ_CHECK(pwrite(fd, stretch.bytes, stretch.size, stretch.offset) ==
               static_cast<ssize_t>(stretch.size));
  }
  FUZZ_CHECK(close(fd) == 0);
  return file_size;
}

}  // namespace quenor::fuzz
