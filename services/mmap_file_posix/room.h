// Room in a memory-mapped cache file: takes ranges of it for extents, makes them longer and
// shorter, and gives them back. Nobody else changes the length of the file or of an extent, and it
// does so with the table's lock held. Threads: one at a time. Page: docs/design/mmap-file.md.
#ifndef SERVICES_MMAP_FILE_POSIX_ROOM_H_
#define SERVICES_MMAP_FILE_POSIX_ROOM_H_

#include <cstdint>
#include <utility>

#include "services/cache_shared/file_calls_posix.h"
#include "services/cache_shared/nothrow_array.h"
#include "services/mmap_file_posix/format.h"
#include "services/mmap_file_posix/owner_table.h"
#include "services/mmap_file_posix/reader.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

// An extent of this owner's, mapped.
struct Extent {
  cache_io::Mapping map;
  uint64_t file_offset = 0;  // 0: none.
  uint64_t epoch = 0;

  explicit operator bool() const { return file_offset != 0; }
  uint64_t size() const { return map.size(); }
  uint8_t* at(uint64_t offset) const { return map.data() + offset; }
  ExtentHeader* header() const { return reinterpret_cast<ExtentHeader*>(map.data()); }
  void Reset() {
    map.Unmap();
    file_offset = epoch = 0;
  }
  void swap(Extent& other) {
    map.swap(other.map);
    std::swap(file_offset, other.file_offset);
    std::swap(epoch, other.epoch);
  }
};

// Everything answers false with errno; EAGAIN: the lock was not to be had.
class Room {
 public:
  // Borrows all three until destruction.
  Room(const cache_io::Descriptor& file, const Table& table, TableLock& lock)
      : file_(file), table_(table), lock_(lock) {}
  void Begin(uint32_t own, cache_io::Durability durability) {
    own_ = own;
    durability_ = durability;
  }

  // An extent of `size` bytes, mapped, which a reservation of the owner's names, and no seal yet.
  [[nodiscard]] bool Take(uint64_t size, Extent* extent) const;
  // Maps the extent that a seal of the owner's names.
  [[nodiscard]] bool MapSealed(const Seal& seal, Extent* extent) const;
  // Whether the head of the extent that a seal names, if any, is whole.
  [[nodiscard]] bool Knows(const Seal& seal) const;
  // Where it is; the mapping may move. Nothing has changed when it fails; EEXIST: something is
  // there.
  [[nodiscard]] bool Lengthen(uint64_t size, Extent* extent) const;
  // Nothing of value may be behind `size`.
  [[gnu::cold]] bool Shorten(uint64_t size, Extent* extent) const;
  void DropReservation(uint64_t offset) const;
  // Of an extent that no record names any more, if it is still there.
  [[gnu::cold]] void GiveBack(uint64_t offset, uint64_t epoch) const;

 private:
  class Locked;
  [[gnu::cold]] bool TakeLocked(uint64_t size, uint64_t epoch, Extent* extent) const;
  [[gnu::cold]] bool LengthenLocked(uint64_t size, Extent* extent, cache_io::Mapping* map) const;
  [[gnu::cold]] bool Allocate(uint64_t begin, uint64_t end) const;
  [[gnu::cold]] void UndoAllocate(uint64_t begin, uint64_t end, uint64_t file_size) const;
  [[gnu::cold]] bool UsedRanges(NothrowArray<Range>* used) const;
  [[gnu::cold]] bool AddUsed(const Seal& seal, NothrowArray<Range>* used) const;
  bool ReadHead(uint64_t offset, ExtentHeader* head) const;
  [[gnu::cold]] bool IsFreeUnit(uint64_t at, uint64_t gap_end, uint64_t* skip) const;
  [[gnu::cold]] bool FreeRange(uint64_t begin, uint64_t end, uint64_t gap_end) const;
  [[gnu::cold]] bool EraseExtent(uint64_t offset, uint64_t size) const;
  [[gnu::cold]] void CutEnd() const;

  const cache_io::Descriptor& file_;
  const Table& table_;
  TableLock& lock_;
  uint32_t own_ = 0;
  cache_io::Durability durability_ = cache_io::Durability::kProcess;
};

}  // namespace mmap_format
QUENOR_NAMESPACE_END

#endif  // SERVICES_MMAP_FILE_POSIX_ROOM_H_
