#include "services/mmap_file_posix/reader.h"

#include <algorithm>
#include <cerrno>

#include "services/cache_shared/file_calls_posix.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {
namespace {

constexpr char kSealIsGone[] = "a seal that is gone";

enum class SealState { kNever, kWriting, kValid, kDamaged };

bool IsZero(const void* bytes, size_t size) {
  const uint8_t* const first = static_cast<const uint8_t*>(bytes);
  return size == 0 || (first[0] == 0 && std::memcmp(first, first + 1, size - 1) == 0);
}

// An extent that a check vouches for may still be cut off by the end of the file: that is for
// whoever reads it.
bool IsSaneExtent(uint64_t offset, uint64_t size) {
  return offset >= kTableSize && offset % kUnit == 0 && size % kUnit == 0 &&
         offset + size > offset && offset + size < uint64_t{1} << 62;
}

SealState StateOf(const Seal& seal) {
  if (seal.check == kWriting) return SealState::kWriting;
  if (IsZero(&seal, sizeof seal)) return SealState::kNever;
  if (seal.check != CheckOf(seal)) return SealState::kDamaged;
  const bool sane =
      seal.save_number < 2 * kSaveNumberLimit && (seal.superseded & 1) == 0 &&
      (seal.extent_offset == 0
           ? seal.packets == 0
           : IsSaneExtent(seal.extent_offset, seal.extent_size) &&
                 seal.index_at >= sizeof(ExtentHeader) && seal.index_at < seal.extent_size &&
                 seal.packets <= (seal.extent_size - seal.index_at) / sizeof(uint64_t));
  return sane ? SealState::kValid : SealState::kDamaged;
}

}  // namespace

bool IsSound(const ExtentHeader& head, uint64_t offset) {
  return head.magic == kExtentMagic && head.check == CheckOf(head) && head.owner >= 1 &&
         head.owner <= kOwners && IsSaneExtent(offset, SizeOf(head));
}

bool IsHeadOf(const ExtentHeader& head, const Seal& seal) {
  return IsSound(head, seal.extent_offset) && head.epoch == seal.extent_epoch;
}

bool IsLeftOver(const ExtentHeader& head, const OwnerView& owner) {
  const bool sealed_since = owner.in_force >= 0 && owner.seal().save_number > head.epoch;
  return head.state == kBuilding || head.state == kFree || sealed_since;
}

OwnerView ViewOf(const OwnerRecord& record) {
  OwnerView view;
  SealState states[2];
  for (int i = 0; i < 2; ++i) {
    view.seals[i] = record.seals[i];
    states[i] = StateOf(view.seals[i]);
    view.valid[i] = states[i] == SealState::kValid;
    const Reservation& reserved = record.reserved[i];
    const bool sane = reserved.size != 0 && IsSaneExtent(reserved.offset, reserved.size);
    view.reserved[i] = sane ? Range{reserved.offset, reserved.offset + reserved.size} : Range{0, 0};
    if (states[i] == SealState::kDamaged) view.damage = "a seal";
  }
  if (view.valid[0] || view.valid[1]) {
    view.in_force = !view.valid[0]                                          ? 1
                    : !view.valid[1]                                        ? 0
                    : view.seals[0].save_number > view.seals[1].save_number ? 0
                                                                            : 1;
    // A record's first seal is of nothing, so beside one with an extent there was another.
    if (states[1 - view.in_force] == SealState::kNever && view.seal().extent_offset != 0) {
      view.damage = "an emptied seal";
    }
  } else if (states[0] == SealState::kWriting && states[1] == SealState::kWriting) {
    view.damage = "both seals";
  }
  return view;
}

bool Supersedes(const OwnerView& heir, uint32_t owner, const OwnerView& view) {
  return heir.in_force >= 0 && (heir.seal().superseded >> owner & 1) != 0 &&
         (view.in_force < 0 || heir.seal().save_number > view.seal().save_number);
}

bool Reader::Load() {
  uint64_t links;
  if (!cache_io::FileSize(fd_, &file_size_, &links)) return false;
  if (!table_.Resize(kOwners + 1)) {
    errno = ENOMEM;
    return false;
  }
  std::memset(static_cast<void*>(table_.data()), 0, kTableSize);
  bool whole;
  return Read(table_.data(), kTableSize, 0, &whole);
}

TableState Reader::table_state() const {
  const Header& h = header();
  // The magic is the last that a first Open() writes of the header, before any record.
  if (file_size_ <= kTableSize && h.magic == 0 && IsZero(&table_[1], kTableSize - kRecordSize)) {
    return TableState::kFresh;
  }
  if (h.magic != kHeaderMagic || h.check != CheckOf(h)) return TableState::kDamaged;
  if (h.version > kVersion) return TableState::kNewer;
  const bool ours = h.version == kVersion && h.table_size == kTableSize &&
                    h.record_size == kRecordSize && h.owners == kOwners && file_size_ >= kTableSize;
  return ours ? TableState::kGood : TableState::kDamaged;
}

uint64_t Reader::SupersededOwners() const {
  uint64_t superseded = 0;
  for (uint32_t heir = 1; heir <= kOwners; ++heir) {
    const OwnerView view = Owner(heir);
    if (view.in_force < 0 || view.seal().superseded == 0) continue;
    for (uint32_t owner = 1; owner <= kOwners; ++owner) {
      if (Supersedes(view, owner, Owner(owner))) superseded |= Bit(owner);
    }
  }
  return superseded;
}

// Whether a save of another owner's stands for what the extent held.
bool Reader::IsSuperseded(const ExtentHeader& head) const {
  const OwnerView view = Owner(head.owner);
  for (uint32_t heir = 1; heir <= kOwners; ++heir) {
    const OwnerView of_heir = Owner(heir);
    if (Supersedes(of_heir, head.owner, view) && of_heir.seal().save_number > head.epoch) {
      return true;
    }
  }
  return false;
}

uint64_t Reader::LargestSaveNumber() const {
  uint64_t largest = 0;
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    const OwnerView view = Owner(owner);
    if (view.in_force >= 0) largest = std::max(largest, view.seal().save_number);
  }
  return largest;
}

// A sector that cannot be read even at the second try counts as missing, like one behind the end.
bool Reader::Read(void* out, size_t size, uint64_t offset, bool* whole) {
  int64_t got = cache_io::ReadAt(fd_, out, size, offset);
  if (got < 0 && errno == EIO) {
    got = cache_io::ReadAt(fd_, out, size, offset);
    if (got < 0 && errno == EIO) got = 0;
  }
  *whole = got == static_cast<int64_t>(size);
  return got >= 0;
}

bool Reader::ReadPacket(uint64_t offset, uint64_t end, PacketPlace* place, PacketHeader* header,
                        bool* intact) {
  *intact = false;
  if (offset > end || end - offset < sizeof *header) return true;
  bool whole;
  if (!Read(header, sizeof *header, offset, &whole)) return false;
  if (!whole || header->magic != kPacketMagic || header->check != CheckOf(*header) ||
      header->length > end - offset - sizeof *header) {
    return true;
  }
  *place = PacketPlace{offset, header->length, header->body_check};
  *intact = ReadBody(*place, &buffer_);
  return *intact || errno == EBADMSG;
}

bool Reader::ReadBody(const PacketPlace& place, NothrowArray<uint8_t>* body) {
  if (!body->Resize(place.length)) {
    errno = ENOMEM;
    return false;
  }
  bool whole;
  if (!Read(body->data(), place.length, place.header_offset + sizeof(PacketHeader), &whole)) {
    return false;
  }
  if (whole && Check(body->data(), place.length) == place.body_check) return true;
  errno = EBADMSG;
  return false;
}

bool Reader::ReadContent(uint32_t owner, const Seal& seal, PacketPlaces* packets,
                         const char** damage, uint32_t* damaged_packets) {
  *damage = nullptr;
  *damaged_packets = 0;
  if (seal.extent_offset == 0) return true;
  uint64_t size;
  bool is_sound;
  if (!ReadExtentSize(seal, &size, &is_sound)) return false;
  const uint64_t end = std::min(seal.extent_offset + size, file_size_);
  // A writer makes the room before it names it.
  if (end < seal.extent_offset + size) *damage = "an extent behind the end of the file";
  ExtentHeader header;
  bool whole;
  if (!Read(&header, sizeof header, seal.extent_offset, &whole)) return false;
  if (!is_sound || header.owner != owner) *damage = "the head of an extent";
  if (seal.packets == 0) return true;
  if (end <= seal.extent_offset || size <= seal.index_at) {
    *damaged_packets = seal.packets;
    return true;
  }
  NothrowArray<uint64_t> index;
  if (!index.Resize(seal.packets)) {
    errno = ENOMEM;
    return false;
  }
  const size_t index_bytes = seal.packets * sizeof(uint64_t);
  if (!Read(index.data(), index_bytes, seal.extent_offset + seal.index_at, &whole)) return false;
  if (!whole || Check(index.data(), index_bytes) != seal.index_check) {
    *damage = "an index";
    *damaged_packets = seal.packets;
    return true;
  }
  for (const uint64_t offset : index) {
    PacketPlace place;
    PacketHeader packet;
    bool intact = false;
    const bool inside = offset >= kPacketsBegin && offset < size;
    if (inside && !ReadPacket(seal.extent_offset + offset, end, &place, &packet, &intact)) {
      return false;
    }
    if (!intact) {
      *damage = "a packet";
      ++*damaged_packets;
    } else if (!packets->Push(place)) {
      errno = ENOMEM;
      return false;
    }
  }
  return true;
}

bool Reader::ReadExtentSize(const Seal& seal, uint64_t* size, bool* is_sound) {
  ExtentHeader header;
  bool whole;
  if (!Read(&header, sizeof header, seal.extent_offset, &whole)) return false;
  *is_sound = whole && IsHeadOf(header, seal);
  *size = *is_sound ? SizeOf(header) : seal.extent_size;
  return true;
}

bool Reader::Examine(Survey* survey) {
  if (table_state() == TableState::kDamaged) survey->damage = "its table's header";
  const uint64_t superseded = SupersededOwners();
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    if ((superseded >> owner & 1) != 0) continue;
    uint32_t damaged_packets = 0;
    if (!ExamineOwner(owner, survey, &damaged_packets)) return false;
    if (!survey->groups.Push({owner, damaged_packets, survey->packets.size()})) return false;
  }
  return ExamineGaps(survey) && survey->groups.Push({0, 0, survey->packets.size()});
}

bool Reader::ExamineOwner(uint32_t owner, Survey* survey, uint32_t* damaged_packets) {
  const OwnerView view = Owner(owner);
  const size_t before = survey->packets.size();
  bool index_is_good = view.in_force >= 0 && view.damage == nullptr;
  if (view.damage != nullptr) survey->damage = view.damage;
  if (view.in_force >= 0 && view.seal().save_number >= kSaveNumberLimit) {
    survey->damage = "a save's number";
  }
  if (index_is_good) {
    const char* damage;
    if (!ReadContent(owner, view.seal(), &survey->packets, &damage, damaged_packets)) return false;
    if (damage != nullptr) survey->damage = damage;
    index_is_good = survey->packets.size() - before + *damaged_packets == view.seal().packets &&
                    (*damaged_packets < view.seal().packets || view.seal().packets == 0);
  }
  if (index_is_good) return true;
  // Without an index: whatever the extents hold that was not retired.
  Range used[2 * kOwners];
  size_t count = 0;
  if (!UsedRanges(used, &count)) return false;
  if (!survey->packets.Resize(before)) return false;
  for (int i = 0; i < 2; ++i) {
    if (!view.valid[i] || view.seals[i].extent_offset == 0) continue;
    const Seal& seal = view.seals[i];
    if (i == 1 && view.valid[0] && view.seals[0].extent_offset == seal.extent_offset) continue;
    uint64_t size;
    bool is_sound;
    if (!ReadExtentSize(seal, &size, &is_sound)) return false;
    uint64_t end = std::min(seal.extent_offset + size, file_size_);
    // It may be shorter by now, and others behind it.
    for (size_t k = 0; k < count && !is_sound; ++k) {
      if (used[k].begin > seal.extent_offset) end = std::min(end, used[k].begin);
    }
    if (!Search(seal.extent_offset + kPacketsBegin, end, &survey->packets)) return false;
  }
  const size_t found = survey->packets.size() - before;
  const size_t sealed = view.in_force >= 0 && view.damage == nullptr ? view.seal().packets : 0;
  *damaged_packets = static_cast<uint32_t>(sealed > found ? sealed - found : 0);
  return true;
}

// That a seal names, in order.
bool Reader::UsedRanges(Range* used, size_t* count) {
  *count = 0;
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    const OwnerView view = Owner(owner);
    for (int i = 0; i < 2; ++i) {
      const Seal& seal = view.seals[i];
      if (!view.valid[i] || seal.extent_offset == 0) continue;
      uint64_t size;
      bool is_sound;
      if (!ReadExtentSize(seal, &size, &is_sound)) return false;
      used[(*count)++] = Range{seal.extent_offset, seal.extent_offset + size};
    }
  }
  SortByBegin(used, used + *count);
  return true;
}

bool Reader::ExamineGaps(Survey* survey) {
  Range used[2 * kOwners];
  size_t count = 0;
  if (!UsedRanges(used, &count)) return false;
  uint64_t at = std::min(kTableSize, file_size_);
  for (size_t i = 0; i < count; ++i) {
    if (!ExamineGap(at, std::min(used[i].begin, file_size_), survey)) return false;
    at = std::max(at, used[i].end);
  }
  return ExamineGap(at, file_size_, survey);
}

bool Reader::ExamineGap(uint64_t begin, uint64_t end, Survey* survey) {
  const size_t before = survey->packets.size();
  uint64_t at = begin;
  while (at < end && MaySearch()) {
    at = std::max(at, cache_io::NextData(fd_, at, end) / kUnit * kUnit);
    if (at >= end) break;
    searched_ += sizeof(ExtentHeader);
    uint64_t skip;
    bool lost_its_seal;
    if (!SkipKnown(at, end, &skip, &lost_its_seal)) return false;
    if (lost_its_seal && survey->damage == nullptr) survey->damage = kSealIsGone;
    if (skip == 0) {
      skip = std::min(kUnit, end - at);
      // Up to the end of the gap: a packet may be longer than a unit.
      const size_t found_before = survey->packets.size();
      if (!Search(at, at + skip, &survey->packets)) return false;
      if (survey->packets.size() > found_before) {
        const PacketPlace& last = survey->packets[survey->packets.size() - 1];
        const uint64_t last_end = last.header_offset + PacketRoom(last.length);
        if (last_end > at + skip) skip = RoundUp(last_end - at, 8);
      }
    }
    at += skip;
  }
  if (survey->packets.size() > before && survey->damage == nullptr) {
    survey->damage = kSealIsGone;
  }
  return true;
}

bool Reader::SkipKnown(uint64_t offset, uint64_t end, uint64_t* skip, bool* lost_its_seal) {
  *skip = 0;
  *lost_its_seal = false;
  if (offset % kUnit != 0) return true;
  ExtentHeader header;
  bool whole;
  if (!Read(&header, sizeof header, offset, &whole)) return false;
  if (!whole || !IsSound(header, offset)) return true;
  bool is_own;
  if (!HasOwnSeal(header.owner, &is_own)) return false;
  if ((is_own && IsLeftOver(header, Owner(header.owner))) || IsSuperseded(header)) {
    *skip = std::min(SizeOf(header), end - offset);
  } else {
    *lost_its_seal = header.state == kInUse;  // Told even where no packet in it is intact.
  }
  return true;
}

bool Reader::HasOwnSeal(uint32_t owner, bool* is_own) {
  *is_own = true;
  const OwnerView view = Owner(owner);
  if (view.in_force < 0 || view.seal().extent_offset == 0) return true;
  ExtentHeader header;
  bool whole;
  if (!Read(&header, sizeof header, view.seal().extent_offset, &whole)) return false;
  *is_own = !whole || !IsSound(header, view.seal().extent_offset) || header.owner == owner;
  return true;
}

bool Reader::Search(uint64_t begin, uint64_t end, PacketPlaces* packets) {
  constexpr uint64_t kWindow = 4096;  // A bad sector costs no more than the page that it is in.
  if (!window_.Resize(kWindow)) {
    errno = ENOMEM;
    return false;
  }
  uint64_t at = RoundUp(begin, 8);
  while (at < end && MaySearch()) {
    const uint64_t window_begin = at;
    const uint64_t window_end = std::min(at / kWindow * kWindow + kWindow, end);
    const uint64_t size = window_end - window_begin;
    searched_ += size;
    bool whole;
    if (!Read(window_.data(), size, at, &whole)) return false;
    while (whole && at + sizeof(uint32_t) <= window_end) {
      uint32_t magic;
      std::memcpy(&magic, window_.data() + (at - window_begin), sizeof magic);
      PacketPlace place;
      PacketHeader header;
      bool intact = false;
      if (magic == kPacketMagic && !ReadPacket(at, file_size_, &place, &header, &intact)) {
        return false;
      }
      at += intact ? PacketRoom(place.length) : 8;
      if (intact && header.state != kRetired && !packets->Push(place)) {
        errno = ENOMEM;
        return false;
      }
    }
    at = std::max(at, window_end);
  }
  return true;
}

}  // namespace mmap_format
QUENOR_NAMESPACE_END
