// Records of a plain cache file on their way to the disk. Threads: one at a time.
// Page: docs/formats/cache-file.md.
#ifndef SERVICES_CACHE_FILE_POSIX_BATCH_H_
#define SERVICES_CACHE_FILE_POSIX_BATCH_H_

#include <cstddef>
#include <cstdint>

#include "services/cache_file_posix/format.h"
#include "services/cache_file_posix/reader.h"
#include "services/cache_shared/file_calls_posix.h"
#include "services/cache_shared/nothrow_array.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_file {

// Records that are about to be written at a place of the file, behind one another.
class Batch {
 public:
  void Start(uint64_t offset) {
    offset_ = offset;
    bytes_.Clear();
  }
  uint64_t end() const { return offset_ + bytes_.size(); }
  size_t size() const { return bytes_.size(); }

  [[nodiscard]] bool Reserve(size_t size) { return bytes_.Reserve(size); }
  [[nodiscard, gnu::noinline]] bool Add(const void* bytes, size_t size) {
    return bytes_.Append(static_cast<const uint8_t*>(bytes), size);
  }
  // The header of a packet whose bytes follow.
  [[nodiscard]] bool AddPacketHeader(uint64_t number, uint32_t size, uint64_t body_check) {
    const RecordHeader header = MakeRecordHeader(kPacketMagic, number, size, body_check, end());
    return Add(&header, sizeof header);
  }
  // An order or a seal that names these packets.
  [[nodiscard]] bool AddNames(uint32_t magic, uint64_t number, const Packet* first,
                              const Packet* last);
  // False with errno: some of it may be in the file.
  [[nodiscard]] bool Write(int fd) const {
    return cache_io::WriteAt(fd, bytes_.data(), bytes_.size(), offset_);
  }

 private:
  uint64_t offset_ = 0;
  NothrowArray<uint8_t> bytes_;
};

}  // namespace cache_file
QUENOR_NAMESPACE_END

#endif  // SERVICES_CACHE_FILE_POSIX_BATCH_H_
