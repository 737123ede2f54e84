// A plain cache file that is written to take the place of another: what that one holds, without
// gaps, as one completed save. Threads: one at a time; blocks on the file system.
// Page: docs/design/cache-file.md.
#ifndef SERVICES_CACHE_FILE_POSIX_REWRITE_H_
#define SERVICES_CACHE_FILE_POSIX_REWRITE_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "services/cache_file_posix/batch.h"
#include "services/cache_file_posix/reader.h"
#include "services/cache_shared/file_calls_posix.h"
#include "services/cache_shared/nothrow_array.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_file {

// Packets up to this size are copied behind their header and written with one call.
constexpr size_t kCopyLimitBytes = 64 * 1024;

struct Fresh {
  struct Source {
    int fd;
    uint64_t digest_key;
    const NothrowArray<Packet>& packets;
    uint64_t save_number;  // Of the save that they become.
  };
  // Creates the file at `path`, locked before anybody can find it elsewhere; with `on_disk` it is
  // there on return. False with errno, and then nothing is at `path`. Borrows `batch`, whatever is
  // in it, until it returns. Allocates nothing when it was large enough before.
  [[nodiscard, gnu::cold]] bool Write(const std::string& path, bool on_disk, const Source& source,
                                      Batch* batch);

  cache_io::Descriptor file;
  NothrowArray<Packet> packets;
  uint64_t end = 0;
  uint64_t lost = 0;  // Packets that could not be read any more.

 private:
  enum class Body { kIntact, kGone, kFailed };
  bool WriteAll(const Source& source, Batch* batch);
  bool Flush(Batch* batch) const;
  bool CopyPacket(const Source& source, const Packet& packet, Batch* batch);
  Body CheckBody(const Source& source, const Packet& packet, uint64_t fresh_offset,
                 uint64_t* check);
  bool CopyBody(const Source& source, const Packet& packet, Batch* batch);

  NothrowArray<uint8_t> copy_bytes_;
};

}  // namespace cache_file
QUENOR_NAMESPACE_END

#endif  // SERVICES_CACHE_FILE_POSIX_REWRITE_H_
