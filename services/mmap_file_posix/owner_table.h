// The table of a memory-mapped cache file, mapped: its owners' records and their seals; and the
// locks: an owner's, on its record, for as long as it lives or its heir has not sealed its content;
// and the table's, which only a Room takes. Of packets it knows nothing. Threads: one at a time;
// what other processes write meanwhile is noticed. Page: docs/design/mmap-file.md.
#ifndef SERVICES_MMAP_FILE_POSIX_OWNER_TABLE_H_
#define SERVICES_MMAP_FILE_POSIX_OWNER_TABLE_H_

#include <cstdint>
#include <string>

#include "services/cache_shared/file_calls_posix.h"
#include "services/mmap_file_posix/format.h"
#include "services/mmap_file_posix/reader.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

class Table {
 public:
  [[nodiscard]] bool Map(const cache_io::Descriptor& file) { return map_.Map(file, 0, kTableSize); }
  void Unmap() { map_.Unmap(); }
  // In a forked child, where nothing is mapped.
  void Forget() { map_.Forget(); }
  bool is_mapped() const { return map_.data() != nullptr; }
  [[nodiscard]] bool Flush(cache_io::Durability durability) const {
    return map_.Flush(0, kTableSize, durability);
  }

  // Writes the header where it is not what it should be. Save numbers go on behind `largest`.
  [[gnu::cold]] void PrepareHeader(uint64_t largest_save_number) const;

  Header* header() const { return reinterpret_cast<Header*>(map_.data()); }
  OwnerRecord* record(uint32_t owner) const {
    return reinterpret_cast<OwnerRecord*>(map_.data() + RecordOffset(owner));
  }
  [[gnu::cold]] OwnerView View(uint32_t owner) const;
  // relaxed: the numbers need only differ, and grow within one owner.
  uint64_t NextSaveNumber() const {
    return __atomic_fetch_add(&header()->next_save_number, 1, __ATOMIC_RELAXED);
  }
  void WriteSeal(uint32_t owner, int which, const Seal& seal) const;
  // Puts `seal` in force, under a new save number, and the one that was out of it for good.
  void ReplaceSeal(uint32_t owner, int in_force_now, Seal seal) const;
  void PutOutOfForce(uint32_t owner, int which) const {
    StoreLast(&record(owner)->seals[which].check, kWriting);
  }

  // With the table's lock and those of the dead owners held: finishes what they were at. Content
  // that a seal of theirs stands for is voided where it came from, and room that they had reserved
  // is free.
  [[gnu::cold]] void SettleDeadOwners(uint64_t dead, cache_io::Durability durability) const;
  // Of the dead owners, those whose content nobody's seal stands for: not even that of one that
  // was live a moment ago.
  [[gnu::cold]] uint64_t OwnersWithContent(uint64_t dead) const;
  // Of these owners, which have content: the one with the smallest save number.
  [[gnu::cold]] uint32_t Oldest(uint64_t owners) const;

 private:
  cache_io::Mapping map_;
};

// Locks of owners. Tries each record's; `*dead` gets those that were free. False with errno.
[[gnu::cold]] [[nodiscard]] bool LockDeadOwners(const cache_io::Descriptor& file, uint64_t* dead);
void UnlockOwners(const cache_io::Descriptor& file, uint64_t owners);
// 1 another owner is live, 0 none, -1 an error.
[[gnu::cold]] [[nodiscard]] int HasLiveOwners(const cache_io::Descriptor& file);
// The table's too, should this process hold it.
[[gnu::cold]] void DropAllLocks(const cache_io::Descriptor& file);

// The lock on the first byte of the file. Those who wait for it are served in the order in which
// they came: each holds a lock on a byte far behind the end of the file, at the time of its coming.
class TableLock {
 public:
  // Waits for at most `wait_ms`, and only for moments when the wait before this one was in vain: a
  // holder that does not run may be frozen for ever. False with errno; EAGAIN: another has it.
  [[nodiscard]] bool Take(const cache_io::Descriptor& file, int wait_ms);
  // Names this process as the holder, in a table that is there.
  void SignAs(const Table& table) const;
  void Drop(const cache_io::Descriptor& file, const Table& table) const;
  // After Take() has said EAGAIN: who has it and what to do, for a message.
  std::string WhoHasIt(const Table& table) const;

 private:
  bool IsMyTurn(int fd, uint64_t place);

  bool waited_in_vain_ = false;
  int last_wait_ms_ = 0;
  uint64_t passed_by_ = 0;     // What came before that and still waits does not run.
  int64_t free_since_ns_ = 0;  // That it is free, and the one whose turn it is does not take it.
};

}  // namespace mmap_format
QUENOR_NAMESPACE_END

#endif  // SERVICES_MMAP_FILE_POSIX_OWNER_TABLE_H_
