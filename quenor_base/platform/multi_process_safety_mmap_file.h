// The memory-mapped cache file: packets that survive the process, in one file that several
// processes, and several instances of one process, may have open at the same time.
// Each instance is one owner. It reads the packets that dead owners left, and its saves replace
// those and its own, never another live owner's. A save is Clear() with the announced size, then
// appends until exactly that size has come; killed at any instruction, the file holds the whole old
// or the whole new content. Liveness is a lock that the kernel drops with the process.
// Threads: one thread at a time; the channel's queue thread. Pages: docs/design/mmap-file.md and
// docs/formats/mmap-file.md.
#ifndef QUENOR_BASE_PLATFORM_MULTI_PROCESS_SAFETY_MMAP_FILE_H_
#define QUENOR_BASE_PLATFORM_MULTI_PROCESS_SAFETY_MMAP_FILE_H_

#include <cstdint>

#include "quenor_base/platform/base/file_path.h"
#include "quenor_base/platform/base/memory_mapped_file.h"

QUENOR_NAMESPACE_BEGIN

// One record of the file. Null `data` or 0 `size` marks the end when reading.
struct MmapDataPacket {
  const uint8_t* data = nullptr;
  uint32_t size = 0;
};

class MultiProcessSafetyMmapFile {
 public:
  // Live owners of one file; a further Open() is refused.
  static constexpr int kMaxOwners = 63;
  // Open() takes the content of one dead owner whatever its size, and that of further ones only
  // while the packets stay fewer than this.
  static constexpr uint32_t kMaxPacketsOfSeveralOwners = 200;

  // Nothing is opened or mapped.
  MultiProcessSafetyMmapFile();
  // As Close().
  ~MultiProcessSafetyMmapFile();
  MultiProcessSafetyMmapFile(const MultiProcessSafetyMmapFile&) = delete;
  MultiProcessSafetyMmapFile& operator=(const MultiProcessSafetyMmapFile&) = delete;

  // Queue thread; blocks on the file system. Opens the file, creating it (mode 0600) when missing;
  // its folder must exist. Becomes an owner and takes the content of dead owners, oldest first:
  // GetNextDataPacket() then reads it from its first packet. Until this owner's first completed
  // save that content stays as it is, for another to take should this one die or close. A damaged
  // file is repaired when no other owner is live: every intact packet stays, and the file as it was
  // is kept beside it as PATH.set-aside, PATH.set-aside.2, ... `access` must be READ_WRITE_EXTEND;
  // `size` is how many bytes of packets to make room for at the first save, at least (0: no wish).
  // False, with a level 2 line that says why, when nothing could be opened: a path with a ".."
  // component, a last component that is a symbolic link or no regular file, no room on the disk,
  // kMaxOwners live owners, a lock that another process has held for 5 seconds, ... An instance
  // that is open is closed first. How far a save outlives the machine, not only the process, is
  // read here from the configuration (BaseCfg().cache_durability).
  [[nodiscard]] bool Open(const base::FilePath& path, base::MemoryMappedFile::Access access,
                          int64_t size);

  // Queue thread. The next packet of the content as Open() found it, in the order written, or an
  // end mark after the last (and when not open). A packet of 0 bytes reads like an end mark; the
  // call after it goes on. The bytes are valid until the next call on this object. A packet that
  // cannot be read (memory, disk) is an end mark, logged, and from then on this instance refuses
  // every save: what could not be read must not be replaced.
  MmapDataPacket GetNextDataPacket();

  // Queue thread; may block on the file system. Begins a save whose packets are, with 4 bytes added
  // for each, `size` bytes together; 0 completes it at once. False when the save cannot begin (not
  // open, a negative size, a vanished file that cannot be replaced, ...): the old content stays,
  // and appends are refused until the next Clear().
  // A file that others deleted, renamed or cut is noticed here and made anew. One that is cut
  // between here and the last append is not: touching what is mapped is then a SIGBUS, as with
  // every mapping.
  bool Clear(int64_t size);

  // Queue thread; may block on the file system. Adds a packet to the save that Clear() began,
  // and completes the save, in one step, when exactly the announced size is reached. Borrows
  // packet.data until it returns; null only with size 0. False when the packet was not taken: no
  // save is under way, it exceeds what was announced, no room on the disk. The save is then void,
  // and the old content stays whole.
  bool AppendDataPacket(const MmapDataPacket& packet);

  // Queue thread. Whether the file holds what the application last asked for: true when the last
  // save is complete, and when none was begun since Open(). False while one is under way, after a
  // refused Clear() or append, and when nothing is open.
  bool IsSaveComplete() const;

  // Queue thread. Unmaps and closes; nothing when no file is open. Another owner may then take the
  // content.
  void Close();

  // Any thread. Names the implementation that is linked.
  static const char* ImplementationName();

 private:
  struct State;
  State* state_;  // Owned; null while no file is open.
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_MULTI_PROCESS_SAFETY_MMAP_FILE_H_
