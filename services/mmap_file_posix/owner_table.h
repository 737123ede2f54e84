// The table of a memory-mapped cache file, mapped: its owners' records and their seals, and the
// lock that whoever looks for dead owners or for room in the file holds for moments. Threads: one
// at a time; what other processes write meanwhile is noticed. Page: docs/design/mmap-file.md.
#ifndef SERVICES_MMAP_FILE_POSIX_OWNER_TABLE_H_
#define SERVICES_MMAP_FILE_POSIX_OWNER_TABLE_H_

#include <cstdint>
#include <string>

#include "services/cache_shared/file_calls_posix.h"
#include "services/mmap_file_posix/format.h"
#include "services/mmap_file_posix/reader.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

// release: whoever sees `value`, in this process's remains or in another process, sees every store
// before it.
inline void StoreLast(uint64_t* to, uint64_t value) {
  __atomic_store_n(to, value, __ATOMIC_RELEASE);
}

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

 private:
  cache_io::Mapping map_;
};

// The lock on the first byte of the file. Those who wait for it are served in the order in which
// they came: each holds a lock on a byte far behind the end of the file, at the time of its coming.
class TableLock {
 public:
  // Waits for at most `wait_ms`, and only for moments when the wait before this one was in vain: a
  // holder who does not run may be frozen for ever. False with errno; EAGAIN: another has it.
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
  uint64_t passed_by_ = 0;     // Whoever came before that and still waits does not run.
  int64_t free_since_ns_ = 0;  // That it is free, and whose turn it is does not take it.
};

}  // namespace mmap_format
QUENOR_NAMESPACE_END

#endif  // SERVICES_MMAP_FILE_POSIX_OWNER_TABLE_H_
