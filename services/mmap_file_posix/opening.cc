#include "services/mmap_file_posix/opening.h"

#include <unistd.h>

#include <cerrno>

#include "quenor_base/platform/local_log.h"
#include "services/cache_shared/names_posix.h"
#include "services/mmap_file_posix/messages.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {
namespace {

using cache_io::Durability;

constexpr char kLogSource[] = "services/mmap_file_posix/opening";
constexpr int kOpenWaitMs = 5000;
constexpr int kSaveWaitMs = 1000;
constexpr int kOpenAttempts = 16;

enum class Outcome { kDone, kTryAgain, kFailed };

class Opening {
 public:
  Opening(Owner& owner, Claim claim, bool is_told, ContentWriter write)
      : owner_(owner), claim_(claim), is_told_(is_told), write_(write) {}

  Outcome Try();

 private:
  bool OpenFile(bool* try_again);
  Outcome OpenLocked();
  Outcome ChooseOwners(Reader& reader);
  bool TakeContents(uint64_t dead, Reader& reader);
  bool TakeContent(uint32_t owner, Reader& reader, bool* go_on);
  bool TakeEmptyRecord(uint64_t dead);
  bool MapOwnExtent();
  void TellNotOpened(int error) const;
  void TellNoLock(int error) const;
  Outcome Fail(int line, const char* what, const char* advice) const;

  Owner& owner_;
  const Claim claim_;
  const bool is_told_;
  const ContentWriter write_;
};

Outcome Opening::Try() {
  bool try_again = false;
  if (!OpenFile(&try_again)) {
    if (try_again) return Outcome::kTryAgain;
    TellNotOpened(errno);
    return Outcome::kFailed;
  }
  const Room::Locked locked(owner_.room, claim_ == Claim::kTake ? kOpenWaitMs : kSaveWaitMs);
  if (!locked) {
    TellNoLock(errno);
    owner_.Close();
    return Outcome::kFailed;
  }
  // Someone may have set the file aside since it was opened.
  const bool is_there = cache_io::IsStillAt(owner_.file.fd(), owner_.path);
  const Outcome outcome = is_there ? OpenLocked() : Outcome::kTryAgain;
  if (outcome != Outcome::kDone) owner_.Close();
  return outcome;
}

// Asked again at each save while the folder is away.
void Opening::TellNotOpened(int error) const {
  if (is_told_) return;
  LocalLog(2, kLogSource, __LINE__, "cache: cannot open %s: %s", owner_.path.c_str(),
           cache_io::WhyNotOpened(error).c_str());
}

void Opening::TellNoLock(int error) const {
  if (is_told_) return;
  if (error == EAGAIN) {
    LocalLog(2, kLogSource, __LINE__, "cache: cannot open %s: %s; resume or end that process",
             owner_.path.c_str(), owner_.room.WhoHasLock().c_str());
  } else {
    LogFailure(kLogSource, __LINE__, "lock", owner_.path, error,
               "put the cache folder on a file system that has such locks");
  }
}

Outcome Opening::Fail(int line, const char* what, const char* advice) const {
  LogFailure(kLogSource, line, what, owner_.path, errno, advice);
  return Outcome::kFailed;
}

// False with errno, or with `*try_again`.
bool Opening::OpenFile(bool* try_again) {
  using How = cache_io::Descriptor::How;
  const std::string& path = owner_.path;
  if (owner_.file.Open(path, How::kExisting)) return true;
  if (errno != ENOENT) return false;
  // A repair that was killed between its two renames.
  if (cache_io::OpenRecovered(path, &owner_.file)) {
    if (cache_io::RenameToFree(cache_io::RecoveredPath(path), path)) return true;
    *try_again = errno == EEXIST || errno == ENOENT;
    return false;
  }
  if (errno != ENOENT) return false;
  if (owner_.file.Open(path, How::kCreate)) {
    return owner_.durability != Durability::kOnDisk || cache_io::SyncFolderOf(path);
  }
  *try_again = errno == EEXIST;
  return false;
}

// With the table's lock held.
Outcome Opening::OpenLocked() {
  const std::string& path = owner_.path;
  Reader reader(owner_.file.fd());
  const int others = HasLiveOwners(owner_.file);
  if (others < 0 || !reader.Load()) return Fail(__LINE__, "read", kTryLater);
  if (reader.table_state() == TableState::kNewer) {
    if (others == 0) {
      return SetNewerAside(path, reader.version()) ? Outcome::kTryAgain : Outcome::kFailed;
    }
    LocalLog(2, kLogSource, __LINE__,
             "cache: cannot open %s: a newer version of the library has it open; end it first",
             path.c_str());
    return Outcome::kFailed;
  }
  if (others == 0 && reader.table_state() != TableState::kFresh) {
    Survey survey;
    if (!reader.Examine(&survey)) return Fail(__LINE__, "read", kTryLater);
    if (survey.damage != nullptr) {
      const bool done = Repair(path, owner_.durability, survey, reader, write_);
      return done ? Outcome::kTryAgain : Outcome::kFailed;
    }
    // Left by a repair that was killed before its renames.
    unlink(cache_io::RecoveredPath(path).c_str());
  }
  owner_.room.Begin(0, owner_.durability);
  if (!owner_.room.MapTable())
    return Fail(__LINE__, "make room for", "free some space on the disk");
  owner_.table.PrepareHeader(reader.LargestSaveNumber());
  return ChooseOwners(reader);
}

// With the table mapped: which of the dead owners this one becomes, and whose heir it is besides.
Outcome Opening::ChooseOwners(Reader& reader) {
  uint64_t dead = 0;
  if (!LockDeadOwners(owner_.file, &dead)) return Fail(__LINE__, "lock", kTryLater);
  owner_.table.SettleDeadOwners(dead, owner_.durability);
  bool done = reader.Load() && TakeContents(dead, reader);
  done = done && (owner_.record != 0 || TakeEmptyRecord(dead));
  if (done) UnlockOwners(owner_.file, dead & ~(owner_.claimed | Bit(owner_.record)));
  if (done && MapOwnExtent()) return Outcome::kDone;
  return Fail(
      __LINE__, "take an owner's place in",
      errno == EUSERS ? "all 63 are taken; close another or use another channel name" : kTryLater);
}

bool Opening::TakeContents(uint64_t dead, Reader& reader) {
  uint64_t left = claim_ == Claim::kTake ? owner_.table.OwnersWithContent(dead) : 0;
  bool go_on = true;
  while (left != 0 && go_on) {
    const uint32_t oldest = owner_.table.Oldest(left);
    left &= ~Bit(oldest);
    if (!TakeContent(oldest, reader, &go_on)) return false;
  }
  return true;
}

// Adds a dead owner's content to what will be read, if it is whole and not too much. False with
// errno.
bool Opening::TakeContent(uint32_t owner, Reader& reader, bool* go_on) {
  constexpr uint32_t kMostPackets = MultiProcessSafetyMmapFile::kMaxPacketsOfSeveralOwners;
  const OwnerView view = owner_.table.View(owner);
  PacketPlaces& to_read = owner_.to_read;
  const size_t before = to_read.size();
  if (owner_.record != 0 && before + view.seal().packets >= kMostPackets) return true;
  const char* damage;
  uint32_t damaged_packets;
  if (!reader.ReadContent(owner, view.seal(), &to_read, &damage, &damaged_packets)) return false;
  if (damage != nullptr) {
    LocalLog(2, kLogSource, __LINE__,
             "cache: the content of owner %u in %s is damaged (%s) and stays where it is while "
             "other owners are live; a start without them repairs it",
             owner, owner_.path.c_str(), damage);
    return to_read.Resize(before);
  }
  for (size_t i = before; i < to_read.size(); ++i) {
    // Whoever reads up to an empty packet loses what follows it: let that be nobody else's.
    if (to_read[i].length == 0) *go_on = false;
  }
  if (owner_.record != 0) {
    owner_.claimed |= Bit(owner);
    return true;
  }
  owner_.record = owner;
  owner_.in_force = view.in_force;
  owner_.content.index = {view.seal().index_at, view.seal().packets};
  for (const PacketPlace& place : to_read) {
    const uint64_t offset = place.header_offset - view.seal().extent_offset;
    const Entry entry = {offset, place.body_check, 0, place.length, false};
    if (!owner_.content.packets.Push(entry)) return false;
  }
  return true;
}

bool Opening::TakeEmptyRecord(uint64_t dead) {
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    const OwnerView view = owner_.table.View(owner);
    if ((dead & Bit(owner)) == 0 || view.has_content() || view.damage != nullptr) continue;
    if (view.in_force >= 0 && !owner_.room.Knows(view.seal())) continue;
    owner_.record = owner;
    owner_.in_force = view.in_force;
    if (view.in_force >= 0) return true;
    Seal nothing = {};
    nothing.save_number = owner_.table.NextSaveNumber();
    owner_.in_force = 0;
    owner_.table.WriteSeal(owner, owner_.in_force, nothing);
    return true;
  }
  errno = EUSERS;
  return false;
}

bool Opening::MapOwnExtent() {
  owner_.room.Begin(owner_.record, owner_.durability);
  const Seal seal = owner_.table.View(owner_.record).seal();
  if (seal.extent_offset == 0) return true;
  if (!owner_.room.MapSealed(seal, &owner_.content.extent)) return false;
  // What this owner's saves will name without writing it anew.
  if (owner_.durability == Durability::kOnDisk && !cache_io::SyncFile(owner_.file.fd())) {
    return false;
  }
  owner_.content.Measure();
  return true;
}

}  // namespace

void Owner::Close() {
  content.Reset();
  table.Unmap();
  if (file.is_open()) DropAllLocks(file);
  file.Close();
  record = 0;
  claimed = 0;
  to_read.Clear();
}

bool Open(Owner* owner, Claim claim, bool is_told, ContentWriter write_recovered) {
  owner->durability = cache_io::ConfiguredDurability();
  Opening opening(*owner, claim, is_told, write_recovered);
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    const Outcome outcome = opening.Try();
    if (outcome != Outcome::kTryAgain) return outcome == Outcome::kDone;
  }
  LocalLog(2, kLogSource, __LINE__,
           "cache: cannot open %s: it was replaced %d times meanwhile; end what replaces it",
           owner->path.c_str(), kOpenAttempts);
  return false;
}

}  // namespace mmap_format
QUENOR_NAMESPACE_END
