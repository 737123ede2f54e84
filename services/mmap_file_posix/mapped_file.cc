// The memory-mapped cache file on Linux. Page: docs/design/mmap-file.md; format: format.h.
//
// Locks: the first byte of the table is held, for moments, by whoever looks for dead owners or for
// room in the file; the first byte of an owner's record is held by that owner for as long as he
// lives, and by whoever has taken his content until that is in a seal of the taker's own.
// A process that is killed leaves exactly the stores before that point: their order alone makes a
// save one step, and each order that matters is said where it is made.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "services/cache_shared/file_calls_posix.h"
#include "services/cache_shared/names_posix.h"
#include "services/cache_shared/nothrow_array.h"
#include "services/mmap_file_posix/format.h"
#include "services/mmap_file_posix/owner_table.h"
#include "services/mmap_file_posix/reader.h"
#include "services/mmap_file_posix/room.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using cache_io::Durability;
using cache_io::RecoveredPath;
using mmap_format::Extent;
using mmap_format::ExtentHeader;
using mmap_format::Header;
using mmap_format::kOwners;
using mmap_format::kPacketsBegin;
using mmap_format::kShortIndex;
using mmap_format::kTableSize;
using mmap_format::kUnit;
using mmap_format::OwnerRecord;
using mmap_format::OwnerView;
using mmap_format::PacketHeader;
using mmap_format::PacketPlace;
using mmap_format::PacketRoom;
using mmap_format::Range;
using mmap_format::RecordOffset;
using mmap_format::RoundUp;
using mmap_format::Seal;
using mmap_format::ShortIndexAt;
using mmap_format::StoreLast;

constexpr char kLogSource[] = "services/mmap_file_posix/mapped_file";
constexpr char kTryLater[] = "it stays as it is; the next start tries again";
constexpr int kOpenWaitMs = 5000;
constexpr int kSaveWaitMs = 1000;
constexpr int kOpenAttempts = 16;
constexpr uint64_t kMostAnnounced = uint64_t{1} << 40;
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
constexpr uint64_t Bit(uint32_t owner) { return uint64_t{1} << owner; }

// Where a packet of this owner's stands in his extent.
struct Entry {
  uint64_t offset;
  uint64_t body_check;
  uint64_t glance;
  uint32_t length;
  bool kept;  // Meant only while a save retires what it dropped.
};

// Packets of the save under way that stand in a row where they come from: in the old content, or
// among those that the save has written.
struct Piece {
  size_t begin;
  size_t count;
  bool is_new;

  size_t end() const { return begin + count; }
};

// Of a few of the body's bytes: packets that differ are mostly told apart by it, without a look at
// the mapped bytes, which are far from the processor.
uint64_t Glance(const uint8_t* body, uint32_t length) {
  uint64_t words[3] = {};
  if (length < sizeof words[0]) {
    if (length != 0) std::memcpy(words, body, length);
  } else {
    const uint32_t last = length - static_cast<uint32_t>(sizeof words[0]);
    std::memcpy(&words[0], body, sizeof words[0]);
    std::memcpy(&words[1], body + last / 2, sizeof words[1]);
    std::memcpy(&words[2], body + last, sizeof words[2]);
  }
  return (words[0] * 31 + words[1]) * 31 + words[2];
}

// Entries in a row, of which some may go at the front and others come at the end without moving
// those between.
class Entries {
 public:
  size_t size() const { return all_.size() - first_; }
  bool empty() const { return size() == 0; }
  const Entry* begin() const { return all_.begin() + first_; }
  const Entry* end() const { return all_.end(); }
  Entry* begin() { return all_.begin() + first_; }
  Entry* end() { return all_.end(); }
  Entry& operator[](size_t i) { return all_[first_ + i]; }
  const Entry& operator[](size_t i) const { return all_[first_ + i]; }

  void Clear() {
    all_.Clear();
    first_ = 0;
  }
  [[nodiscard]] bool Append(const Entry* entries, size_t count) {
    return all_.Append(entries, count);
  }
  [[nodiscard]] bool Push(const Entry& entry) { return all_.Push(entry); }
  // For so many that come at the end.
  [[nodiscard]] bool ReserveMore(size_t count) { return all_.Reserve(all_.size() + count); }
  // Those that went take up their memory until they are as many as those that stay.
  void DropFront(size_t count) {
    first_ += count;
    const size_t stay = size();
    if (first_ == 0 || first_ < stay) return;
    std::memmove(static_cast<void*>(all_.begin()), begin(), stay * sizeof(Entry));
    (void)all_.Resize(stay);  // Fewer than before.
    first_ = 0;
  }
  void swap(Entries& other) {
    all_.swap(other.all_);
    std::swap(first_, other.first_);
  }

 private:
  NothrowArray<Entry> all_;
  size_t first_ = 0;
};

// What an index of so many packets takes up.
constexpr uint64_t IndexRoom(uint64_t packets) { return packets * sizeof(uint64_t); }

// Where an index of an extent stands, and for how many packets.
struct IndexPlace {
  uint64_t at = 0;
  uint64_t capacity = 0;  // 0: nowhere.
  bool is_long() const { return at >= kPacketsBegin; }
};

const uint8_t* BodyOf(const Extent& extent, const Entry& entry) {
  return extent.at(entry.offset) + sizeof(PacketHeader);
}

uint64_t RoomOf(const Entry* begin, const Entry* end) {
  uint64_t room = 0;
  for (const Entry* entry = begin; entry != end; ++entry) room += PacketRoom(entry->length);
  return room;
}

[[gnu::cold]] void LogFailure(int line, const char* what, const std::string& path, int error,
                              const char* advice) {
  LocalLog(2, kLogSource, line, "cache: cannot %s %s: %s; %s", what, path.c_str(),
           cache_io::ErrnoText(error).c_str(), advice);
}

}  // namespace

struct MultiProcessSafetyMmapFile::State {
  // What Open() does with the content of dead owners.
  enum class Claim { kTake, kLeave };
  enum class Outcome { kDone, kTryAgain, kFailed };

  [[gnu::cold]] State(std::string path_in, uint64_t wished_bytes_in)
      : path(std::move(path_in)), wished_bytes(wished_bytes_in) {}
  ~State();
  [[gnu::cold]] void Detach();

  // --- Opening -----------------------------------------------------------------------------------
  [[gnu::cold]] bool Open(Claim claim);
  [[gnu::cold]] void TellNoLock(int error);
  [[gnu::cold]] bool OpenFile(bool* try_again);
  [[gnu::cold]] Outcome OpenLocked(Claim claim);
  [[gnu::cold]] Outcome SetNewerAside(uint32_t version);
  [[gnu::cold]] Outcome Repair(const mmap_format::Survey& survey, mmap_format::Reader& reader);
  [[gnu::cold]] bool WriteRecovered(const mmap_format::Survey& survey, mmap_format::Reader& reader);
  [[gnu::cold]] bool WriteGroup(const mmap_format::Survey& survey, size_t begin, size_t end,
                                mmap_format::Reader& reader);
  [[gnu::cold]] bool PrepareTable(const mmap_format::Reader& reader);
  [[gnu::cold]] bool LockDeadOwners(uint64_t* dead);
  [[gnu::cold]] void SettleDeadOwners(uint64_t dead);
  [[gnu::cold]] bool ChooseOwners(uint64_t dead, Claim claim, mmap_format::Reader& reader);
  [[gnu::cold]] uint64_t OwnersWithContent(uint64_t dead) const;
  [[gnu::cold]] bool TakeContent(uint32_t owner, mmap_format::Reader& reader, bool* go_on);
  [[gnu::cold]] bool TakeEmptyRecord(uint64_t dead);
  [[gnu::cold]] bool MapOwnExtent();

  // --- Records -----------------------------------------------------------------------------------
  OwnerView View(uint32_t owner) const { return table.View(owner); }
  bool FlushTable() const { return table.Flush(durability); }
  void Discard(Extent* extent) const;
  [[gnu::cold]] void GiveBackIfEmpty();

  // --- Saving ------------------------------------------------------------------------------------
  bool Clear(int64_t size);
  bool TakeNextOfOld(const MmapDataPacket& packet);
  bool Append(const MmapDataPacket& packet);
  bool LookAgain(bool* is_there) const;
  [[gnu::cold]] bool Reopen();
  void ForgetSave();
  void VoidSave();
  Extent& target() { return building ? building : current; }
  const Entry* Find(const MmapDataPacket& packet, uint64_t glance);
  bool Place(const MmapDataPacket& packet);
  bool NameOld(size_t at);
  void EndRun();
  bool AddNew(const Entry& entry);
  const Entry* PieceBegin(const Piece& piece) const;
  bool ContinuesOld() const;
  bool Assemble();
  bool AssembleAsNew();
  bool HasRoom(uint64_t bytes) const { return next_at + bytes <= gap_end; }
  [[gnu::cold]] bool MakeRoom(uint64_t bytes);
  [[gnu::cold]] bool UseGap(uint64_t at_least);
  [[gnu::cold]] bool FindUsed();
  [[gnu::cold]] bool AddUsed(const Entry* begin, const Entry* end);
  [[gnu::cold]] bool LengthenFor(uint64_t bytes, uint64_t more);
  [[gnu::cold]] bool MoveToNewExtent(uint64_t bytes);
  uint64_t Needed() const;
  uint64_t PlacedRoom() const;
  bool ChooseIndex();
  bool FlushWritten();
  void CopyNext(const Extent& from, const Extent& to, uint64_t at);
  bool SealSave();
  void RetireOldPackets();
  void Retire(size_t begin, size_t end) const;
  void RetireOne(const Entry& entry) const;
  bool IsKeptElsewhere(const Entry& dropped) const;
  void FinishMove(bool is_flushed);
  void FinishTakeOver();
  void ShrinkIfWasteful();
  [[gnu::cold]] void Shrink(uint64_t needed, uint64_t most);
  [[gnu::cold]] bool CutOff(uint64_t needed, uint64_t most);
  [[gnu::cold]] void TellSaveFailed(int line);

  // --- Reading -----------------------------------------------------------------------------------
  [[gnu::cold]] MmapDataPacket NextPacket();

  const std::string path;
  const uint64_t wished_bytes;
  Durability durability = Durability::kProcess;
  cache_io::Descriptor file;
  mmap_format::Table table;
  mmap_format::TableLock table_lock;
  mmap_format::Room room{file, table, table_lock};
  uint32_t own = 0;        // This owner's record; 0: none.
  int in_force = 0;        // Of its seals.
  IndexPlace index;        // That the seal in force names,
  IndexPlace spare_index;  // and a long one that nothing names, for the next save.
  uint64_t claimed = 0;    // Bit n: owner n's content is part of what Open() found, and locked.

  // The content as Open() found it.
  mmap_format::PacketPlaces to_read;
  size_t next_read = 0;
  NothrowArray<uint8_t> read_buffer;
  bool may_read = true;
  bool may_save = true;

  // The content in force, all of it in `current`.
  Extent current;
  Entries sealed;
  uint64_t sealed_room = 0;  // That its packets take up.
  bool is_shared = false;    // One packet may be there more than once, at one place in the extent.
  uint64_t append_at =
      0;  // Nothing of it is in [append_at, append_end): the next save begins there.
  uint64_t append_end = 0;

  // The save under way.
  bool is_saving = false;  // Or complete: then nothing that was announced is left to append.
  bool is_complete = true;
  bool is_shrinking = false;
  bool told_failure = false;  // Since the last complete save.
  uint64_t announced = 0;
  uint64_t appended = 0;
  Extent building;  // Where the save goes once `current` has not enough room for it.
  // Its packets: a usual save repeats the old content but for a few, so what it takes from there is
  // only counted, until the whole is put together to be sealed.
  NothrowArray<Piece> pieces;
  Entries added;
  Entries next;  // All of them; when they are sealed.
  size_t next_count = 0;
  // While the last piece is an old one: [run, run_next) belong to it too and are not counted yet,
  // [run_next, run_end) come next in the old content. Else all three are null.
  const Entry* run = nullptr;
  const Entry* run_next = nullptr;
  const Entry* run_end = nullptr;
  bool is_disordered = false;  // The old ones do not come in the order of the old content.
  IndexPlace next_index;
  uint64_t next_begin = 0;  // What this save has written last: [next_begin, next_at).
  uint64_t next_at = 0;
  uint64_t gap_end = 0;      // New packets of it may go to [next_at, gap_end) of target().
  uint64_t size_before = 0;  // Of `current`, when the save began.
  NothrowArray<Range> used;  // Where target() has what must stay.
  size_t cursor = 0;         // Where in the old content the next packet is looked for first.
  int failed_searches = 0;
  uint64_t new_bytes = 0;       // Room of the packets that the old content does not have.
  uint64_t last_new_bytes = 0;  // Likewise, of the save before.
};

// Opening -----------------------------------------------------------------------------------------

MultiProcessSafetyMmapFile::State::~State() {
  if (file.is_orphan()) {
    // Nothing of this is mapped in a forked child, and the addresses may be another's.
    table.Forget();
    current.map.Forget();
    building.map.Forget();
    return;
  }
  bool is_there;
  if (LookAgain(&is_there) && is_there) {
    VoidSave();
    GiveBackIfEmpty();
  }
  Detach();
}

// The locks go with the last reference to the description, and a mapping is one: should unmapping
// fail, they go all the same.
void MultiProcessSafetyMmapFile::State::Detach() {
  current.Reset();
  building.Reset();
  table.Unmap();
  if (file.is_open()) cache_io::Unlock(file.fd(), 0, kTableSize);
  file.Close();
  own = 0;
  claimed = 0;
  to_read.Clear();
  sealed.Clear();
  sealed_room = 0;
  is_shared = false;
  index = spare_index = IndexPlace();
  append_at = append_end = 0;
  size_before = 0;
  ForgetSave();
  last_new_bytes = 0;
}

bool MultiProcessSafetyMmapFile::State::Open(Claim claim) {
  durability = cache_io::ConfiguredDurability();
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    bool try_again = false;
    if (!OpenFile(&try_again)) {
      if (try_again) continue;
      if (told_failure) return false;  // Asked again at each save while the folder is away.
      LocalLog(2, kLogSource, __LINE__, "cache: cannot open %s: %s", path.c_str(),
               cache_io::WhyNotOpened(errno).c_str());
      return false;
    }
    if (!table_lock.Take(file, claim == Claim::kTake ? kOpenWaitMs : kSaveWaitMs)) {
      TellNoLock(errno);
      Detach();
      return false;
    }
    // Someone may have set the file aside since it was opened.
    const Outcome outcome =
        cache_io::IsStillAt(file.fd(), path) ? OpenLocked(claim) : Outcome::kTryAgain;
    if (outcome == Outcome::kDone) {
      table_lock.Drop(file, table);
      return true;
    }
    Detach();
    if (outcome == Outcome::kFailed) return false;
  }
  LocalLog(2, kLogSource, __LINE__,
           "cache: cannot open %s: it was replaced %d times meanwhile; end what replaces it",
           path.c_str(), kOpenAttempts);
  return false;
}

void MultiProcessSafetyMmapFile::State::TellNoLock(int error) {
  if (told_failure) return;
  if (error == EAGAIN) {
    LocalLog(2, kLogSource, __LINE__, "cache: cannot open %s: %s; resume or end that process",
             path.c_str(), table_lock.WhoHasIt(table).c_str());
  } else {
    LogFailure(__LINE__, "lock", path, error,
               "put the cache folder on a file system that has such locks");
  }
}

// False with errno, or with `*try_again`.
bool MultiProcessSafetyMmapFile::State::OpenFile(bool* try_again) {
  using How = cache_io::Descriptor::How;
  if (file.Open(path, How::kExisting)) return true;
  if (errno != ENOENT) return false;
  // A repair that was killed between its two renames.
  if (cache_io::OpenRecovered(path, &file)) {
    if (cache_io::RenameToFree(RecoveredPath(path), path)) return true;
    *try_again = errno == EEXIST || errno == ENOENT;
    return false;
  }
  if (errno != ENOENT) return false;
  if (file.Open(path, How::kCreate)) {
    return durability != Durability::kOnDisk || cache_io::SyncFolderOf(path);
  }
  *try_again = errno == EEXIST;
  return false;
}

// With the table's lock held.
MultiProcessSafetyMmapFile::State::Outcome MultiProcessSafetyMmapFile::State::OpenLocked(
    Claim claim) {
  using mmap_format::TableState;
  mmap_format::Reader reader(file.fd());
  const int others =
      cache_io::IsLockedByOther(file.fd(), RecordOffset(1), kTableSize - RecordOffset(1));
  if (others < 0 || !reader.Load()) {
    LogFailure(__LINE__, "read", path, errno, kTryLater);
    return Outcome::kFailed;
  }
  if (reader.table_state() == TableState::kNewer) {
    if (others == 0) return SetNewerAside(reader.version());
    LocalLog(2, kLogSource, __LINE__,
             "cache: cannot open %s: a newer version of the library has it open; end it first",
             path.c_str());
    return Outcome::kFailed;
  }
  if (others == 0 && reader.table_state() != TableState::kFresh) {
    mmap_format::Survey survey;
    if (!reader.Examine(&survey)) {
      LogFailure(__LINE__, "read", path, errno, kTryLater);
      return Outcome::kFailed;
    }
    if (survey.damage != nullptr) return Repair(survey, reader);
    unlink(RecoveredPath(path).c_str());  // Left by a repair that was killed before its renames.
  }
  room.Begin(0, durability);
  if (!PrepareTable(reader)) {
    LogFailure(__LINE__, "make room for", path, errno, "free some space on the disk");
    return Outcome::kFailed;
  }
  uint64_t dead = 0;
  if (!LockDeadOwners(&dead)) {
    LogFailure(__LINE__, "lock", path, errno, kTryLater);
    return Outcome::kFailed;
  }
  SettleDeadOwners(dead);
  if (!reader.Load() || !ChooseOwners(dead, claim, reader)) {
    LogFailure(__LINE__, "take an owner's place in", path, errno,
               errno == EUSERS ? "all 63 are taken; close another or use another channel name"
                               : kTryLater);
    return Outcome::kFailed;
  }
  return Outcome::kDone;
}

MultiProcessSafetyMmapFile::State::Outcome MultiProcessSafetyMmapFile::State::SetNewerAside(
    uint32_t version) {
  std::string aside;
  if (!cache_io::SetAside(path, &aside)) {
    LocalLog(2, kLogSource, __LINE__, "cache: cannot set aside %s: %s", path.c_str(),
             aside.c_str());
    return Outcome::kFailed;
  }
  LocalLog(2, kLogSource, __LINE__,
           "cache: %s is of version %u, newer than this library's; it is set aside as %s, and a "
           "new one is begun; let the newer version deliver it",
           path.c_str(), version, aside.c_str());
  return Outcome::kTryAgain;
}

// Nobody else has the file open. What is intact goes into a new file, which takes its name.
MultiProcessSafetyMmapFile::State::Outcome MultiProcessSafetyMmapFile::State::Repair(
    const mmap_format::Survey& survey, mmap_format::Reader& reader) {
  const std::string recovered = RecoveredPath(path);
  if (!WriteRecovered(survey, reader)) {
    LogFailure(__LINE__, "repair", path, errno,
               "it stays as it is; free some space, the next start tries again");
    unlink(recovered.c_str());
    return Outcome::kFailed;
  }
  // In this order: an Open() that finds no file at `path` looks for the recovered one first.
  std::string aside;
  if (!cache_io::SetAside(path, &aside)) {
    LocalLog(2, kLogSource, __LINE__, "cache: cannot set aside %s: %s", path.c_str(),
             aside.c_str());
    return Outcome::kFailed;
  }
  if ((!cache_io::Rename(recovered, path) && errno != ENOENT) ||  // ENOENT: it did so already.
      (durability == Durability::kOnDisk && !cache_io::SyncFolderOf(path))) {
    LogFailure(__LINE__, "replace", path, errno, "make its folder writable");
    return Outcome::kFailed;
  }
  LocalLog(2, kLogSource, __LINE__,
           "cache: %s was damaged (%s); its %zu intact packets are kept, and the file as it was "
           "is %s, for whoever wants to look at it",
           path.c_str(), survey.damage, survey.packets.size(), aside.c_str());
  return Outcome::kTryAgain;
}

bool MultiProcessSafetyMmapFile::State::WriteRecovered(const mmap_format::Survey& survey,
                                                       mmap_format::Reader& reader) {
  {
    cache_io::Descriptor emptied;
    if (!cache_io::CreateRecovered(RecoveredPath(path), &emptied)) return false;
  }
  size_t begin = 0;
  uint32_t groups = 0;
  for (const mmap_format::Survey::Group& group : survey.groups) {
    size_t end = group.end;
    if (end <= begin) continue;
    if (++groups == kOwners) end = survey.packets.size();  // There are no more places than that.
    if (!WriteGroup(survey, begin, end, reader)) return false;
    begin = end;
  }
  return true;
}

// As a dead owner's content.
bool MultiProcessSafetyMmapFile::State::WriteGroup(const mmap_format::Survey& survey, size_t begin,
                                                   size_t end, mmap_format::Reader& reader) {
  State writer(RecoveredPath(path), 0);
  if (!writer.Open(Claim::kLeave)) return false;
  uint64_t size = 0;
  for (size_t i = begin; i < end; ++i) size += survey.packets[i].length + uint64_t{4};
  if (size > kMostAnnounced || !writer.Clear(static_cast<int64_t>(size))) return false;
  NothrowArray<uint8_t> body;
  for (size_t i = begin; i < end; ++i) {
    if (!reader.ReadBody(survey.packets[i], &body)) return false;
    if (!writer.Append(MmapDataPacket{body.data(), survey.packets[i].length})) return false;
  }
  return writer.is_complete;
}

bool MultiProcessSafetyMmapFile::State::PrepareTable(const mmap_format::Reader& reader) {
  if (!cache_io::Allocate(file.fd(), 0, kTableSize) || !table.Map(file)) {
    return false;
  }
  table_lock.SignAs(table);
  Header* const header = table.header();
  Header wanted = {};
  wanted.magic = mmap_format::kHeaderMagic;
  wanted.version = mmap_format::kVersion;
  wanted.table_size = kTableSize;
  wanted.record_size = mmap_format::kRecordSize;
  wanted.owners = kOwners;
  wanted.check = mmap_format::CheckOf(wanted);
  // Also where someone has written over it while owners live: they know their places by heart.
  const size_t fixed = offsetof(Header, next_save_number);
  if (std::memcmp(header, &wanted, fixed) != 0) {
    const size_t behind_magic = sizeof wanted.magic;
    std::memcpy(reinterpret_cast<uint8_t*>(header) + behind_magic,
                reinterpret_cast<const uint8_t*>(&wanted) + behind_magic, fixed - behind_magic);
    StoreLast(&header->magic, wanted.magic);
  }
  const uint64_t unused = reader.LargestSaveNumber() + 1;
  const uint64_t next_number = __atomic_load_n(&header->next_save_number, __ATOMIC_RELAXED);
  if (next_number < unused || next_number >= mmap_format::kSaveNumberLimit) {
    __atomic_store_n(&header->next_save_number, unused, __ATOMIC_RELAXED);
  }
  return true;
}

// A process that dies drops all its locks at once, but perhaps in the middle of a pass: whoever got
// one of them gets the others in the next pass. What remains is whole: with every dead owner, all
// whose content he had taken.
// False with errno.
bool MultiProcessSafetyMmapFile::State::LockDeadOwners(uint64_t* dead) {
  uint64_t before;
  do {
    before = *dead;
    for (uint32_t owner = 1; owner <= kOwners; ++owner) {
      if ((*dead & Bit(owner)) != 0) continue;
      if (cache_io::TryLock(file.fd(), RecordOffset(owner), 1)) {
        *dead |= Bit(owner);
      } else if (errno != EAGAIN) {
        return false;
      }
    }
  } while (*dead != before);
  return true;
}

// Finishes what dead owners were at: content that a seal of theirs stands for is voided where it
// came from, and room that they had reserved is free.
void MultiProcessSafetyMmapFile::State::SettleDeadOwners(uint64_t dead) {
  uint64_t heirs = 0;
  uint64_t superseded = 0;
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    if ((dead & Bit(owner)) == 0) continue;
    for (mmap_format::Reservation& reserved : table.record(owner)->reserved) {
      if (reserved.size != 0) reserved.size = 0;
    }
    const OwnerView view = View(owner);
    // He died holding the locks of those whose content he had taken, so they are dead too.
    if (view.in_force < 0 || view.seal().superseded == 0) continue;
    if ((view.seal().superseded & ~dead) != 0) continue;
    heirs |= Bit(owner);
    for (uint32_t other = 1; other <= kOwners; ++other) {
      if (mmap_format::Supersedes(view, other, View(other))) superseded |= Bit(other);
    }
  }
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    const OwnerView voided = View(owner);
    if ((superseded & Bit(owner)) == 0) continue;
    if (voided.in_force < 0 && voided.damage == nullptr) continue;
    table.ReplaceSeal(owner, std::max(voided.in_force, 0),
                      Seal());  // Also in place of a damaged one.
  }
  if (heirs != 0) (void)FlushTable();
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    const OwnerView view = View(owner);
    if ((heirs & Bit(owner)) == 0 || view.in_force < 0) continue;
    Seal seal = view.seal();
    seal.superseded = 0;
    table.ReplaceSeal(owner, view.in_force, seal);
  }
}

// Of the dead ones, those whose content nobody's seal stands for: not even that of one who was live
// a moment ago.
uint64_t MultiProcessSafetyMmapFile::State::OwnersWithContent(uint64_t dead) const {
  uint64_t owners = 0;
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    if ((dead & Bit(owner)) == 0) continue;
    const OwnerView view = View(owner);
    if (view.has_content() && view.damage == nullptr) owners |= Bit(owner);
  }
  for (uint32_t heir = 1; heir <= kOwners; ++heir) {
    const OwnerView view = View(heir);
    if (view.in_force < 0 || view.seal().superseded == 0) continue;
    for (uint32_t owner = 1; owner <= kOwners; ++owner) {
      if (mmap_format::Supersedes(view, owner, View(owner))) owners &= ~Bit(owner);
    }
  }
  return owners;
}

bool MultiProcessSafetyMmapFile::State::ChooseOwners(uint64_t dead, Claim claim,
                                                     mmap_format::Reader& reader) {
  uint64_t left = claim == Claim::kTake ? OwnersWithContent(dead) : 0;
  bool go_on = true;
  while (left != 0 && go_on) {
    uint32_t oldest = 0;
    for (uint32_t owner = 1; owner <= kOwners; ++owner) {
      if ((left & Bit(owner)) == 0) continue;
      if (oldest == 0 || View(owner).seal().save_number < View(oldest).seal().save_number) {
        oldest = owner;
      }
    }
    left &= ~Bit(oldest);
    if (!TakeContent(oldest, reader, &go_on)) return false;
  }
  if (own == 0 && !TakeEmptyRecord(dead)) return false;
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    const bool needed = owner == own || (claimed & Bit(owner)) != 0;
    if ((dead & Bit(owner)) != 0 && !needed) cache_io::Unlock(file.fd(), RecordOffset(owner), 1);
  }
  return MapOwnExtent();
}

// Adds a dead owner's content to what will be read, if it is whole and not too much. False with
// errno.
bool MultiProcessSafetyMmapFile::State::TakeContent(uint32_t owner, mmap_format::Reader& reader,
                                                    bool* go_on) {
  const OwnerView view = View(owner);
  const size_t before = to_read.size();
  if (own != 0 && before + view.seal().packets >= kMaxPacketsOfSeveralOwners) return true;
  const char* damage;
  uint32_t damaged_packets;
  if (!reader.ReadContent(owner, view.seal(), &to_read, &damage, &damaged_packets)) return false;
  if (damage != nullptr) {
    LocalLog(2, kLogSource, __LINE__,
             "cache: the content of owner %u in %s is damaged (%s) and stays where it is while "
             "other owners are live; a start without them repairs it",
             owner, path.c_str(), damage);
    return to_read.Resize(before);
  }
  for (size_t i = before; i < to_read.size(); ++i) {
    // Whoever reads up to an empty packet loses what follows it: let that be nobody else's.
    if (to_read[i].length == 0) *go_on = false;
  }
  if (own != 0) {
    claimed |= Bit(owner);
    return true;
  }
  own = owner;
  in_force = view.in_force;
  index = {view.seal().index_at, view.seal().packets};
  for (const PacketPlace& place : to_read) {
    const uint64_t offset = place.header_offset - view.seal().extent_offset;
    if (!sealed.Push(Entry{offset, place.body_check, 0, place.length, false})) return false;
  }
  return true;
}

bool MultiProcessSafetyMmapFile::State::TakeEmptyRecord(uint64_t dead) {
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    const OwnerView view = View(owner);
    if ((dead & Bit(owner)) == 0 || view.has_content() || view.damage != nullptr) continue;
    if (view.in_force >= 0 && !room.Knows(view.seal())) continue;
    own = owner;
    if (view.in_force >= 0) {
      in_force = view.in_force;
      return true;
    }
    Seal nothing = {};
    nothing.save_number = table.NextSaveNumber();
    in_force = 0;
    table.WriteSeal(own, in_force, nothing);
    return true;
  }
  errno = EUSERS;
  return false;
}

bool MultiProcessSafetyMmapFile::State::MapOwnExtent() {
  room.Begin(own, durability);
  const Seal seal = View(own).seal();
  if (seal.extent_offset == 0) return true;
  if (!room.MapSealed(seal, &current)) return false;
  size_before = current.size();
  // What this owner's saves will name without writing it anew.
  if (durability == Durability::kOnDisk && !cache_io::SyncFile(file.fd())) return false;
  uint64_t last = 0;
  for (Entry& entry : sealed) {
    is_shared = is_shared || entry.offset <= last;
    last = entry.offset;
    sealed_room += PacketRoom(entry.length);
    entry.glance = Glance(BodyOf(current, entry), entry.length);
  }
  return true;
}

// Of an extent that no seal has named. Marked and unmapped before it is nobody's: another may then
// use it, or cut the file.
void MultiProcessSafetyMmapFile::State::Discard(Extent* extent) const {
  const uint64_t offset = extent->file_offset;
  const uint64_t epoch = extent->epoch;
  StoreLast(&extent->header()->state, mmap_format::kFree);
  extent->Reset();
  room.DropReservation(offset);
  room.GiveBack(offset, epoch);
}

// An owner that closes without content needs no room.
void MultiProcessSafetyMmapFile::State::GiveBackIfEmpty() {
  if (!current || !sealed.empty() || claimed != 0 || !is_complete) return;
  const uint64_t offset = current.file_offset;
  const uint64_t epoch = current.epoch;
  // Marked and unmapped before it is nobody's: another may then use it, or cut the file.
  StoreLast(&current.header()->state, mmap_format::kFree);
  current.Reset();
  table.ReplaceSeal(own, in_force, Seal());
  if (FlushTable()) room.GiveBack(offset, epoch);
}

// Saving ------------------------------------------------------------------------------------------

bool MultiProcessSafetyMmapFile::State::Clear(int64_t size) {
  if (file.is_orphan()) return false;
  may_read = false;
  is_saving = false;
  is_complete = false;
  run = run_next = run_end = nullptr;
  if (size < 0 || static_cast<uint64_t>(size) > kMostAnnounced) {
    errno = EINVAL;
    TellSaveFailed(__LINE__);
    return false;
  }
  if (!may_save) return false;  // Which was told when it began.
  bool is_there;
  if (!LookAgain(&is_there)) {
    TellSaveFailed(__LINE__);
    return false;
  }
  if (is_there) {
    VoidSave();
  } else if (!Reopen()) {
    return false;
  }
  announced = static_cast<uint64_t>(size);
  appended = 0;
  ForgetSave();
  next_count = 0;
  is_disordered = false;
  next_begin = next_at = append_at;
  gap_end = append_end;
  cursor = 0;
  failed_searches = 0;
  new_bytes = 0;
  // Content that is mostly new each time goes to and fro between the same bytes, which the
  // processor then has at hand.
  const bool will_be_new = last_new_bytes > 0 && 2 * last_new_bytes >= sealed_room;
  if (current && will_be_new && !UseGap(last_new_bytes) && errno == ENOMEM) {
    TellSaveFailed(__LINE__);
    return false;
  }
  is_saving = true;
  return size > 0 || SealSave();
}

void MultiProcessSafetyMmapFile::State::ForgetSave() {
  added.Clear();
  pieces.Clear();
  next_index = IndexPlace();
}

// What it has written was never in a save: where damage leaves no index to tell, it must not count.
void MultiProcessSafetyMmapFile::State::VoidSave() {
  is_saving = false;
  run = run_next = run_end = nullptr;
  if (building) {
    Discard(&building);
  } else {
    for (const Entry& entry : added) RetireOne(entry);
  }
  ForgetSave();
  if (current.size() > size_before) (void)room.Shorten(size_before, &current);
}

// The usual packet of a save: what follows the one before it in the old content too. Costs little
// more than the comparison; EndRun() counts it. Never the save's last, for which Place() sees to it
// that the index has room for all. False, and nothing done, for all others.
inline bool MultiProcessSafetyMmapFile::State::TakeNextOfOld(const MmapDataPacket& packet) {
  const Entry* const entry = run_next;
  if (entry == run_end || entry->length != packet.size || packet.data == nullptr) return false;
  const uint64_t with_this = appended + packet.size + 4;
  if (with_this >= announced || file.is_orphan()) return false;
  if (std::memcmp(BodyOf(current, *entry), packet.data, packet.size) != 0) return false;
  run_next = entry + 1;
  appended = with_this;
  return true;
}

bool MultiProcessSafetyMmapFile::State::Append(const MmapDataPacket& packet) {
  if (file.is_orphan() || !is_saving) return false;
  const uint64_t cost = uint64_t{packet.size} + 4;
  if ((packet.data == nullptr && packet.size != 0) || cost > announced - appended) {
    VoidSave();
    return false;
  }
  if (!Place(packet)) {
    TellSaveFailed(__LINE__);
    VoidSave();
    return false;
  }
  appended += cost;
  return appended < announced || SealSave();
}

// Asked before anything that is mapped is touched in a new call: behind the end of the file that
// would be a signal; and what is saved in a file that has lost its name, nobody would find.
// False with errno when that cannot be told.
bool MultiProcessSafetyMmapFile::State::LookAgain(bool* is_there) const {
  *is_there = false;
  if (own == 0) return true;
  uint64_t size = 0;
  const cache_io::Name name = cache_io::AskName(file, path, &size);
  if (name == cache_io::Name::kUnknown) return false;
  const uint64_t end = std::max(
      {kTableSize, current.file_offset + current.size(), building.file_offset + building.size()});
  *is_there = name == cache_io::Name::kOurs && size >= end;
  return true;
}

// Someone has deleted, renamed or cut the file: this owner goes on in a new one, or in a new place.
// What dead owners left there is not taken: nobody would read it.
bool MultiProcessSafetyMmapFile::State::Reopen() {
  if (own != 0) {
    LocalLog(2, kLogSource, __LINE__,
             "cache: %s was deleted, renamed or cut by someone else; it is made anew, and of what "
             "it held only what is saved now is kept; leave the file alone while it is in use",
             path.c_str());
    told_failure = false;
  }
  Detach();
  if (Open(Claim::kLeave)) return true;
  told_failure = true;
  return false;
}

// The place in the old content of a packet with the same bytes; null when it has none.
const Entry* MultiProcessSafetyMmapFile::State::Find(const MmapDataPacket& packet,
                                                     uint64_t glance) {
  const size_t count = sealed.size();
  const bool full = failed_searches < kFullSearches;
  // Behind all that the save takes over in a row, only what it has left out can be meant.
  const size_t all = ContinuesOld() ? pieces[0].begin : count;
  const size_t tries = full ? all : std::min(all, kShortSearch);
  size_t at = cursor;
  for (size_t i = 0; i < tries; ++i, ++at) {
    if (at >= count) at = 0;
    const Entry& entry = sealed[at];
    if (entry.glance != glance || entry.length != packet.size) continue;
    if (packet.size != 0 && std::memcmp(BodyOf(current, entry), packet.data, packet.size) != 0) {
      continue;
    }
    cursor = at + 1;
    return &entry;
  }
  if (full) ++failed_searches;
  return nullptr;
}

void MultiProcessSafetyMmapFile::State::EndRun() {
  const size_t count = static_cast<size_t>(run_next - run);
  if (count > 0) {
    pieces.back().count += count;
    next_count += count;
    cursor += count;
  }
  run = run_next = run_end = nullptr;
}

bool MultiProcessSafetyMmapFile::State::Place(const MmapDataPacket& packet) {
  EndRun();
  const uint64_t bytes = PacketRoom(packet.size);
  const uint64_t glance = Glance(packet.data, packet.size);
  const Entry* const old = Find(packet, glance);
  if (old != nullptr && !building) {
    return NameOld(static_cast<size_t>(old - sealed.begin()));
  }
  if (!HasRoom(bytes) && !MakeRoom(bytes)) return false;
  PacketHeader head = {};
  head.magic = mmap_format::kPacketMagic;
  head.state = mmap_format::kLive;
  head.length = packet.size;
  head.body_check = old != nullptr ? old->body_check : mmap_format::Check(packet.data, packet.size);
  head.check = mmap_format::CheckOf(head);
  if (!AddNew(Entry{next_at, head.body_check, glance, packet.size, false})) return false;
  uint8_t* const to = target().at(next_at);
  std::memcpy(to, &head, sizeof head);
  if (packet.size != 0) std::memcpy(to + sizeof head, packet.data, packet.size);
  next_at += bytes;
  if (old == nullptr) new_bytes += bytes;
  return true;
}

// Takes a packet over from the old content, where it is the one before `cursor`.
bool MultiProcessSafetyMmapFile::State::NameOld(size_t at) {
  bool follows = false;
  for (size_t i = pieces.size(); i > 0; --i) {
    const Piece& last = pieces[i - 1];
    if (last.is_new) continue;
    if (at < last.end()) is_disordered = true;
    follows = at == last.end() && i == pieces.size();
    break;
  }
  if (!follows && !pieces.Push(Piece{at, 0, false})) return false;
  ++pieces.back().count;
  ++next_count;
  run = run_next = sealed.begin() + cursor;
  run_end = sealed.end();
  return true;
}

bool MultiProcessSafetyMmapFile::State::AddNew(const Entry& entry) {
  const bool follows = !pieces.empty() && pieces.back().is_new;
  if (!added.Push(entry) || (!follows && !pieces.Push(Piece{added.size() - 1, 0, true}))) {
    return false;
  }
  ++pieces.back().count;
  ++next_count;
  return true;
}

const Entry* MultiProcessSafetyMmapFile::State::PieceBegin(const Piece& piece) const {
  return (piece.is_new ? added.begin() : sealed.begin()) + piece.begin;
}

// Whether the save is the old content without some at its front and with others behind its end, as
// most are.
bool MultiProcessSafetyMmapFile::State::ContinuesOld() const {
  return !pieces.empty() && !pieces[0].is_new && pieces[0].end() == sealed.size() &&
         (pieces.size() == 1 || (pieces.size() == 2 && pieces[1].is_new));
}

// Puts the save's packets so far together in `next`.
bool MultiProcessSafetyMmapFile::State::Assemble() {
  next.Clear();
  for (const Piece& piece : pieces) {
    if (!next.Append(PieceBegin(piece), piece.count)) return false;
  }
  return true;
}

// Likewise; from now on they count as written by this save, which is about to do so. `next` is
// then what the save had written before, unless it has no packet yet.
bool MultiProcessSafetyMmapFile::State::AssembleAsNew() {
  if (next_count == 0) return true;
  if (!pieces.Reserve(1) || !Assemble()) return false;
  added.swap(next);
  pieces.Clear();
  return pieces.Push(Piece{0, added.size(), true});
}

// What the content in force and the save under way need at least, and what was wished for.
uint64_t MultiProcessSafetyMmapFile::State::Needed() const {
  const uint64_t packets = std::max(next_count + 1, sealed.size());
  const uint64_t saving = announced + packets * (PacketRoom(7) - 7);
  return kPacketsBegin + std::max({saving, sealed_room, PlacedRoom(), wished_bytes}) +
         (packets > kShortIndex ? 2 * IndexRoom(packets) : 0);
}

// Of the save's packets so far, wherever they are.
uint64_t MultiProcessSafetyMmapFile::State::PlacedRoom() const {
  uint64_t placed = 0;
  for (const Piece& piece : pieces) {
    placed += RoomOf(PieceBegin(piece), PieceBegin(piece) + piece.count);
  }
  return placed;
}

// For one more packet, or an index. Rather in a gap that is worth the search; else the extent
// grows, or the save moves; and when there is no room for that, any gap will do.
bool MultiProcessSafetyMmapFile::State::MakeRoom(uint64_t bytes) {
  if (!FlushWritten()) return false;
  if (target()) {
    if (UseGap(std::max(bytes, sealed_room / 8))) return true;
    if (errno == ENOMEM) return false;
    const uint64_t to_come = announced - appended;
    if (LengthenFor(bytes, std::max(to_come, target().size() / 4))) return true;
    if (errno == ENOSPC && (LengthenFor(bytes, 0) || UseGap(bytes))) return true;
  }
  if (MoveToNewExtent(bytes)) return true;
  const int error = errno;
  if (target() && UseGap(bytes)) return true;
  errno = error;
  return false;
}

// The first gap in target() of at least so many bytes. False with errno; ENOSPC: there is none.
bool MultiProcessSafetyMmapFile::State::UseGap(uint64_t at_least) {
  if (!FindUsed()) {
    errno = ENOMEM;
    return false;
  }
  for (size_t i = 0; i + 1 < used.size(); ++i) {
    if (used[i].end + at_least > used[i + 1].begin) continue;
    next_begin = next_at = used[i].end;
    gap_end = used[i + 1].begin;
    return true;
  }
  errno = ENOSPC;
  return false;
}

// Fills `used`, in order and without overlaps, from the first page to the end of target(), which is
// the last, with nothing in it.
bool MultiProcessSafetyMmapFile::State::FindUsed() {
  used.Clear();
  bool done = used.Push({0, kPacketsBegin}) && used.Push({target().size(), target().size()});
  if (!building) {
    done = done && AddUsed(sealed.begin(), sealed.end());
    for (const IndexPlace& place : {index, spare_index, next_index}) {
      if (place.is_long()) {
        done = done && used.Push({place.at, place.at + IndexRoom(place.capacity)});
      }
    }
  }
  if (!done || !AddUsed(added.begin(), added.end())) return false;
  mmap_format::SortByBegin(used.begin(), used.end());
  size_t last = 0;
  for (size_t i = 1; i < used.size(); ++i) {
    if (used[i].begin > used[last].end) {
      used[++last] = used[i];
    } else {
      used[last].end = std::max(used[last].end, used[i].end);
    }
  }
  (void)used.Resize(last + 1);
  // What reaches the end has taken its mark with it.
  return used[last].begin == target().size() || used.Push({target().size(), target().size()});
}

// Packets that stand one behind the other as one range.
bool MultiProcessSafetyMmapFile::State::AddUsed(const Entry* begin, const Entry* end) {
  for (const Entry* entry = begin; entry != end; ++entry) {
    const uint64_t room_end = entry->offset + PacketRoom(entry->length);
    if (entry != begin && used.back().end == entry->offset) {
      used.back().end = room_end;
    } else if (!used.Push({entry->offset, room_end})) {
      return false;
    }
  }
  return true;
}

// By `more` if that may be, and at least for `bytes`; goes on at its end. False with errno; ERANGE:
// it would be longer than its content may have it.
bool MultiProcessSafetyMmapFile::State::LengthenFor(uint64_t bytes, uint64_t more) {
  if (!FindUsed()) {
    errno = ENOMEM;
    return false;
  }
  const uint64_t size = target().size();
  const uint64_t free_at = used[used.size() - 2].end;
  const uint64_t least = RoundUp(free_at + bytes, kUnit);
  const uint64_t most = (Needed() * kLongestHalves / 2 + kLongestMore) / kUnit * kUnit;
  const uint64_t wanted = RoundUp(std::max(free_at + bytes, size + more), kUnit);
  if (least > most) {
    errno = ERANGE;
    return false;
  }
  const uint64_t longer = more > 0 ? std::min(wanted, most) : least;
  if (longer > size && !room.Lengthen(longer, &target())) return false;
  next_begin = next_at = free_at;
  gap_end = longer;
  return true;
}

bool MultiProcessSafetyMmapFile::State::MoveToNewExtent(uint64_t bytes) {
  const uint64_t placed = PlacedRoom() + bytes + kPacketsBegin;
  const uint64_t needed = std::max(Needed(), placed);
  if (needed > kMostAnnounced) {
    errno = EFBIG;
    return false;
  }
  Extent made;
  // Half as much again, so that content that changes little by little stays there; or what it
  // takes.
  bool taken = room.Take(RoundUp(needed + needed / 2, kUnit), &made);
  if (!taken && !made && errno == ENOSPC) taken = room.Take(RoundUp(needed, kUnit), &made);
  if (!taken || !AssembleAsNew()) {
    const int error = taken ? ENOMEM : errno;
    if (made) Discard(&made);
    errno = error;
    return false;
  }
  if (target()) CopyNext(target(), made, kPacketsBegin);
  // What it had written beside the old content is in `next` now, and stays there if it is void.
  for (size_t i = 0; i < next.size() && next_count > 0 && !building; ++i) RetireOne(next[i]);
  if (!target()) next_begin = next_at = kPacketsBegin;
  gap_end = made.size();
  next_index = IndexPlace();
  building.swap(made);
  if (made) Discard(&made);  // A smaller one, begun for the same save.
  return true;
}

// The save's packets so far, with their heads, one behind the other; AssembleAsNew() came before.
void MultiProcessSafetyMmapFile::State::CopyNext(const Extent& from, const Extent& to,
                                                 uint64_t at) {
  next_begin = next_at = at;
  for (Entry& entry : added) {
    std::memcpy(to.at(next_at), from.at(entry.offset), sizeof(PacketHeader) + entry.length);
    entry.offset = next_at;
    next_at += PacketRoom(entry.length);
  }
}

// Where the save's index goes: a short one into the first page, a long one among the packets.
bool MultiProcessSafetyMmapFile::State::ChooseIndex() {
  if (next_count <= kShortIndex) {
    const bool is_first = building || index.at != ShortIndexAt(0);
    next_index = {ShortIndexAt(is_first ? 0 : 1), kShortIndex};
    return true;
  }
  if (!building && spare_index.capacity >= next_count) {
    next_index = spare_index;
    return true;
  }
  const uint64_t capacity = next_count + next_count / 4;
  if (!HasRoom(IndexRoom(capacity)) && !MakeRoom(IndexRoom(capacity))) return false;
  next_index = {next_at, capacity};
  next_at += IndexRoom(capacity);
  return true;
}

// What was written since the save began or went on in another gap.
bool MultiProcessSafetyMmapFile::State::FlushWritten() {
  return !target() || target().map.Flush(next_begin, next_at, durability);
}

// The one step: everything that the new seal names is written before it, and nothing that the old
// one names is touched until it is there.
bool MultiProcessSafetyMmapFile::State::SealSave() {
  EndRun();
  next_index = IndexPlace();
  const bool has_index = next_count == 0 || ChooseIndex();
  const bool continues_old = ContinuesOld();
  if (!has_index || (continues_old ? !sealed.ReserveMore(added.size()) : !Assemble())) {
    TellSaveFailed(__LINE__);
    VoidSave();
    return false;
  }
  Seal seal = {};
  seal.save_number = table.NextSaveNumber();
  seal.superseded = claimed;
  const Extent& extent = target();
  if (extent) {
    if (next_count == 0) next_index = {ShortIndexAt(0), kShortIndex};
    uint64_t* const entries = reinterpret_cast<uint64_t*>(extent.at(next_index.at));
    uint64_t* to = entries;
    for (const Piece& piece : pieces) {
      const Entry* const from = PieceBegin(piece);
      for (size_t i = 0; i < piece.count; ++i) to[i] = from[i].offset;
      to += piece.count;
    }
    seal.extent_offset = extent.file_offset;
    seal.extent_size = extent.size();
    seal.extent_epoch = extent.epoch;
    seal.index_at = next_index.at;
    seal.packets = static_cast<uint32_t>(next_count);
    seal.index_check = mmap_format::Check(entries, IndexRoom(next_count));
    if (!extent.map.Flush(next_index.at, next_index.at + IndexRoom(next_count), durability) ||
        !FlushWritten()) {
      TellSaveFailed(__LINE__);
      VoidSave();
      return false;
    }
  }
  table.WriteSeal(own, 1 - in_force, seal);
  in_force = 1 - in_force;
  const bool is_flushed = FlushTable();
  if (!is_flushed) TellSaveFailed(__LINE__);
  // The long index that is out of force now is the next save's; a short content needs none.
  spare_index = !building && next_index.is_long() && index.is_long() ? index : IndexPlace();
  index = next_index;
  const bool has_moved = static_cast<bool>(building);
  if (has_moved) {
    FinishMove(is_flushed);
  } else {
    RetireOldPackets();
  }
  if (claimed != 0) FinishTakeOver();
  is_shared = !has_moved && (is_shared || is_disordered);
  if (continues_old) {
    const Entry* const kept = sealed.begin() + pieces[0].begin;
    sealed_room += RoomOf(added.begin(), added.end()) - RoomOf(sealed.begin(), kept);
    sealed.DropFront(pieces[0].begin);
    (void)sealed.Append(added.begin(), added.size());  // Room was made for them.
  } else {
    sealed.swap(next);
    sealed_room = RoomOf(sealed.begin(), sealed.end());
  }
  append_at = sealed.empty() ? 0 : next_at;  // An empty one begins anew.
  append_end = sealed.empty() ? 0 : gap_end;
  last_new_bytes = new_bytes;
  is_complete = is_flushed;
  if (is_flushed) told_failure = false;
  ForgetSave();
  size_before = current.size();
  ShrinkIfWasteful();
  return is_flushed;
}

// For whoever must do without an index one day.
void MultiProcessSafetyMmapFile::State::RetireOldPackets() {
  if (is_disordered || is_shared) {
    for (Entry& entry : sealed) entry.kept = false;
    for (const Piece& piece : pieces) {
      for (size_t i = piece.begin; i < piece.end() && !piece.is_new; ++i) sealed[i].kept = true;
    }
    for (size_t i = 0; i < sealed.size(); ++i) {
      if (!sealed[i].kept && !IsKeptElsewhere(sealed[i])) Retire(i, i + 1);
    }
    return;
  }
  size_t at = 0;
  for (const Piece& piece : pieces) {
    if (piece.is_new) continue;
    Retire(at, piece.begin);
    at = piece.end();
  }
  Retire(at, sealed.size());
}

bool MultiProcessSafetyMmapFile::State::IsKeptElsewhere(const Entry& dropped) const {
  return is_shared && std::any_of(sealed.begin(), sealed.end(), [&](const Entry& entry) {
           return entry.kept && entry.offset == dropped.offset;
         });
}

void MultiProcessSafetyMmapFile::State::Retire(size_t begin, size_t end) const {
  for (size_t i = begin; i < end; ++i) RetireOne(sealed[i]);
}

void MultiProcessSafetyMmapFile::State::RetireOne(const Entry& entry) const {
  PacketHeader* const packet = reinterpret_cast<PacketHeader*>(current.at(entry.offset));
  __atomic_store_n(&packet->state, mmap_format::kRetired, __ATOMIC_RELAXED);
}

// An extent that a seal on the disk may still name is left there: whoever looks for room one day
// sees that its owner has moved.
void MultiProcessSafetyMmapFile::State::FinishMove(bool is_flushed) {
  StoreLast(&building.header()->state, mmap_format::kInUse);
  const uint64_t offset = current.file_offset;
  const uint64_t epoch = current.epoch;
  // Marked and unmapped before the older seal stops naming it: then another may use it, or cut the
  // file.
  if (current) StoreLast(&current.header()->state, mmap_format::kFree);
  current.Reset();
  current.swap(building);
  StoreLast(&table.record(own)->seals[1 - in_force].check, mmap_format::kWriting);
  room.DropReservation(current.file_offset);
  if (offset != 0 && is_flushed) room.GiveBack(offset, epoch);
}

// What was taken over is in this owner's own seal, which says so: it is voided where it came from,
// then the seal stops saying so, and only then may others use those records. Killed on the way,
// whoever opens next finishes it.
void MultiProcessSafetyMmapFile::State::FinishTakeOver() {
  std::pair<uint64_t, uint64_t> voided[kOwners];  // Offsets and epochs.
  size_t count = 0;
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    const OwnerView view = View(owner);
    if ((claimed & Bit(owner)) == 0 || view.in_force < 0) continue;
    voided[count++] = {view.seal().extent_offset, view.seal().extent_epoch};
    table.ReplaceSeal(owner, view.in_force, Seal());
  }
  const bool is_flushed = FlushTable();
  Seal seal = table.record(own)->seals[in_force];
  seal.superseded = 0;
  table.ReplaceSeal(own, in_force, seal);
  in_force = 1 - in_force;
  (void)FlushTable();
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    if ((claimed & Bit(owner)) != 0) cache_io::Unlock(file.fd(), RecordOffset(owner), 1);
  }
  claimed = 0;
  for (size_t i = 0; i < count && is_flushed; ++i) {
    room.GiveBack(voided[i].first, voided[i].second);
  }
}

void MultiProcessSafetyMmapFile::State::ShrinkIfWasteful() {
  if (is_shrinking || current.size() <= kNeverShrunk) return;
  uint64_t needed = kPacketsBegin + std::max(sealed_room, wished_bytes);
  if (sealed.size() > kShortIndex) needed += 2 * IndexRoom(sealed.size());
  const uint64_t most = needed * kShrinkHalves / 2 + kShrinkMore;
  if (current.size() > most) Shrink(needed, most);
}

// Cuts off the end if that is enough; else after a complete save of the same content, nearer to the
// front or in a smaller extent.
void MultiProcessSafetyMmapFile::State::Shrink(uint64_t needed, uint64_t most) {
  if (CutOff(needed, most)) return;
  if (!pieces.Push(Piece{0, sealed.size(), false})) return;
  next_count = sealed.size();
  is_disordered = false;
  announced = 0;
  appended = 0;
  const bool was_complete = is_complete;
  is_shrinking = true;
  if (UseGap(sealed_room) && next_at + sealed_room + kUnit <= most) {
    if (AssembleAsNew()) {
      CopyNext(current, current, next_at);
      if (SealSave()) (void)CutOff(needed, most);
    }
  } else if (MoveToNewExtent(0)) {
    (void)SealSave();
  }
  ForgetSave();
  is_complete = was_complete;  // Whatever came of it, the content is in force.
  is_shrinking = false;
}

// False when that would leave it too long, or is not to be had.
bool MultiProcessSafetyMmapFile::State::CutOff(uint64_t needed, uint64_t most) {
  spare_index = IndexPlace();  // Which may stand at the end.
  if (!FindUsed()) return false;
  const uint64_t used_end = used[used.size() - 2].end;
  const uint64_t shorter = RoundUp(std::max(used_end, needed + needed / 2), kUnit);
  if (shorter > std::max(most, kNeverShrunk) || shorter >= current.size()) return false;
  if (!room.Shorten(shorter, &current)) return false;
  size_before = current.size();
  append_at = append_end = 0;
  return true;
}

void MultiProcessSafetyMmapFile::State::TellSaveFailed(int line) {
  const int error = errno;
  if (!told_failure && error == EAGAIN) {
    LocalLog(2, kLogSource, line,
             "cache: cannot save to %s: %s; the content of the last save stays, and the next one "
             "tries again; resume or end that process",
             path.c_str(), table_lock.WhoHasIt(table).c_str());
  } else if (!told_failure) {
    LogFailure(line, "save to", path, error,
               "the content of the last save stays, and the next one tries again; free some space "
               "on the disk");
  }
  told_failure = true;
}

// Reading -----------------------------------------------------------------------------------------

MmapDataPacket MultiProcessSafetyMmapFile::State::NextPacket() {
  if (file.is_orphan() || !may_read || next_read == to_read.size()) return MmapDataPacket();
  mmap_format::Reader reader(file.fd());
  if (!reader.ReadBody(to_read[next_read], &read_buffer)) {
    LogFailure(__LINE__, "read back from", path, errno,
               "what it holds stays there, and nothing is saved in this run; start again");
    may_read = may_save = false;
    return MmapDataPacket();
  }
  return MmapDataPacket{read_buffer.data(), to_read[next_read++].length};
}

// The class ---------------------------------------------------------------------------------------

MultiProcessSafetyMmapFile::MultiProcessSafetyMmapFile() : state_(nullptr) {}

MultiProcessSafetyMmapFile::~MultiProcessSafetyMmapFile() { Close(); }

[[gnu::cold]] bool MultiProcessSafetyMmapFile::Open(const base::FilePath& path,
                                                    base::MemoryMappedFile::Access access,
                                                    int64_t size) {
  Close();
  std::string refused = cache_io::WhyPathIsRefused(path.value());
  if (refused.empty() && access != base::MemoryMappedFile::READ_WRITE_EXTEND) {
    refused = "a cache file is opened for reading, writing and growing (READ_WRITE_EXTEND) only";
  }
  if (refused.empty() && (size < 0 || static_cast<uint64_t>(size) > kMostAnnounced / 4)) {
    refused = "the size asked for is negative or too large";
  }
  if (!refused.empty()) {
    LocalLog(2, kLogSource, __LINE__, "cache: cannot open %s: %s", path.AsUTF8Unsafe().c_str(),
             refused.c_str());
    return false;
  }
  state_ = new (std::nothrow) State(path.value(), static_cast<uint64_t>(size));
  if (state_ != nullptr && state_->Open(State::Claim::kTake)) return true;
  Close();
  return false;
}

MmapDataPacket MultiProcessSafetyMmapFile::GetNextDataPacket() {
  return state_ == nullptr ? MmapDataPacket() : state_->NextPacket();
}

bool MultiProcessSafetyMmapFile::Clear(int64_t size) {
  return state_ != nullptr && state_->Clear(size);
}

bool MultiProcessSafetyMmapFile::AppendDataPacket(const MmapDataPacket& packet) {
  return state_ != nullptr && (state_->TakeNextOfOld(packet) || state_->Append(packet));
}

bool MultiProcessSafetyMmapFile::IsSaveComplete() const {
  return state_ != nullptr && !state_->file.is_orphan() && state_->is_complete;
}

void MultiProcessSafetyMmapFile::Close() {
  delete state_;
  state_ = nullptr;
}

const char* MultiProcessSafetyMmapFile::ImplementationName() { return "posix"; }

QUENOR_NAMESPACE_END
