// The content in force, and a save under way that is to replace it: which packets, where in the
// extent, and the index that names them. Memory and one mapping: it takes no lock, knows no table,
// and asks an ExtentSource for room; its caller writes the seal between WriteIndex() and
// ComeIntoForce(). Threads: one at a time. Life cycle: Begin(), a Place() for each packet,
// MakeIndex(), WriteIndex(), ComeIntoForce(); or Void() at any point. Page:
// docs/design/mmap-file.md.
#ifndef SERVICES_MMAP_FILE_POSIX_SAVE_H_
#define SERVICES_MMAP_FILE_POSIX_SAVE_H_

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "services/cache_shared/file_calls_posix.h"
#include "services/mmap_file_posix/extent.h"
#include "services/mmap_file_posix/format.h"
#include "services/mmap_file_posix/packet_list.h"
#include "services/mmap_file_posix/ranges.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

// What the seal in force names: all of it in one extent.
struct Content {
  Extent extent;
  Entries packets;
  uint64_t packet_room = 0;  // That they take up.
  bool is_shared = false;    // One may be there more than once, at one place in the extent.
  IndexPlace index;          // That the seal names,
  IndexPlace spare_index;    // and a long one that nothing names, for the next save.
  // Nothing of it is in [append_at, append_end): the next save begins there.
  uint64_t append_at = 0;
  uint64_t append_end = 0;
  uint64_t sealed_size =
      0;  // Of the extent: what a save makes longer is cut off when that is void.

  const uint8_t* Body(const Entry& entry) const {
    return extent.at(entry.offset) + sizeof(PacketHeader);
  }
  // Once the extent that has the packets is mapped: what follows from both.
  [[gnu::cold]] void Measure();
  [[gnu::cold]] void Reset();
};

class Save {
 public:
  // Borrows both until destruction. `wished_bytes`: of packets, to make room for at least.
  Save(Content& content, ExtentSource& source, uint64_t wished_bytes)
      : content_(content), source_(source), wished_bytes_(wished_bytes) {}

  // Every bool of these is false with errno, and then the save is to be voided.
  // Of so many bytes, 4 for each packet included.
  [[nodiscard]] bool Begin(uint64_t announced_bytes, cache_io::Durability durability);
  // Whether the packet is within what was announced.
  bool Expects(const MmapDataPacket& packet) const;
  // The usual packet: what follows the one before it in the old content too. Costs little more than
  // the comparison; EndRun() counts it. Never the save's last, for which Place() sees to it that
  // the index has room for all. False, and nothing done, for all others.
  bool TakeNextOfOld(const MmapDataPacket& packet);
  // Any packet. Borrows its bytes until it returns.
  [[nodiscard]] bool Place(const MmapDataPacket& packet);
  // All that was announced has come.
  bool IsWhole() const { return appended_ == announced_; }
  // Finds the place of the index; no failure of memory comes after it.
  [[nodiscard]] bool MakeIndex();
  // Everything that the seal names is written then, and flushed; `*seal` lacks number and mask.
  [[nodiscard]] bool WriteIndex(Seal* seal);
  bool has_moved() const { return static_cast<bool>(building_); }
  // The seal is written: the content is this save's. The name of the extent that it has left.
  ExtentName ComeIntoForce();

  // No further packet is taken.
  void Stop();
  // It was never: what it has written must not count where damage leaves no index to tell.
  void Void();
  // Forgets what it has written.
  void Forget();

  // The extent of the content is longer than that may have it.
  bool IsWasteful() const;
  // Cuts off its end. False when that would leave it too long, or is not to be had.
  [[gnu::cold]] bool CutOff();
  // Begins a save of the same content, nearer to the front or in a smaller extent, and places all
  // of it. False: there is none, or not the room.
  [[gnu::cold]] bool PlaceAgain();

  bool is_under_way() const { return is_under_way_; }
  // Behind all of the file that is mapped, its table aside.
  uint64_t End() const { return std::max(content_.extent.end(), building_.end()); }
  // Unmaps; whatever was under way is left as it is.
  [[gnu::cold]] void Reset();
  // In a forked child, where nothing is mapped.
  [[gnu::cold]] void ForgetMapping() { building_.map.Forget(); }

 private:
  Extent& Target() { return building_ ? building_ : content_.extent; }
  const Entry* Find(const MmapDataPacket& packet, uint64_t glance);
  bool NameOld(size_t at);
  bool WriteNew(const MmapDataPacket& packet, const Entry& entry);
  void EndRun();
  bool HasRoom(uint64_t bytes) const { return at_ + bytes <= gap_end_; }
  [[gnu::cold]] bool MakeRoom(uint64_t bytes);
  [[gnu::cold]] bool UseGap(uint64_t at_least);
  [[gnu::cold]] bool FindUsed();
  [[gnu::cold]] bool AddUsed(const Entries& entries);
  [[gnu::cold]] bool LengthenFor(uint64_t bytes, uint64_t more);
  [[gnu::cold]] bool MoveToNewExtent(uint64_t bytes);
  void CopyTo(const Extent& to, uint64_t at);
  uint64_t Needed() const;
  uint64_t NeededNow() const;
  uint64_t MostNow() const;
  bool ChooseIndex();
  bool FlushWritten();
  void Retire(const Entry& entry) const;
  ExtentName MoveContent();

  Content& content_;
  ExtentSource& source_;
  const uint64_t wished_bytes_;
  cache_io::Durability durability_ = cache_io::Durability::kProcess;
  bool is_under_way_ = false;  // Or complete: then nothing that was announced is left to place.
  uint64_t announced_ = 0;
  uint64_t appended_ = 0;
  Extent building_;  // Where it goes once the content's extent has not enough room for it.
  Pieces pieces_{content_.packets};
  // While the last piece is an old one: [run, run_next) belong to it too and are not counted yet,
  // [run_next, run_end) come next in the old content. Else all three are null.
  const Entry* run_ = nullptr;
  const Entry* run_next_ = nullptr;
  const Entry* run_end_ = nullptr;
  IndexPlace index_;
  uint64_t begin_ = 0;  // What it has written last: [begin, at).
  uint64_t at_ = 0;
  uint64_t gap_end_ = 0;  // New packets of it may go to [at, gap_end) of Target().
  UsedRanges used_;       // Where Target() has what must stay.
  size_t cursor_ = 0;     // Where in the old content the next packet is looked for first.
  int failed_searches_ = 0;
  uint64_t new_bytes_ = 0;       // Room of the packets that the old content does not have.
  uint64_t last_new_bytes_ = 0;  // Likewise, of the save before.
};

inline bool Save::Expects(const MmapDataPacket& packet) const {
  const uint64_t cost = uint64_t{packet.size} + 4;
  return (packet.data != nullptr || packet.size == 0) && cost <= announced_ - appended_;
}

inline bool Save::TakeNextOfOld(const MmapDataPacket& packet) {
  const Entry* const entry = run_next_;
  if (entry == run_end_ || entry->length != packet.size || packet.data == nullptr) return false;
  const uint64_t with_this = appended_ + packet.size + 4;
  if (with_this >= announced_) return false;
  if (std::memcmp(content_.Body(*entry), packet.data, packet.size) != 0) return false;
  run_next_ = entry + 1;
  appended_ = with_this;
  return true;
}

}  // namespace mmap_format
QUENOR_NAMESPACE_END

#endif  // SERVICES_MMAP_FILE_POSIX_SAVE_H_
