// The memory-mapped cache file on Linux: one owner of it, from Open() to Close(). Here is what only
// the whole can do: seal a save, finish a move or a take-over, and notice that the file is gone.
//
// A process that is killed leaves exactly the stores before that point: their order alone makes a
// save one step, and each order that matters is said where it is made.
#include <algorithm>
#include <cerrno>
#include <new>
#include <string>
#include <utility>

#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "services/cache_shared/names_posix.h"
#include "services/mmap_file_posix/messages.h"
#include "services/mmap_file_posix/opening.h"
#include "services/mmap_file_posix/save.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using namespace mmap_format;

constexpr char kLogSource[] = "services/mmap_file_posix/mapped_file";

}  // namespace

struct MultiProcessSafetyMmapFile::State {
  [[gnu::cold]] State(std::string path, uint64_t wished_bytes)
      : owner(std::move(path)), save(owner.content, owner.room, wished_bytes) {}
  [[gnu::cold]] ~State();

  [[gnu::cold]] bool Open(Claim claim);
  [[gnu::cold]] static bool WriteRecovered(const std::string& path, RecoveredContent& content);
  [[gnu::cold]] bool Reopen();
  [[gnu::cold]] void Detach();
  bool LookAgain(bool* is_there) const;
  [[gnu::cold]] void GiveBackIfEmpty();
  [[gnu::cold]] MmapDataPacket NextPacket();

  bool Clear(int64_t size);
  bool Append(const MmapDataPacket& packet);
  bool SealSave();
  void FinishMove(ExtentName left, bool is_flushed);
  [[gnu::cold]] void FinishTakeOver();
  [[gnu::cold]] void Shrink();
  [[gnu::cold]] bool TellSaveFailed(int line);
  [[gnu::cold]] bool VoidSave(int line);

  Owner owner;
  Save save;
  bool is_complete = true;
  bool is_shrinking = false;
  bool told_failure = false;  // Since the last complete save.
  size_t next_read = 0;
  NothrowArray<uint8_t> read_buffer;
  bool may_read = true;
  bool may_save = true;
};

// Opening and closing -----------------------------------------------------------------------------

MultiProcessSafetyMmapFile::State::~State() {
  if (owner.file.is_orphan()) {
    // Nothing of this is mapped in a forked child, and the addresses may be another's.
    owner.table.Forget();
    owner.content.extent.map.Forget();
    save.ForgetMapping();
    return;
  }
  bool is_there;
  if (LookAgain(&is_there) && is_there) {
    save.Void();
    GiveBackIfEmpty();
  }
  Detach();
}

void MultiProcessSafetyMmapFile::State::Detach() {
  owner.content.Reset();
  save.Reset();
  owner.Close();
}

bool MultiProcessSafetyMmapFile::State::Open(Claim claim) {
  return mmap_format::Open(&owner, claim, told_failure, &WriteRecovered);
}

bool MultiProcessSafetyMmapFile::State::WriteRecovered(const std::string& path,
                                                       RecoveredContent& content) {
  State writer(path, 0);
  if (!writer.Open(Claim::kLeave)) return false;
  const uint64_t size = content.AnnouncedBytes();
  if (size > kMostAnnounced || !writer.Clear(static_cast<int64_t>(size))) return false;
  while (!content.is_at_end()) {
    MmapDataPacket packet;
    if (!content.Next(&packet) || !writer.Append(packet)) return false;
  }
  return writer.is_complete;
}

// Asked before anything that is mapped is touched in a new call: behind the end of the file that
// would be a signal; and what is saved in a file that has lost its name, nobody would find.
// False with errno when that cannot be told.
bool MultiProcessSafetyMmapFile::State::LookAgain(bool* is_there) const {
  *is_there = false;
  if (owner.record == 0) return true;
  uint64_t size = 0;
  const cache_io::Name name = cache_io::AskName(owner.file, owner.path, &size);
  if (name == cache_io::Name::kUnknown) return false;
  *is_there = name == cache_io::Name::kOurs && size >= std::max(kTableSize, save.End());
  return true;
}

// Someone has deleted, renamed or cut the file: this owner goes on in a new one, or in a new place.
// What dead owners left there is not taken: nobody would read it.
bool MultiProcessSafetyMmapFile::State::Reopen() {
  if (owner.record != 0) {
    LocalLog(2, kLogSource, __LINE__,
             "cache: %s was deleted, renamed or cut by someone else; it is made anew, and of what "
             "it held only what is saved now is kept; leave the file alone while it is in use",
             owner.path.c_str());
    told_failure = false;
  }
  Detach();
  if (Open(Claim::kLeave)) return true;
  told_failure = true;
  return false;
}

// An owner that closes without content needs no room.
void MultiProcessSafetyMmapFile::State::GiveBackIfEmpty() {
  const Content& content = owner.content;
  if (!content.extent || !content.packets.empty() || owner.claimed != 0 || !is_complete) return;
  const ExtentName left = MarkFree(&owner.content.extent);
  owner.table.ReplaceSeal(owner.record, owner.in_force, Seal());
  if (owner.FlushTable()) owner.room.GiveBack(left);
}

MmapDataPacket MultiProcessSafetyMmapFile::State::NextPacket() {
  const PacketPlaces& places = owner.to_read;
  if (owner.file.is_orphan() || !may_read || next_read == places.size()) return MmapDataPacket();
  Reader reader(owner.file.fd());
  if (!reader.ReadBody(places[next_read], &read_buffer)) {
    LogFailure(kLogSource, __LINE__, "read back from", owner.path, errno,
               "what it holds stays there, and nothing is saved in this run; start again");
    may_read = may_save = false;
    return MmapDataPacket();
  }
  return MmapDataPacket{read_buffer.data(), places[next_read++].length};
}

// Saving ------------------------------------------------------------------------------------------

bool MultiProcessSafetyMmapFile::State::Clear(int64_t size) {
  if (owner.file.is_orphan()) return false;
  may_read = false;
  is_complete = false;
  save.Stop();
  if (size < 0 || static_cast<uint64_t>(size) > kMostAnnounced) {
    errno = EINVAL;
    return TellSaveFailed(__LINE__);
  }
  if (!may_save) return false;  // Which was told when it began.
  bool is_there;
  if (!LookAgain(&is_there)) return TellSaveFailed(__LINE__);
  if (is_there) {
    save.Void();
  } else if (!Reopen()) {
    return false;
  }
  if (!save.Begin(static_cast<uint64_t>(size), owner.durability)) return TellSaveFailed(__LINE__);
  return size > 0 || SealSave();
}

bool MultiProcessSafetyMmapFile::State::Append(const MmapDataPacket& packet) {
  if (owner.file.is_orphan() || !save.is_under_way()) return false;
  if (!save.Expects(packet)) {
    save.Void();
    return false;
  }
  if (!save.Place(packet)) return VoidSave(__LINE__);
  return !save.IsWhole() || SealSave();
}

// The one step: everything that the new seal names is written before it, and nothing that the old
// one names is touched until it is there.
bool MultiProcessSafetyMmapFile::State::SealSave() {
  if (!save.MakeIndex()) return VoidSave(__LINE__);
  Seal seal = {};
  seal.save_number = owner.table.NextSaveNumber();
  seal.superseded = owner.claimed;
  if (!save.WriteIndex(&seal)) return VoidSave(__LINE__);
  owner.table.WriteSeal(owner.record, 1 - owner.in_force, seal);
  owner.in_force = 1 - owner.in_force;
  const bool is_flushed = owner.FlushTable();
  if (!is_flushed) TellSaveFailed(__LINE__);
  const bool has_moved = save.has_moved();
  const ExtentName left = save.ComeIntoForce();
  if (has_moved) FinishMove(left, is_flushed);
  if (owner.claimed != 0) FinishTakeOver();
  is_complete = is_flushed;
  if (is_flushed) told_failure = false;
  if (!is_shrinking && save.IsWasteful()) Shrink();
  return is_flushed;
}

// The extent that it has left is marked and unmapped before the older seal stops naming it: then
// another may use it, or cut the file. One that a seal on the disk may still name is left there:
// whoever looks for room one day sees that its owner has moved.
void MultiProcessSafetyMmapFile::State::FinishMove(ExtentName left, bool is_flushed) {
  owner.table.PutOutOfForce(owner.record, 1 - owner.in_force);
  owner.room.DropReservation(owner.content.extent.name.offset);
  if (left.offset != 0 && is_flushed) owner.room.GiveBack(left);
}

// What was taken over is in this owner's own seal, which says so: it is voided where it came from,
// then the seal stops saying so, and only then may others use those records. Killed on the way,
// whoever opens next finishes it.
void MultiProcessSafetyMmapFile::State::FinishTakeOver() {
  ExtentName voided[kOwners];
  size_t count = 0;
  for (uint32_t other = 1; other <= kOwners; ++other) {
    const OwnerView view = owner.table.View(other);
    if ((owner.claimed & Bit(other)) == 0 || view.in_force < 0) continue;
    voided[count++] = {view.seal().extent_offset, view.seal().extent_epoch};
    owner.table.ReplaceSeal(other, view.in_force, Seal());
  }
  const bool is_flushed = owner.FlushTable();
  Seal seal = owner.table.record(owner.record)->seals[owner.in_force];
  seal.superseded = 0;
  owner.table.ReplaceSeal(owner.record, owner.in_force, seal);
  owner.in_force = 1 - owner.in_force;
  (void)owner.FlushTable();
  UnlockOwners(owner.file, owner.claimed);
  owner.claimed = 0;
  for (size_t i = 0; i < count && is_flushed; ++i) owner.room.GiveBack(voided[i]);
}

// Cuts off the end if that is enough; else after a complete save of the same content, nearer to the
// front or in a smaller extent.
void MultiProcessSafetyMmapFile::State::Shrink() {
  if (save.CutOff()) return;
  const bool was_complete = is_complete;
  const uint64_t extent = owner.content.extent.name.offset;
  is_shrinking = true;
  const bool is_done = save.PlaceAgain() && SealSave();
  if (is_done && owner.content.extent.name.offset == extent) (void)save.CutOff();
  save.Forget();
  is_complete = was_complete;  // Whatever came of it, the content is in force.
  is_shrinking = false;
}

// Both answer false, for who has nothing else to do.
bool MultiProcessSafetyMmapFile::State::TellSaveFailed(int line) {
  const int error = errno;
  if (!told_failure && error == EAGAIN) {
    LocalLog(2, kLogSource, line,
             "cache: cannot save to %s: %s; the content of the last save stays, and the next one "
             "tries again; resume or end that process",
             owner.path.c_str(), owner.room.WhoHasLock().c_str());
  } else if (!told_failure) {
    LogFailure(kLogSource, line, "save to", owner.path, error,
               "the content of the last save stays, and the next one tries again; free some space "
               "on the disk");
  }
  told_failure = true;
  return false;
}

bool MultiProcessSafetyMmapFile::State::VoidSave(int line) {
  TellSaveFailed(line);
  save.Void();
  return false;
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
  if (state_ != nullptr && state_->Open(Claim::kTake)) return true;
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
  if (state_ == nullptr || state_->owner.file.is_orphan()) return false;
  return state_->save.TakeNextOfOld(packet) || state_->Append(packet);
}

bool MultiProcessSafetyMmapFile::IsSaveComplete() const {
  return state_ != nullptr && !state_->owner.file.is_orphan() && state_->is_complete;
}

void MultiProcessSafetyMmapFile::Close() {
  delete state_;
  state_ = nullptr;
}

const char* MultiProcessSafetyMmapFile::ImplementationName() { return "posix"; }

QUENOR_NAMESPACE_END
