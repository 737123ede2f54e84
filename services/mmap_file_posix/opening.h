// Opening the file: finds it or makes it, has a damaged one repaired, finds its owner a place in
// the table, and gives it the content of dead owners. What an owner has of its file from then on.
// Threads: one at a time. Page: docs/design/mmap-file.md.
#ifndef SERVICES_MMAP_FILE_POSIX_OPENING_H_
#define SERVICES_MMAP_FILE_POSIX_OPENING_H_

#include <cstdint>
#include <string>
#include <utility>

#include "services/cache_shared/file_calls_posix.h"
#include "services/mmap_file_posix/owner_table.h"
#include "services/mmap_file_posix/reader.h"
#include "services/mmap_file_posix/repair.h"
#include "services/mmap_file_posix/room.h"
#include "services/mmap_file_posix/save.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

// What an instance has of the file while it is one of its owners.
struct Owner {
  explicit Owner(std::string path_in) : path(std::move(path_in)) {}
  // Content and saves have been unmapped before. The locks go with the last reference to the
  // description, and a mapping is one: should unmapping fail, they go all the same.
  [[gnu::cold]] void Close();

  bool FlushTable() const { return table.Flush(durability); }

  const std::string path;
  cache_io::Durability durability = cache_io::Durability::kProcess;
  cache_io::Descriptor file;
  Table table;
  Room room{file, table};
  uint32_t record = 0;   // Its place in the table; 0: none.
  int in_force = 0;      // Of its seals.
  uint64_t claimed = 0;  // Bit n: owner n's content is part of what was found, and locked.
  PacketPlaces to_read;  // The content as it was found.
  Content content;
};

// Whether the content of dead owners is taken.
enum class Claim { kTake, kLeave };
// `owner` is closed, and so it is again on failure, which has been logged unless `is_told`.
[[nodiscard]] bool Open(Owner* owner, Claim claim, bool is_told, ContentWriter write_recovered);

}  // namespace mmap_format
QUENOR_NAMESPACE_END

#endif  // SERVICES_MMAP_FILE_POSIX_OPENING_H_
