#include "services/mmap_file_posix/save.h"

#include <cerrno>

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {
namespace {

// An extent is made longer up to, and shorter from so many times what its content needs, halves of
// it, and so many bytes more. Together with the table that is the file's bound: see the page.
constexpr uint64_t kLongestHalves = 4;
constexpr uint64_t kShrinkHalves = 5;
constexpr uint64_t kLongestMore = kUnit;
constexpr uint64_t kShrinkMore = 2 * kUnit;
constexpr uint64_t kNeverShrunk = 3 * kUnit;
// Searches of the whole old content that may fail in one save before only the next few packets are
// compared: a save of nothing but new packets must not compare each with every old one.
constexpr int kFullSearches = 2;
constexpr size_t kShortSearch = 4;

// Of the index in force and the next one, where they are too long for the first page.
uint64_t IndexesRoom(uint64_t packets) {
  return packets > kShortIndex ? 2 * IndexRoom(packets) : 0;
}

}  // namespace

void Content::Measure() {
  sealed_size = extent.size();
  uint64_t last = 0;
  for (Entry& entry : packets) {
    is_shared = is_shared || entry.offset <= last;
    last = entry.offset;
    packet_room += PacketRoom(entry.length);
    entry.glance = Glance(Body(entry), entry.length);
  }
}

void Content::Reset() {
  extent.Reset();
  packets.Clear();
  packet_room = 0;
  is_shared = false;
  index = spare_index = IndexPlace();
  append_at = append_end = 0;
  sealed_size = 0;
}

// Beginning and ending ----------------------------------------------------------------------------

bool Save::Begin(uint64_t announced_bytes, cache_io::Durability durability) {
  announced_ = announced_bytes;
  appended_ = 0;
  durability_ = durability;
  Forget();
  begin_ = at_ = content_.append_at;
  gap_end_ = content_.append_end;
  cursor_ = 0;
  failed_searches_ = 0;
  new_bytes_ = 0;
  // Content that is mostly new each time goes to and fro between the same bytes, which the
  // processor then has at hand.
  const bool will_be_new = last_new_bytes_ > 0 && 2 * last_new_bytes_ >= content_.packet_room;
  if (content_.extent && will_be_new && !UseGap(last_new_bytes_) && errno == ENOMEM) return false;
  is_under_way_ = true;
  return true;
}

void Save::Stop() {
  is_under_way_ = false;
  run_ = run_next_ = run_end_ = nullptr;
}

void Save::Forget() {
  pieces_.Clear();
  index_ = IndexPlace();
}

void Save::Void() {
  Stop();
  if (building_) {
    source_.Discard(&building_);
  } else {
    for (const Entry& entry : pieces_.added()) Retire(entry);
  }
  Forget();
  const uint64_t size = content_.sealed_size;
  if (content_.extent.size() > size) (void)source_.Shorten(size, &content_.extent);
}

void Save::Reset() {
  building_.Reset();
  Forget();
  last_new_bytes_ = 0;
}

// Packets -----------------------------------------------------------------------------------------

// The place in the old content of a packet with the same bytes; null when it has none.
inline const Entry* Save::Find(const MmapDataPacket& packet, uint64_t glance) {
  const Entries& old = content_.packets;
  const size_t count = old.size();
  const bool full = failed_searches_ < kFullSearches;
  // Behind all that the save takes over in a row, only what it has left out can be meant.
  const size_t all = pieces_.ContinuesOld() ? pieces_.left_out() : count;
  const size_t tries = full ? all : std::min(all, kShortSearch);
  size_t at = cursor_;
  for (size_t i = 0; i < tries; ++i, ++at) {
    if (at >= count) at = 0;
    const Entry& entry = old[at];
    if (entry.glance != glance || entry.length != packet.size) continue;
    if (packet.size != 0 && std::memcmp(content_.Body(entry), packet.data, packet.size) != 0) {
      continue;
    }
    cursor_ = at + 1;
    return &entry;
  }
  if (full) ++failed_searches_;
  return nullptr;
}

void Save::EndRun() {
  const size_t count = static_cast<size_t>(run_next_ - run_);
  if (count > 0) {
    pieces_.NameNext(count);
    cursor_ += count;
  }
  run_ = run_next_ = run_end_ = nullptr;
}

// Takes a packet over from the old content, where it is the one before `cursor_`.
inline bool Save::NameOld(size_t at) {
  if (!pieces_.NameOld(at)) return false;
  run_ = run_next_ = content_.packets.begin() + cursor_;
  run_end_ = content_.packets.end();
  return true;
}

inline bool Save::WriteNew(const MmapDataPacket& packet, const Entry& entry) {
  PacketHeader head = {};
  head.magic = kPacketMagic;
  head.state = kLive;
  head.length = packet.size;
  head.body_check = entry.body_check;
  head.check = CheckOf(head);
  if (!pieces_.AddNew(entry)) return false;
  uint8_t* const to = Target().at(entry.offset);
  std::memcpy(to, &head, sizeof head);
  if (packet.size != 0) std::memcpy(to + sizeof head, packet.data, packet.size);
  return true;
}

bool Save::Place(const MmapDataPacket& packet) {
  EndRun();
  const uint64_t bytes = PacketRoom(packet.size);
  const uint64_t glance = Glance(packet.data, packet.size);
  const Entry* const old = Find(packet, glance);
  if (old != nullptr && !building_) {
    if (!NameOld(static_cast<size_t>(old - content_.packets.begin()))) return false;
  } else {
    if (!HasRoom(bytes) && !MakeRoom(bytes)) return false;
    const uint64_t check = old != nullptr ? old->body_check : Check(packet.data, packet.size);
    if (!WriteNew(packet, Entry{at_, check, glance, packet.size, false})) return false;
    at_ += bytes;
    if (old == nullptr) new_bytes_ += bytes;
  }
  appended_ += uint64_t{packet.size} + 4;
  return true;
}

// Room --------------------------------------------------------------------------------------------

// What the content in force and the save under way need at least, and what was wished for.
uint64_t Save::Needed() const {
  const uint64_t packets = std::max(pieces_.count() + 1, content_.packets.size());
  const uint64_t saving = announced_ + packets * (PacketRoom(7) - 7);
  return kPacketsBegin + std::max({saving, content_.packet_room, pieces_.Room(), wished_bytes_}) +
         IndexesRoom(packets);
}

// For one more packet, or an index. Rather in a gap that is worth the search; else the extent
// grows, or the save moves; and when there is no room for that, any gap will do.
bool Save::MakeRoom(uint64_t bytes) {
  if (!FlushWritten()) return false;
  if (Target()) {
    if (UseGap(std::max(bytes, content_.packet_room / 8))) return true;
    if (errno == ENOMEM) return false;
    const uint64_t to_come = announced_ - appended_;
    if (LengthenFor(bytes, std::max(to_come, Target().size() / 4))) return true;
    if (errno == ENOSPC && (LengthenFor(bytes, 0) || UseGap(bytes))) return true;
  }
  if (MoveToNewExtent(bytes)) return true;
  const int error = errno;
  if (Target() && UseGap(bytes)) return true;
  errno = error;
  return false;
}

// The first gap in Target() of at least so many bytes. False with errno; ENOSPC: there is none.
bool Save::UseGap(uint64_t at_least) {
  if (!FindUsed()) {
    errno = ENOMEM;
    return false;
  }
  for (size_t i = 0; i < used_.gaps(); ++i) {
    const Range gap = used_.gap(i);
    if (gap.begin + at_least > gap.end) continue;
    begin_ = at_ = gap.begin;
    gap_end_ = gap.end;
    return true;
  }
  errno = ENOSPC;
  return false;
}

// False without memory.
bool Save::FindUsed() {
  used_.Begin(Target().size());
  bool done = used_.Add(0, kPacketsBegin);
  if (!building_) {
    done = done && AddUsed(content_.packets);
    for (const IndexPlace& place : {content_.index, content_.spare_index, index_}) {
      if (place.is_long()) done = done && used_.Add(place.at, place.at + IndexRoom(place.capacity));
    }
  }
  if (!done || !AddUsed(pieces_.added())) return false;
  used_.Join();
  return true;
}

bool Save::AddUsed(const Entries& entries) {
  for (const Entry& entry : entries) {
    if (!used_.Add(entry.offset, entry.offset + PacketRoom(entry.length))) return false;
  }
  return true;
}

// By `more` if that may be, and at least for `bytes`; goes on at its end. False with errno; ERANGE:
// it would be longer than its content may have it.
bool Save::LengthenFor(uint64_t bytes, uint64_t more) {
  if (!FindUsed()) {
    errno = ENOMEM;
    return false;
  }
  const uint64_t size = Target().size();
  const uint64_t free_at = used_.End();
  const uint64_t least = RoundUp(free_at + bytes, kUnit);
  const uint64_t most = (Needed() * kLongestHalves / 2 + kLongestMore) / kUnit * kUnit;
  const uint64_t wanted = RoundUp(std::max(free_at + bytes, size + more), kUnit);
  if (least > most) {
    errno = ERANGE;
    return false;
  }
  const uint64_t longer = more > 0 ? std::min(wanted, most) : least;
  if (longer > size && !source_.Lengthen(longer, &Target())) return false;
  begin_ = at_ = free_at;
  gap_end_ = longer;
  return true;
}

bool Save::MoveToNewExtent(uint64_t bytes) {
  const uint64_t placed = pieces_.Room() + bytes + kPacketsBegin;
  const uint64_t needed = std::max(Needed(), placed);
  if (needed > kMostAnnounced) {
    errno = EFBIG;
    return false;
  }
  Extent made;
  // Half as much again, so that content that changes little by little stays there; or what it
  // takes.
  bool taken = source_.Take(RoundUp(needed + needed / 2, kUnit), &made);
  if (!taken && !made && errno == ENOSPC) taken = source_.Take(RoundUp(needed, kUnit), &made);
  if (!taken || !pieces_.AssembleAsNew()) {
    const int error = taken ? ENOMEM : errno;
    if (made) source_.Discard(&made);
    errno = error;
    return false;
  }
  if (Target()) CopyTo(made, kPacketsBegin);
  // What it had written beside the old content stays there if it is void.
  for (const Entry& entry : pieces_.written_before()) {
    if (!building_) Retire(entry);
  }
  if (!Target()) begin_ = at_ = kPacketsBegin;
  gap_end_ = made.size();
  index_ = IndexPlace();
  building_.swap(made);
  if (made) source_.Discard(&made);  // A smaller one, begun for the same save.
  return true;
}

// The save's packets so far, with their heads, one behind the other; AssembleAsNew() came before.
void Save::CopyTo(const Extent& to, uint64_t at) {
  begin_ = at_ = at;
  const Extent& from = Target();
  for (Entry& entry : pieces_.added()) {
    std::memcpy(to.at(at_), from.at(entry.offset), sizeof(PacketHeader) + entry.length);
    entry.offset = at_;
    at_ += PacketRoom(entry.length);
  }
}

// What was written since the save began or went on in another gap.
bool Save::FlushWritten() { return !Target() || Target().map.Flush(begin_, at_, durability_); }

// The index ---------------------------------------------------------------------------------------

bool Save::MakeIndex() {
  EndRun();
  index_ = IndexPlace();
  return (pieces_.count() == 0 || ChooseIndex()) && pieces_.Prepare();
}

// A short one goes into the first page, a long one among the packets.
bool Save::ChooseIndex() {
  const size_t packets = pieces_.count();
  if (packets <= kShortIndex) {
    const bool is_first = building_ || content_.index.at != ShortIndexAt(0);
    index_ = {ShortIndexAt(is_first ? 0 : 1), kShortIndex};
    return true;
  }
  if (!building_ && content_.spare_index.capacity >= packets) {
    index_ = content_.spare_index;
    return true;
  }
  const uint64_t capacity = packets + packets / 4;
  if (!HasRoom(IndexRoom(capacity)) && !MakeRoom(IndexRoom(capacity))) return false;
  index_ = {at_, capacity};
  at_ += IndexRoom(capacity);
  return true;
}

bool Save::WriteIndex(Seal* seal) {
  const Extent& extent = Target();
  if (!extent) return true;
  const size_t packets = pieces_.count();
  if (packets == 0) index_ = {ShortIndexAt(0), kShortIndex};
  uint64_t* const offsets = reinterpret_cast<uint64_t*>(extent.at(index_.at));
  pieces_.WriteOffsets(offsets);
  seal->extent_offset = extent.name.offset;
  seal->extent_size = extent.size();
  seal->extent_epoch = extent.name.epoch;
  seal->index_at = index_.at;
  seal->packets = static_cast<uint32_t>(packets);
  seal->index_check = Check(offsets, IndexRoom(packets));
  return extent.map.Flush(index_.at, index_.at + IndexRoom(packets), durability_) && FlushWritten();
}

ExtentName Save::ComeIntoForce() {
  const bool moves = has_moved();
  // The long index that is out of force now is the next save's; a short content needs none.
  const bool has_spare = !moves && index_.is_long() && content_.index.is_long();
  content_.spare_index = has_spare ? content_.index : IndexPlace();
  content_.index = index_;
  ExtentName left;
  if (moves) {
    left = MoveContent();
  } else {
    // For whoever must do without an index one day.
    pieces_.EachDropped(content_.is_shared, [this](const Entry& entry) { Retire(entry); });
  }
  content_.is_shared = !moves && (content_.is_shared || pieces_.is_disordered());
  pieces_.Replace(&content_.packet_room);
  const bool is_empty = content_.packets.empty();
  content_.append_at = is_empty ? 0 : at_;  // An empty one begins anew.
  content_.append_end = is_empty ? 0 : gap_end_;
  content_.sealed_size = content_.extent.size();
  last_new_bytes_ = new_bytes_;
  Forget();
  return left;
}

void Save::Retire(const Entry& entry) const {
  PacketHeader* const packet = reinterpret_cast<PacketHeader*>(content_.extent.at(entry.offset));
  __atomic_store_n(&packet->state, kRetired, __ATOMIC_RELAXED);
}

ExtentName Save::MoveContent() {
  StoreLast(&building_.header()->state, kInUse);
  const ExtentName left = MarkFree(&content_.extent);
  content_.extent.swap(building_);
  return left;
}

// Shrinking ---------------------------------------------------------------------------------------

uint64_t Save::NeededNow() const {
  return kPacketsBegin + std::max(content_.packet_room, wished_bytes_) +
         IndexesRoom(content_.packets.size());
}
uint64_t Save::MostNow() const { return NeededNow() * kShrinkHalves / 2 + kShrinkMore; }

bool Save::IsWasteful() const { return content_.extent.size() > std::max(kNeverShrunk, MostNow()); }

bool Save::CutOff() {
  content_.spare_index = IndexPlace();  // Which may stand at the end.
  if (!FindUsed()) return false;
  const uint64_t needed = NeededNow();
  const uint64_t shorter = RoundUp(std::max(used_.End(), needed + needed / 2), kUnit);
  const bool is_enough = shorter <= std::max(MostNow(), kNeverShrunk);
  if (!is_enough || shorter >= content_.extent.size()) return false;
  if (!source_.Shorten(shorter, &content_.extent)) return false;
  content_.sealed_size = content_.extent.size();
  content_.append_at = content_.append_end = 0;
  return true;
}

bool Save::PlaceAgain() {
  announced_ = appended_ = 0;
  if (!pieces_.NameAll()) return false;
  const uint64_t room = content_.packet_room;
  if (!UseGap(room) || at_ + room + kUnit > MostNow()) return MoveToNewExtent(0);
  if (!pieces_.AssembleAsNew()) return false;
  CopyTo(content_.extent, at_);
  return true;
}

}  // namespace mmap_format
QUENOR_NAMESPACE_END
