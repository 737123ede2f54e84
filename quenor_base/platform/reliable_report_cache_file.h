// The plain cache file: packets that survive the process, in a file of one owner.
// A save is Clear(), then appends, then IsSaveComplete(). Killed anywhere in a save, the next
// Open() reads at least every packet that was in the content both before and after, and the whole
// last save that was complete unless the newer one is; nothing that a save dropped which
// IsSaveComplete() has called complete.
// Threads: one thread at a time; the channel's queue thread. Pages: docs/design/cache-file.md and
// docs/formats/cache-file.md.
#ifndef QUENOR_BASE_PLATFORM_RELIABLE_REPORT_CACHE_FILE_H_
#define QUENOR_BASE_PLATFORM_RELIABLE_REPORT_CACHE_FILE_H_

#include <cstdint>

#include "quenor_base/platform/base/file_path.h"

QUENOR_NAMESPACE_BEGIN

class ReliableReportCacheFile {
 public:
  // One record of the file. Null `data` or 0 `size` marks the end when reading.
  struct DataPacket {
    const uint8_t* data = nullptr;
    uint32_t size = 0;
  };

  // Nothing is opened.
  ReliableReportCacheFile();
  // As Close().
  ~ReliableReportCacheFile();
  ReliableReportCacheFile(const ReliableReportCacheFile&) = delete;
  ReliableReportCacheFile& operator=(const ReliableReportCacheFile&) = delete;

  // Queue thread; blocks on the file system. Opens the file, creating it (mode 0600) when missing;
  // its folder must exist. GetNextDataPacket() then reads from the first packet. A damaged file is
  // repaired: every intact packet stays, and the file as it was is kept beside it as
  // PATH.set-aside, PATH.set-aside.2, ... False, with a level 2 line that says why, when nothing
  // could be opened: another owner has it open, a path with a ".." component, a last component that
  // is too long, a symbolic link or no regular file, another user's file that everybody may write
  // to, ... An instance that is open is closed first. How far a save outlives the
  // machine, not only the process, is read here from the configuration
  // (BaseCfg().cache_durability).
  [[nodiscard]] bool Open(const base::FilePath& path);

  // Queue thread. The next packet of the content as Open() found it, in the order written, or an
  // end mark after the last (and when not open). A packet of 0 bytes reads like an end mark; the
  // call after it goes on. The bytes are valid until the next call on this object. A packet that
  // cannot be read (memory, disk) is an end mark, logged, and from then on this instance refuses
  // every save: what could not be read must not be replaced.
  DataPacket GetNextDataPacket();

  // Queue thread; may block on the file system. Completes the save before it and begins a new one,
  // of no packet yet. False when it cannot begin: the old content stays, and appends are refused
  // until the next Clear().
  bool Clear();

  // Queue thread; may block on the file system. Adds a packet to the save that Clear() began.
  // Borrows packet.data until it returns; null only with size 0. False when the packet was not
  // taken (no save is under way, no room on the disk): the save is then void, and the old content
  // stays whole; what was taken of the void save may stand beside it.
  bool AppendDataPacket(const DataPacket& packet);

  // Queue thread; may block on the file system. Asked when the last packet of a save was appended,
  // it completes the save with one small write: what the save dropped does not come back from then
  // on, and appends are refused until the next Clear(). A save that nobody asks about is completed
  // by the next Clear() or by Close(). True when nothing of the save was refused and it is
  // complete, and when none was begun since Open(). False after a Clear() or an append that was
  // refused, when the disk does not take the write (the next question, Clear() or Close() tries
  // again; no packet is lost), and when no file is open.
  bool IsSaveComplete() const;

  // Queue thread. Completes the save under way, unless part of it was refused, and closes; nothing
  // when no file is open.
  void Close();

  // Any thread. Names the implementation that is linked.
  static const char* ImplementationName();

 private:
  struct State;
  State* state_;  // Owned; null while no file is open.
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_RELIABLE_REPORT_CACHE_FILE_H_
