#include "services/mmap_file_posix/room.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {
namespace {

constexpr int kWaitMs = 1000;
// The table, and what records can name: two seals and two reservations each, and all room when one
// is damaged.
constexpr size_t kMostRanges = 1 + 5 * kOwners;

bool FileSizeOf(const cache_io::Descriptor& file, uint64_t* size) {
  uint64_t links;
  return cache_io::FileSize(file.fd(), size, &links);
}

}  // namespace

Room::Locked::Locked(Room& room, int wait_ms)
    : room_(room), holds_(room.lock_.Take(room.file_, wait_ms)) {
  if (holds_ && room_.table_.is_mapped()) room_.lock_.SignAs(room_.table_);
}

Room::Locked::~Locked() {
  if (!holds_ || !room_.file_.is_open()) return;
  const int error = errno;
  room_.lock_.Drop(room_.file_, room_.table_);
  errno = error;
}

bool Room::MapTable() {
  if (!cache_io::Allocate(file_.fd(), 0, kTableSize) || !table_.Map(file_)) return false;
  lock_.SignAs(table_);
  return true;
}

bool Room::Take(uint64_t size, Extent* extent) {
  const uint64_t epoch = table_.NextSaveNumber();
  const Locked locked(*this, kWaitMs);
  return locked && TakeLocked(size, epoch, extent);
}

// The first range that is long enough and surely free: what may be content that has lost its seal
// is left alone. Behind the last range in use, what is not free is passed over as a whole.
uint64_t Room::FindPlace(uint64_t size, const UsedRanges& used, uint64_t file_size) const {
  for (size_t i = 0; i < used.gaps(); ++i) {
    const Range gap = used.gap(i);
    const uint64_t end = std::min(gap.end, file_size);
    if (gap.end - gap.begin < size) continue;
    if (FreeRange(gap.begin, std::min(gap.begin + size, end), end)) return gap.begin;
  }
  return std::max(used.End(), RoundUp(file_size, kUnit));
}

bool Room::TakeLocked(uint64_t size, uint64_t epoch, Extent* extent) const {
  UsedRanges used;
  uint64_t file_size;
  if (!FindUsed(&used) || !FileSizeOf(file_, &file_size)) return false;
  const uint64_t at = FindPlace(size, used, file_size);
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
  made.name = {at, epoch};
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
  extent->name = {seal.extent_offset, seal.extent_epoch};
  StoreLast(&extent->header()->state, kInUse);
  return true;
}

bool Room::Lengthen(uint64_t size, Extent* extent) {
  cache_io::Mapping map;
  {
    const Locked locked(*this, kWaitMs);
    if (!locked || !LengthenLocked(size, extent, &map)) return false;
  }
  extent->map.swap(map);
  // As of a new one.
  return extent->map.Flush(0, sizeof(ExtentHeader), durability_);
}

bool Room::LengthenLocked(uint64_t size, Extent* extent, cache_io::Mapping* map) const {
  const uint64_t begin = extent->end();
  const uint64_t end = extent->name.offset + size;
  UsedRanges used;
  uint64_t file_size;
  if (!FindUsed(&used) || !FileSizeOf(file_, &file_size)) return false;
  const uint64_t gap_end = used.GapEnd(begin);
  if (gap_end < end || !FreeRange(begin, std::min(end, file_size), std::min(gap_end, file_size))) {
    errno = EEXIST;
    return false;
  }
  if (!Allocate(begin, end)) return false;
  if (!map->Map(file_, extent->name.offset, size)) {
    const int error = errno;
    UndoAllocate(begin, end, file_size);
    errno = error;
    return false;
  }
  SetLength(size, extent);
  return true;
}

// What is behind it is free only when it reads as zeros: killed on the way, it is still the
// extent's.
bool Room::Shorten(uint64_t size, Extent* extent) {
  cache_io::Mapping map;
  if (!map.Map(file_, extent->name.offset, size)) return false;
  const Locked locked(*this, kWaitMs);
  if (!locked) return false;
  const uint64_t begin = extent->name.offset + size;
  const uint64_t end = extent->end();
  extent->map.swap(map);
  map.Unmap();
  if (!cache_io::ZeroRange(file_.fd(), begin, end - begin) ||
      (durability_ == cache_io::Durability::kOnDisk && !cache_io::SyncFile(file_.fd()))) {
    return false;
  }
  SetLength(size, extent);
  CutEnd();
  return true;
}

// The store in the head is the step.
void Room::SetLength(uint64_t size, Extent* extent) const {
  for (Reservation& slot : table_.record(own_)->reserved) {
    if (slot.size != 0 && slot.offset == extent->name.offset) StoreLast(&slot.size, size);
  }
  StoreLast(&extent->header()->length, LengthWord(size, extent->name.epoch));
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

// With the table's lock held. The table itself, and what any owner's record names.
bool Room::FindUsed(UsedRanges* used) const {
  used->Begin(UINT64_MAX);
  if (!used->Reserve(kMostRanges)) {
    errno = ENOMEM;
    return false;
  }
  (void)used->Add(0, kTableSize);
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    const OwnerView view = table_.View(owner);
    bool is_known = view.damage == nullptr;
    for (int i = 0; i < 2; ++i) {
      const bool has_extent = view.valid[i] && view.seals[i].extent_offset != 0;
      if (has_extent && !AddUsed(view.seals[i], used)) is_known = false;
      if (view.reserved[i].end != 0) (void)used->Add(view.reserved[i].begin, view.reserved[i].end);
    }
    if (is_known) continue;
    // Nobody can say what it has until a repair: only room behind the end is free.
    uint64_t size;
    if (!FileSizeOf(file_, &size)) return false;
    (void)used->Add(kTableSize, std::max(kTableSize, RoundUp(size, kUnit)));
  }
  used->Join();
  return true;
}

// False when it cannot be told how long the extent is. The head is there for as long as a seal
// names it: nobody erases it but with the lock held, and after that.
bool Room::AddUsed(const Seal& seal, UsedRanges* used) const {
  ExtentHeader head;
  if (!ReadHead(seal.extent_offset, &head) || !IsHeadOf(head, seal)) return false;
  (void)used->Add(seal.extent_offset, seal.extent_offset + SizeOf(head));
  return true;
}

// With the table's lock held. Whether nothing of value starts at `at`, which no record names:
// zeros, or an extent that was given back or whose owner died filling it, which are then made
// zeros. `*skip` is how far that holds.
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

void Room::Discard(Extent* extent) {
  const ExtentName name = MarkFree(extent);
  DropReservation(name.offset);
  GiveBack(name);
}

// Free room reads as zeros, or is not there at all. When the lock is not to be had, the extent's
// head tells the next who looks for room what it is. By the time it is, others may have used that
// room and left it again: what they left there has a head of its own, and may be longer.
void Room::GiveBack(ExtentName name) {
  const Locked locked(*this, kWaitMs);
  if (!locked) return;
  UsedRanges used;
  uint64_t file_size;
  ExtentHeader head;
  if (!FindUsed(&used) || !FileSizeOf(file_, &file_size) || !ReadHead(name.offset, &head)) return;
  if (IsSound(head, name.offset) && head.epoch == name.epoch && name.offset < file_size) {
    const Range range = {name.offset, std::min(name.offset + SizeOf(head), file_size)};
    if (!used.Overlaps(range)) (void)EraseExtent(range.begin, range.end - range.begin);
  }
  CutEnd();
}

// With the table's lock held. Of the file, what is behind all that is in use.
void Room::CutEnd() const {
  UsedRanges used;
  uint64_t file_size;
  if (!FindUsed(&used) || !FileSizeOf(file_, &file_size)) return;
  const uint64_t end = used.End();
  if (end < file_size && FreeRange(end, file_size, file_size)) {
    (void)cache_io::Truncate(file_.fd(), end);
  }
}

}  // namespace mmap_format
QUENOR_NAMESPACE_END
