#include "services/mmap_file_posix/room.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {
namespace {

constexpr int kWaitMs = 1000;
// What records can name: two seals and two reservations each, and all room when one is damaged.
constexpr size_t kMostRanges = 5 * kOwners;

bool Overlap(const Range& a, const Range& b) { return a.begin < b.end && b.begin < a.end; }

bool FileSizeOf(const cache_io::Descriptor& file, uint64_t* size) {
  uint64_t links;
  return cache_io::FileSize(file.fd(), size, &links);
}

}  // namespace

// Holds the table's lock, and keeps errno when it lets it go.
class Room::Locked {
 public:
  explicit Locked(const Room& room) : room_(room), holds_(room.lock_.Take(room.file_, kWaitMs)) {
    if (holds_) room_.lock_.SignAs(room_.table_);
  }
  ~Locked() {
    if (!holds_) return;
    const int error = errno;
    room_.lock_.Drop(room_.file_, room_.table_);
    errno = error;
  }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;
  explicit operator bool() const { return holds_; }

 private:
  const Room& room_;
  const bool holds_;
};

bool Room::Take(uint64_t size, Extent* extent) const {
  const uint64_t epoch = table_.NextSaveNumber();
  const Locked locked(*this);
  return locked && TakeLocked(size, epoch, extent);
}

// The first range that is long enough and surely free: what may be content that has lost its seal
// is left alone.
bool Room::TakeLocked(uint64_t size, uint64_t epoch, Extent* extent) const {
  NothrowArray<Range> used;
  uint64_t file_size;
  if (!UsedRanges(&used) || !FileSizeOf(file_, &file_size)) return false;
  const size_t count = used.size();
  if (!used.Push({UINT64_MAX, UINT64_MAX})) return false;
  uint64_t at = kTableSize;
  for (size_t i = 0; i <= count; ++i) {
    const uint64_t gap_end = std::min(used[i].begin, file_size);
    if (used[i].begin >= at + size && FreeRange(at, std::min(at + size, gap_end), gap_end)) break;
    // Behind the last range in use, what is not free is passed over as a whole.
    at = std::max(at, i < count ? used[i].end : RoundUp(file_size, kUnit));
  }
  Reservation* const slots = table_.record(own_)->reserved;
  Reservation& slot = slots[0].size == 0 ? slots[0] : slots[1];
  slot.offset = at;
  StoreLast(&slot.size, size);  // Before there is anything to be taken for free.
  Extent made;
  if (!Allocate(at, at + size)) {
    slot.size = 0;
    return false;
  }
  if (!made.map.Map(file_, at, size)) {
    const int error = errno;
    UndoAllocate(at, at + size, file_size);
    slot.size = 0;
    errno = error;
    return false;
  }
  made.file_offset = at;
  made.epoch = epoch;
  ExtentHeader* const head = made.header();  // Zeros so far.
  head->magic = kExtentMagic;
  head->owner = own_;
  head->epoch = epoch;
  head->check = CheckOf(*head);
  head->length = LengthWord(size, epoch);
  head->state = kBuilding;
  extent->swap(made);
  // On the disk before its packets are, which without a head would count as content that lost its
  // seal. Should that fail, so does the save.
  return extent->map.Flush(0, sizeof *head, durability_);
}

bool Room::Knows(const Seal& seal) const {
  ExtentHeader head;
  return seal.extent_offset == 0 || (ReadHead(seal.extent_offset, &head) && IsHeadOf(head, seal));
}

bool Room::MapSealed(const Seal& seal, Extent* extent) const {
  ExtentHeader head;
  if (!ReadHead(seal.extent_offset, &head)) return false;
  if (!IsHeadOf(head, seal)) {
    errno = EBADMSG;
    return false;
  }
  const uint64_t size = SizeOf(head);
  // The file may come from a copy that left holes.
  if (!cache_io::Allocate(file_.fd(), seal.extent_offset, size) ||
      !extent->map.Map(file_, seal.extent_offset, size)) {
    return false;
  }
  extent->file_offset = seal.extent_offset;
  extent->epoch = seal.extent_epoch;
  StoreLast(&extent->header()->state, kInUse);
  return true;
}

bool Room::Lengthen(uint64_t size, Extent* extent) const {
  cache_io::Mapping map;
  {
    const Locked locked(*this);
    if (!locked || !LengthenLocked(size, extent, &map)) return false;
  }
  extent->map.swap(map);
  // As of a new one.
  return extent->map.Flush(0, sizeof(ExtentHeader), durability_);
}

bool Room::LengthenLocked(uint64_t size, Extent* extent, cache_io::Mapping* map) const {
  const uint64_t begin = extent->file_offset + extent->size();
  const uint64_t end = extent->file_offset + size;
  NothrowArray<Range> used;
  uint64_t file_size;
  if (!UsedRanges(&used) || !FileSizeOf(file_, &file_size)) return false;
  uint64_t gap_end = std::max(end, file_size);
  for (const Range& range : used) {
    if (range.begin >= begin) gap_end = std::min(gap_end, range.begin);
    if (range.begin < begin && range.end > begin) gap_end = begin;
  }
  if (gap_end < end || !FreeRange(begin, std::min(end, file_size), std::min(gap_end, file_size))) {
    errno = EEXIST;
    return false;
  }
  if (!Allocate(begin, end)) return false;
  if (!map->Map(file_, extent->file_offset, size)) {
    const int error = errno;
    UndoAllocate(begin, end, file_size);
    errno = error;
    return false;
  }
  for (Reservation& slot : table_.record(own_)->reserved) {
    if (slot.size != 0 && slot.offset == extent->file_offset) StoreLast(&slot.size, size);
  }
  StoreLast(&extent->header()->length, LengthWord(size, extent->epoch));
  return true;
}

// What is behind it is free only when it reads as zeros: killed on the way, it is still the
// extent's.
bool Room::Shorten(uint64_t size, Extent* extent) const {
  cache_io::Mapping map;
  if (!map.Map(file_, extent->file_offset, size)) return false;
  const Locked locked(*this);
  if (!locked) return false;
  const uint64_t end = extent->file_offset + extent->size();
  extent->map.swap(map);
  map.Unmap();
  if (!cache_io::ZeroRange(file_.fd(), extent->file_offset + size,
                           end - extent->file_offset - size) ||
      (durability_ == cache_io::Durability::kOnDisk && !cache_io::SyncFile(file_.fd()))) {
    return false;
  }
  for (Reservation& slot : table_.record(own_)->reserved) {
    if (slot.size != 0 && slot.offset == extent->file_offset) StoreLast(&slot.size, size);
  }
  StoreLast(&extent->header()->length, LengthWord(size, extent->epoch));
  CutEnd();
  return true;
}

bool Room::Allocate(uint64_t begin, uint64_t end) const {
  uint64_t file_size;
  if (!FileSizeOf(file_, &file_size)) return false;
  if (cache_io::Allocate(file_.fd(), begin, end - begin)) return true;
  const int error = errno;
  UndoAllocate(begin, end, file_size);
  errno = error;
  return false;
}

// Back with what was allocated before the disk was full.
void Room::UndoAllocate(uint64_t begin, uint64_t end, uint64_t file_size) const {
  if (begin < file_size) {
    (void)cache_io::ZeroRange(file_.fd(), begin, std::min(end, file_size) - begin);
  }
  (void)cache_io::Truncate(file_.fd(), file_size);
}

void Room::DropReservation(uint64_t offset) const {
  for (Reservation& slot : table_.record(own_)->reserved) {
    if (slot.offset == offset) slot.size = 0;
  }
}

bool Room::ReadHead(uint64_t offset, ExtentHeader* head) const {
  for (int attempt = 0;; ++attempt) {
    *head = ExtentHeader();
    if (cache_io::ReadAt(file_.fd(), head, sizeof *head, offset) >= 0) return true;
    if (errno != EIO || attempt > 0) return false;  // A disk may fail once.
  }
}

// With the table's lock held. What any owner's record names, in order; the table itself excepted.
// Leaves room for one range more.
bool Room::UsedRanges(NothrowArray<Range>* used) const {
  if (!used->Reserve(kMostRanges + 1)) {
    errno = ENOMEM;
    return false;
  }
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    const OwnerView view = table_.View(owner);
    bool is_known = view.damage == nullptr;
    for (int i = 0; i < 2; ++i) {
      const bool has_extent = view.valid[i] && view.seals[i].extent_offset != 0;
      if (has_extent && !AddUsed(view.seals[i], used)) is_known = false;
      if (view.reserved[i].end != 0) (void)used->Push(view.reserved[i]);
    }
    if (is_known) continue;
    // Nobody can say what is his until a repair: only room behind the end is free.
    uint64_t size;
    if (!FileSizeOf(file_, &size)) return false;
    (void)used->Push({kTableSize, std::max(kTableSize, RoundUp(size, kUnit))});
  }
  SortByBegin(used->begin(), used->end());
  return true;
}

// False when it cannot be told how long the extent is. The head is there for as long as a seal
// names it: nobody erases it but with the lock held, and after that.
bool Room::AddUsed(const Seal& seal, NothrowArray<Range>* used) const {
  ExtentHeader head;
  if (!ReadHead(seal.extent_offset, &head) || !IsHeadOf(head, seal)) return false;
  (void)used->Push({seal.extent_offset, seal.extent_offset + SizeOf(head)});
  return true;
}

// With the table's lock held. Whether nothing of value starts at `at`, which no record names:
// zeros, or an extent that was given back or whose owner died filling it, which are then made
// zeros.
// `*skip` is how far that holds.
bool Room::IsFreeUnit(uint64_t at, uint64_t gap_end, uint64_t* skip) const {
  *skip = kUnit;
  ExtentHeader head;
  if (!ReadHead(at, &head)) return false;
  const ExtentHeader zeros = {};
  if (std::memcmp(&head, &zeros, sizeof head) == 0) return true;
  if (!IsSound(head, at) || !IsLeftOver(head, table_.View(head.owner))) return false;
  // All of it, whatever is wanted: without its head nobody could tell what the rest is.
  *skip = std::min(SizeOf(head), gap_end - at);
  return EraseExtent(at, *skip);
}

// With the table's lock held. Whether the range, part of a gap that no record names, is free.
bool Room::FreeRange(uint64_t begin, uint64_t end, uint64_t gap_end) const {
  uint64_t skip;
  for (uint64_t at = begin; at < end; at += skip) {
    at = cache_io::NextData(file_.fd(), at, end) / kUnit * kUnit;
    if (at < end && !IsFreeUnit(at, gap_end, &skip)) return false;
  }
  return true;
}

// The head goes last: as long as anything is there, it tells what that is. With kOnDisk also after
// a loss of power.
bool Room::EraseExtent(uint64_t offset, uint64_t size) const {
  const uint64_t head = std::min(kPacketsBegin, size);
  const int fd = file_.fd();
  if (size > head && !cache_io::ZeroRange(fd, offset + head, size - head)) return false;
  if (durability_ == cache_io::Durability::kOnDisk && !cache_io::SyncFile(fd)) return false;
  return cache_io::ZeroRange(fd, offset, head);
}

// Free room reads as zeros, or is not there at all. When the lock is not to be had, the extent's
// head tells the next who looks for room what it is. By the time it is, others may have used that
// room and left it again: what they left there has a head of its own, and may be longer.
void Room::GiveBack(uint64_t offset, uint64_t epoch) const {
  const Locked locked(*this);
  if (!locked) return;
  NothrowArray<Range> used;
  uint64_t file_size;
  ExtentHeader head;
  if (!UsedRanges(&used) || !FileSizeOf(file_, &file_size) || !ReadHead(offset, &head)) return;
  if (IsSound(head, offset) && head.epoch == epoch && offset < file_size) {
    const Range range = {offset, std::min(offset + SizeOf(head), file_size)};
    const bool in_use = std::any_of(used.begin(), used.end(),
                                    [&](const Range& other) { return Overlap(range, other); });
    if (!in_use) (void)EraseExtent(range.begin, range.end - range.begin);
  }
  CutEnd();
}

// With the table's lock held. Of the file, what is behind all that is in use.
void Room::CutEnd() const {
  NothrowArray<Range> used;
  uint64_t file_size;
  if (!UsedRanges(&used) || !FileSizeOf(file_, &file_size)) return;
  uint64_t end = kTableSize;
  for (const Range& range : used) end = std::max(end, range.end);
  if (end < file_size && FreeRange(end, file_size, file_size)) {
    (void)cache_io::Truncate(file_.fd(), end);
  }
}

}  // namespace mmap_format
QUENOR_NAMESPACE_END
