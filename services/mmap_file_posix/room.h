// Room in a memory-mapped cache file: takes ranges of it for extents, makes them longer and
// shorter, and gives them back. Nobody else takes the table's lock, or changes the length of the
// file or of an extent, or allocates or punches: it does all that in a Locked, and whoever opens
// the file enters by one, too. Threads: one at a time. Page: docs/design/mmap-file.md.
#ifndef SERVICES_MMAP_FILE_POSIX_ROOM_H_
#define SERVICES_MMAP_FILE_POSIX_ROOM_H_

#include <cstdint>
#include <string>

#include "services/cache_shared/file_calls_posix.h"
#include "services/mmap_file_posix/extent.h"
#include "services/mmap_file_posix/format.h"
#include "services/mmap_file_posix/owner_table.h"
#include "services/mmap_file_posix/ranges.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

class Room final : public ExtentSource {
 public:
  // The one door to the table's lock: holds it from here to the end of its life, or until the file
  // is closed. False with errno when the lock was not to be had; keeps errno when it lets it go.
  class Locked {
   public:
    Locked(Room& room, int wait_ms);
    ~Locked();
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;
    explicit operator bool() const { return holds_; }

   private:
    Room& room_;
    const bool holds_;
  };

  // Borrows both until destruction.
  Room(const cache_io::Descriptor& file, Table& table) : file_(file), table_(table) {}
  // For which owner from now on; 0: none yet.
  void Begin(uint32_t own, cache_io::Durability durability) {
    own_ = own;
    durability_ = durability;
  }
  // After a Locked has said EAGAIN: who has the lock and what to do, for a message.
  std::string WhoHasLock() const { return lock_.WhoHasIt(table_); }

  // In a Locked. Makes room for the table and maps it. False with errno.
  [[nodiscard]] bool MapTable();
  // Maps the extent that a seal of the owner's names. False with errno.
  [[nodiscard]] bool MapSealed(const Seal& seal, Extent* extent) const;
  // Whether the head of the extent that a seal names, if any, is whole.
  [[nodiscard]] bool Knows(const Seal& seal) const;

  // A reservation of the owner's names it until a seal does.
  [[nodiscard]] bool Take(uint64_t size, Extent* extent) override;
  [[nodiscard]] bool Lengthen(uint64_t size, Extent* extent) override;
  bool Shorten(uint64_t size, Extent* extent) override;
  void Discard(Extent* extent) override;
  void DropReservation(uint64_t offset) const;
  // Of an extent that no record names any more, if it is still there.
  [[gnu::cold]] void GiveBack(ExtentName name);

 private:
  bool TakeLocked(uint64_t size, uint64_t epoch, Extent* extent) const;
  uint64_t FindPlace(uint64_t size, const UsedRanges& used, uint64_t file_size) const;
  bool LengthenLocked(uint64_t size, Extent* extent, cache_io::Mapping* map) const;
  void SetLength(uint64_t size, Extent* extent) const;
  bool Allocate(uint64_t begin, uint64_t end) const;
  void UndoAllocate(uint64_t begin, uint64_t end, uint64_t file_size) const;
  bool FindUsed(UsedRanges* used) const;
  bool AddUsed(const Seal& seal, UsedRanges* used) const;
  bool ReadHead(uint64_t offset, ExtentHeader* head) const;
  bool IsFreeUnit(uint64_t at, uint64_t gap_end, uint64_t* skip) const;
  bool FreeRange(uint64_t begin, uint64_t end, uint64_t gap_end) const;
  bool EraseExtent(uint64_t offset, uint64_t size) const;
  void CutEnd() const;

  const cache_io::Descriptor& file_;
  Table& table_;
  TableLock lock_;
  uint32_t own_ = 0;
  cache_io::Durability durability_ = cache_io::Durability::kProcess;
};

}  // namespace mmap_format
QUENOR_NAMESPACE_END

#endif  // SERVICES_MMAP_FILE_POSIX_ROOM_H_
