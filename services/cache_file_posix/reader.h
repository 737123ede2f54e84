// What a plain cache file holds, read without changing it: for its owner when it opens, and for
// whoever only looks. Nothing in the file is believed before it was checked.
// Threads: any, one per file descriptor at a time. Blocks on the file system.
// Pages: docs/formats/cache-file.md, docs/design/cache-file.md.
#ifndef SERVICES_CACHE_FILE_POSIX_READER_H_
#define SERVICES_CACHE_FILE_POSIX_READER_H_

#include <cstddef>
#include <cstdint>

#include "services/cache_file_posix/format.h"
#include "services/cache_shared/nothrow_array.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_file {

struct Packet {
  uint64_t number;
  uint64_t offset;  // Of its record in the file; the bytes follow the record's header.
  uint32_t size;
  bool sealed;  // Part of the last completed save.
  Digest digest;
};

// How many bytes in all are searched for the next record after bytes that are none. What lies
// behind them in a file that is damaged, or that is no cache file at all, is not looked at.
constexpr uint64_t kSearchLimitBytes = uint64_t{64} << 20;

struct Content {
  enum class Kind {
    kNew,      // Nothing, or the beginning of a header: what a kill leaves of a creation.
    kOurs,     // Our header, or at least one record of ours.
    kNewer,    // Of a later version; nothing else was read.
    kForeign,  // Nothing of ours was found in it.
  };
  Kind kind = Kind::kNew;
  uint32_t version = 0;  // As the header says; 0 without an intact header.

  // Every packet that may not be lost, in this order: what the save under way says of its own
  // order, then what only the last completed save holds.
  NothrowArray<Packet> packets;
  bool has_tail = false;         // There is something after the last completed save.
  uint64_t save_number = 0;      // Of the last completed save; 0 for none.
  uint64_t last_number = 0;      // Of the packets in the file, intact or not; 0 for none.
  uint64_t end = 0;              // Behind the last whole record.
  uint32_t damaged_packets = 0;  // Known of, but not intact.
  bool damaged = false;          // Something that no writer leaves, killed or not.
  char damage[96] = {};          // The first such thing, for a person.
};

enum class ReadResult {
  kOk,
  kNoMemory,
  kUnreadable,  // errno says why.
};

// Any thread; blocks. Reads the whole file. `*content` must be new; it means nothing on failure.
[[nodiscard]] ReadResult ReadContent(int fd, uint64_t digest_key, Content* content);

}  // namespace cache_file
QUENOR_NAMESPACE_END

#endif  // SERVICES_CACHE_FILE_POSIX_READER_H_
