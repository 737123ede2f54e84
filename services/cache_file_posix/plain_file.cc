// The plain cache file as a journal: a packet is written once, a save is a list of packet numbers
// that is written when the save is complete. What recovery finds after the last such list counts
// too. How and why: docs/design/cache-file.md. The bytes: docs/formats/cache-file.md.
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/reliable_report_cache_file.h"
#include "services/cache_file_posix/batch.h"
#include "services/cache_file_posix/format.h"
#include "services/cache_file_posix/packet_index.h"
#include "services/cache_file_posix/reader.h"
#include "services/cache_file_posix/rewrite.h"
#include "services/cache_shared/file_calls_posix.h"
#include "services/cache_shared/names_posix.h"
#include "services/cache_shared/nothrow_array.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using cache_file::Batch;
using cache_file::Content;
using cache_file::Digest;
using cache_file::FileHeader;
using cache_file::Fresh;
using cache_file::kCopyLimitBytes;
using cache_file::kHeaderSize;
using cache_file::kNoPosition;
using cache_file::kRecordHeaderSize;
using cache_file::Packet;
using cache_file::PacketIndex;
using cache_file::ReadResult;
using cache_file::Run;
using cache_io::Descriptor;
using cache_io::Durability;

constexpr char kLogSource[] = "services/cache_file_posix/plain_file";
// The file is written anew when it is longer than this and than kSizeMultiple times what a new one
// would hold.
constexpr uint64_t kSizeFloorBytes = 64 * 1024;
constexpr uint64_t kSizeMultiple = 4;
// How often Open() starts again because others create, replace and rename the file meanwhile.
constexpr int kOpenTries = 64;
// How long a lock is waited for. A child that a dead owner forked has it until fork() is over
// there.
constexpr int kForkWaitMs = 200;

uint64_t RandomKey() {
  uint64_t key = 0;
  if (getrandom(&key, sizeof key, GRND_NONBLOCK) != sizeof key) {
    key = reinterpret_cast<uintptr_t>(&key) * 0x9e3779b97f4a7c15;
  }
  return key;
}

}  // namespace

// --- What an open file is ------------------------------------------------------------------------

struct ReliableReportCacheFile::State {
  ~State() {
    // By hand: a child that is being forked has the descriptor until its fork() returns.
    if (file.is_open()) cache_io::Unlock(file.fd(), 0, 1);
  }

  // --- Opening
  [[gnu::cold]] bool Open(const base::FilePath& file_path);
  enum class Taken { kYes, kAgain, kNo };
  [[gnu::cold]] Taken TakeFile();
  [[gnu::cold]] Taken TakeExisting();
  [[gnu::cold]] Taken TakeRecovered();
  [[gnu::cold]] Taken TakeNew();
  [[gnu::cold]] Taken Refuse(const char* what, const std::string& which, const std::string& why);
  [[gnu::cold]] bool Lock(const Descriptor& descriptor, const std::string& at, Taken* taken);
  [[gnu::cold]] bool ReadOrRepair();
  [[gnu::cold]] bool WriteFileHeader();
  bool SyncAll();
  [[gnu::cold]] bool SetAside(const Content& content, const char* why);
  [[gnu::cold]] void AdoptBase(NothrowArray<Packet>* packets);

  // --- Saving
  bool Begin();
  bool Add(const DataPacket& packet);
  bool IsSaveComplete();
  void Finish();
  void EndSave();
  [[gnu::cold]] void KeepWhatWasWritten();
  bool Complete();
  bool CheckFile();
  bool Seal(const NothrowArray<Packet>& packets);
  bool CutTail();
  bool WriteOrder();
  bool WritePacket(const DataPacket& packet, const Digest& digest);
  bool WriteRecords(const DataPacket* packet);
  bool MakeDurable(uint64_t begin);
  bool IsTooLong() const;

  // --- A new file in place of this one
  [[gnu::cold]] bool Rewrite();
  [[gnu::cold]] bool WriteFresh(const NothrowArray<Packet>& from, uint64_t number, Fresh* fresh);
  [[gnu::cold]] void Adopt(Fresh* fresh);

  [[gnu::cold]] DataPacket Read();
  [[gnu::cold]] void LogFailure(const char* what, int error);

  std::string path;
  std::string recovered_path;
  Descriptor file;
  Durability durability = Durability::kProcess;
  uint64_t digest_key = 0;

  uint64_t end = 0;               // Where the next record goes.
  bool has_litter = false;        // There may be bytes behind `end`, to be cut off before a write.
  bool is_displaced = false;      // Nobody finds this file at `path` any more.
  bool must_rewrite = false;      // What is in the file cannot be relied on.
  uint64_t no_rewrite_below = 0;  // Bytes; after one that failed.
  uint64_t last_number = 0;
  uint64_t save_number = 0;

  // What a recovery would now yield, less the save under way.
  NothrowArray<Packet> base;
  uint64_t base_bytes = 0;   // Of its records.
  bool base_sealed = false;  // As one save, in the file.
  PacketIndex index;         // Over `base`.

  enum class Save { kNone, kOpen, kComplete, kVoid };
  Save save = Save::kNone;
  NothrowArray<Packet> saved;  // Of the save under way.
  uint64_t saved_bytes = 0;
  uint64_t first_new_number = 0;  // From it on packets were written by the save under way.
  size_t in_file = 0;             // So many of `saved` are named in the file, in their order.
  uint32_t last_position = 0;     // In `base`, of the last one that is not.

  bool reading = false;
  size_t next_to_read = 0;
  NothrowArray<uint8_t> read_bytes;  // What GetNextDataPacket() gave out.
  bool refuses_saves = false;

  Batch batch;
  Fresh spare;  // Keeps its memory from one rewrite to the next.
  bool failure_logged = false;
  int logged_error = 0;
};

// One line for a row of failures with one cause: a full disk fails at every save.
void ReliableReportCacheFile::State::LogFailure(const char* what, int error) {
  if (failure_logged && logged_error == error) return;
  failure_logged = true;
  logged_error = error;
  LocalLog(2, kLogSource, __LINE__, "cache: cannot %s %s: %s; its old content stays", what,
           path.c_str(), cache_io::ErrnoText(error).c_str());
}

// --- Opening -------------------------------------------------------------------------------------

bool ReliableReportCacheFile::State::Open(const base::FilePath& file_path) {
  path = file_path.value();
  recovered_path = cache_io::RecoveredPath(path);
  const std::string refusal = cache_io::WhyPathIsRefused(path);
  if (!refusal.empty()) {
    LocalLog(2, kLogSource, __LINE__, "cache: will not open \"%s\": %s", path.c_str(),
             refusal.c_str());
    return false;
  }
  durability = cache_io::ConfiguredDurability();
  digest_key = RandomKey();
  for (int i = 0; i < kOpenTries; ++i) {
    switch (TakeFile()) {
      case Taken::kYes:
        return ReadOrRepair();
      case Taken::kNo:
        return false;
      case Taken::kAgain:
        file.Close();
        break;
    }
  }
  LocalLog(2, kLogSource, __LINE__, "cache: cannot open %s: others keep replacing it",
           path.c_str());
  return false;
}

auto ReliableReportCacheFile::State::Refuse(const char* what, const std::string& which,
                                            const std::string& why) -> Taken {
  LocalLog(2, kLogSource, __LINE__, "cache: cannot %s %s: %s", what, which.c_str(), why.c_str());
  return Taken::kNo;
}

// True when the descriptor has the lock and the file is still the one at that path. Else *taken
// says what to do.
bool ReliableReportCacheFile::State::Lock(const Descriptor& descriptor, const std::string& at,
                                          Taken* taken) {
  if (!cache_io::WaitLock(descriptor.fd(), 0, 1, kForkWaitMs)) {
    if (errno == EAGAIN) {
      LocalLog(2, kLogSource, __LINE__,
               "cache: cannot open %s: another owner has it open; use another channel name or "
               "another folder",
               path.c_str());
      *taken = Taken::kNo;
    } else {
      *taken = Refuse("lock", at, cache_io::ErrnoText(errno));
    }
    return false;
  }
  *taken = Taken::kAgain;
  return cache_io::IsStillAt(descriptor.fd(), at);
}

auto ReliableReportCacheFile::State::TakeFile() -> Taken {
  if (file.Open(path, Descriptor::How::kExisting)) return TakeExisting();
  if (errno != ENOENT) return Refuse("open", path, cache_io::WhyNotOpened(errno));
  // Killed between the two renames of SetAside(): the content is under the other name.
  if (cache_io::OpenRecovered(path, &file)) return TakeRecovered();
  if (errno != ENOENT) return Refuse("open", recovered_path, cache_io::WhyNotOpened(errno));
  return TakeNew();
}

auto ReliableReportCacheFile::State::TakeExisting() -> Taken {
  Taken taken;
  if (!Lock(file, path, &taken)) return taken;
  // A rewrite that was killed. Only the owner of `path` has anything to do under this name.
  unlink(recovered_path.c_str());
  return Taken::kYes;
}

auto ReliableReportCacheFile::State::TakeRecovered() -> Taken {
  Taken taken;
  if (!Lock(file, recovered_path, &taken)) return taken;
  if (!cache_io::RenameToFree(recovered_path, path)) {
    return errno == EEXIST || errno == ENOENT
               ? Taken::kAgain
               : Refuse("rename", recovered_path, cache_io::ErrnoText(errno));
  }
  return Taken::kYes;
}

auto ReliableReportCacheFile::State::TakeNew() -> Taken {
  if (!file.Open(path, Descriptor::How::kCreate)) {
    return errno == EEXIST ? Taken::kAgain : Refuse("create", path, cache_io::ErrnoText(errno));
  }
  Taken taken;
  return Lock(file, path, &taken) ? Taken::kYes : taken;
}

bool ReliableReportCacheFile::State::ReadOrRepair() {
  Content content;
  const ReadResult result = cache_file::ReadContent(file.fd(), digest_key, &content);
  if (result != ReadResult::kOk) {
    Refuse("read", path, cache_io::ErrnoText(result == ReadResult::kNoMemory ? ENOMEM : errno));
    return false;
  }
  reading = true;
  if (content.kind == Content::Kind::kNew) {
    if (WriteFileHeader()) return true;
    Refuse("begin", path, cache_io::ErrnoText(errno));
    return false;
  }
  save_number = content.save_number;
  if (content.kind == Content::Kind::kNewer) {
    char why[64];
    std::snprintf(why, sizeof why, "is of version %" PRIu32 ", newer than this library's %" PRIu32,
                  content.version, cache_file::kVersion);
    return SetAside(content, why);
  }
  if (content.damaged) {
    char why[sizeof content.damage + 32];
    std::snprintf(why, sizeof why, "%s (%s)",
                  content.kind == Content::Kind::kForeign ? "is no cache file" : "was damaged",
                  content.damage);
    return SetAside(content, why);
  }
  end = content.end;
  has_litter = true;
  last_number = content.last_number;
  base_sealed = !content.has_tail;
  AdoptBase(&content.packets);
  if (SyncAll()) return true;
  Refuse("get to the disk", path, cache_io::ErrnoText(errno));
  return false;
}

void ReliableReportCacheFile::State::AdoptBase(NothrowArray<Packet>* packets) {
  base.swap(*packets);
  base_bytes = 0;
  for (const Packet& packet : base) base_bytes += kRecordHeaderSize + packet.size;
}

bool ReliableReportCacheFile::State::WriteFileHeader() {
  const FileHeader header = cache_file::MakeFileHeader();
  if (!cache_io::Truncate(file.fd(), 0) ||
      !cache_io::WriteAt(file.fd(), &header, sizeof header, 0)) {
    return false;
  }
  end = kHeaderSize;
  base_sealed = true;
  return SyncAll();
}

// With kOnDisk, what a former owner may have left on its way to the disk; later saves rely on it.
bool ReliableReportCacheFile::State::SyncAll() {
  return durability != Durability::kOnDisk ||
         (cache_io::SyncFile(file.fd()) && cache_io::SyncFolderOf(path));
}

// The repaired content is complete under another name before the file as it was makes room for it.
bool ReliableReportCacheFile::State::SetAside(const Content& content, const char* why) {
  Fresh fresh;
  if (!WriteFresh(content.packets, content.save_number, &fresh)) {
    LocalLog(2, kLogSource, __LINE__, "cache: %s %s and cannot be repaired: %s; it stays as it is",
             path.c_str(), why, cache_io::ErrnoText(errno).c_str());
    return false;
  }
  std::string aside;
  if (!cache_io::SetAside(path, &aside)) {
    unlink(recovered_path.c_str());
    LocalLog(2, kLogSource, __LINE__, "cache: %s %s and cannot be set aside: %s", path.c_str(), why,
             aside.c_str());
    return false;
  }
  // Somebody else may make the second step, or the next Open(); see TakeRecovered().
  bool done = cache_io::Rename(recovered_path, path) ||
              (errno == ENOENT && cache_io::IsStillAt(fresh.file.fd(), path));
  if (done && durability == Durability::kOnDisk) done = cache_io::SyncFolderOf(path);
  if (!done) {
    LocalLog(2, kLogSource, __LINE__,
             "cache: %s %s and was set aside as %s, but its content cannot take its place: %s; the "
             "next start tries again",
             path.c_str(), why, aside.c_str(), cache_io::ErrnoText(errno).c_str());
    return false;
  }
  LocalLog(2, kLogSource, __LINE__,
           "cache: %s %s; %zu intact packets were kept, %" PRIu32
           " known ones were not; the file as it was is now %s",
           path.c_str(), why, fresh.packets.size(), content.damaged_packets, aside.c_str());
  Adopt(&fresh);
  return true;
}

// --- Reading -------------------------------------------------------------------------------------

auto ReliableReportCacheFile::State::Read() -> DataPacket {
  if (!reading || next_to_read >= base.size()) return {};
  const Packet& packet = base[next_to_read++];
  if (packet.size == 0) return {};
  read_bytes.Clear();
  bool intact = false;
  const char* why = "no memory";
  if (read_bytes.Reserve(packet.size)) {
    const int64_t got = cache_io::ReadAt(file.fd(), read_bytes.data(), packet.size,
                                         packet.offset + kRecordHeaderSize);
    intact = got == int64_t{packet.size} &&
             cache_file::DigestOf(read_bytes.data(), packet.size, digest_key) == packet.digest;
    why = got < 0 ? "the disk failed" : "it was changed since the file was opened";
  }
  if (intact) return {read_bytes.data(), packet.size};
  LocalLog(2, kLogSource, __LINE__,
           "cache: cannot read packet %zu of %s (%" PRIu32
           " bytes): %s; nothing is saved until it is opened again",
           next_to_read, path.c_str(), packet.size, why);
  refuses_saves = true;
  reading = false;
  return {};
}

// --- Saving --------------------------------------------------------------------------------------

bool ReliableReportCacheFile::State::Begin() {
  reading = false;
  EndSave();
  // Appends are refused unless all of this succeeds.
  save = Save::kVoid;
  saved.Clear();
  saved_bytes = 0;
  if (refuses_saves || !Complete()) return false;
  if (!index.Build(base)) {
    LogFailure("begin a save in", ENOMEM);
    return false;
  }
  first_new_number = last_number + 1;
  in_file = 0;
  save = Save::kOpen;
  return true;
}

// Makes `base` a completed save in the file, and the file no longer than it may be.
bool ReliableReportCacheFile::State::Complete() {
  if (!CheckFile()) return false;
  if ((must_rewrite || IsTooLong()) && Rewrite()) return true;
  if (must_rewrite) return false;
  base_sealed = base_sealed || Seal(base);
  return base_sealed;
}

// Sealed here, and not by the next Clear() only: until it is, a start brings back what it dropped.
bool ReliableReportCacheFile::State::IsSaveComplete() {
  if (save == Save::kOpen && Seal(saved)) {
    EndSave();
    base_sealed = true;
    save = Save::kComplete;
  }
  return save == Save::kNone || save == Save::kComplete;
}

void ReliableReportCacheFile::State::Finish() {
  if (save != Save::kOpen && save != Save::kComplete) return;
  EndSave();
  if (!Complete() || durability != Durability::kOnDisk) return;
  if (!cache_io::SyncFile(file.fd())) LogFailure("get to the disk", errno);
}

// The save under way, if there is one, becomes what a recovery has to yield. One that is complete
// has.
void ReliableReportCacheFile::State::EndSave() {
  if (save == Save::kOpen) {
    base.swap(saved);
    base_bytes = saved_bytes;
    base_sealed = false;
  } else if (save == Save::kVoid) {
    KeepWhatWasWritten();
  }
}

// Packets of a void save are in the file, and their senders were told so.
void ReliableReportCacheFile::State::KeepWhatWasWritten() {
  for (const Packet& packet : saved) {
    if (packet.number < first_new_number) continue;
    // Without memory they stay in the file, and are only written once more by the next save.
    if (!base.Push(packet)) return;
    base_bytes += kRecordHeaderSize + packet.size;
  }
}

bool ReliableReportCacheFile::State::IsTooLong() const {
  const uint64_t live = kHeaderSize + base_bytes + kRecordHeaderSize + sizeof(Run);
  return end > std::max({kSizeFloorBytes, kSizeMultiple * live, no_rewrite_below});
}

// Others may delete, replace or shorten the file. False when it cannot even be asked.
bool ReliableReportCacheFile::State::CheckFile() {
  uint64_t size;
  const cache_io::Name name = cache_io::AskName(file.fd(), path, &size);
  if (name == cache_io::Name::kUnknown) {
    LogFailure("look at", errno);
    return false;
  }
  const bool was_well = !must_rewrite;
  is_displaced = name != cache_io::Name::kOurs;  // It may be back.
  if (is_displaced) {
    must_rewrite = true;
  } else if (size < end) {
    must_rewrite = true;
  } else if (size > end) {
    has_litter = true;
  }
  if (was_well && must_rewrite) {
    LocalLog(2, kLogSource, __LINE__, "cache: %s was %s by somebody else; it is written anew",
             path.c_str(), is_displaced ? "removed or replaced" : "shortened");
  }
  return true;
}

bool ReliableReportCacheFile::State::CutTail() {
  if (!has_litter) return true;
  if (!cache_io::Truncate(file.fd(), end)) return false;
  has_litter = false;
  return true;
}

// Makes these packets a completed save in the file.
bool ReliableReportCacheFile::State::Seal(const NothrowArray<Packet>& packets) {
  batch.Start(end);
  const bool made =
      batch.AddNames(cache_file::kSealMagic, save_number + 1, packets.begin(), packets.end());
  if (!made) errno = ENOMEM;
  if (!made || !WriteRecords(nullptr)) {
    LogFailure("complete the save in", errno);
    return false;
  }
  ++save_number;
  failure_logged = false;
  return true;
}

bool ReliableReportCacheFile::State::Add(const DataPacket& packet) {
  if (save != Save::kOpen) return false;
  save = Save::kVoid;  // Unless it succeeds.
  if (packet.data == nullptr && packet.size > 0) return false;
  if (!saved.Reserve(saved.size() + 1)) {
    LogFailure("save to", ENOMEM);
    return false;
  }
  const Digest digest = cache_file::DigestOf(packet.data, packet.size, digest_key);
  const uint32_t position = index.Take(base, digest, packet.size);
  if (position == kNoPosition) {
    if (!WritePacket(packet, digest)) return false;
  } else {
    // A recovery puts what is not named behind what is, in the order of `base`.
    const bool breaks_order = in_file < saved.size() && position < last_position;
    if (breaks_order && !WriteOrder()) return false;
    last_position = position;
    static_cast<void>(saved.Push(base[position]));
  }
  saved_bytes += kRecordHeaderSize + packet.size;
  save = Save::kOpen;
  return true;
}

bool ReliableReportCacheFile::State::WriteOrder() {
  batch.Start(end);
  const bool made = batch.AddNames(cache_file::kOrderMagic, save_number + 1,
                                   saved.begin() + in_file, saved.end());
  if (!made) errno = ENOMEM;
  if (!made || !WriteRecords(nullptr)) {
    LogFailure("save to", errno);
    return false;
  }
  in_file = saved.size();
  return true;
}

bool ReliableReportCacheFile::State::WritePacket(const DataPacket& packet, const Digest& digest) {
  batch.Start(end);
  bool made = in_file == saved.size() || batch.AddNames(cache_file::kOrderMagic, save_number + 1,
                                                        saved.begin() + in_file, saved.end());
  const uint64_t offset = batch.end();
  made = made && batch.AddPacketHeader(last_number + 1, packet.size,
                                       cache_file::BodyCheckOf(packet.data, packet.size, offset));
  if (!made) errno = ENOMEM;
  const uint64_t begin = end;
  if (!made || !WriteRecords(&packet)) {
    LogFailure("save to", errno);
    return false;
  }
  ++last_number;
  // There is room: Add() made it.
  static_cast<void>(saved.Push(Packet{last_number, offset, packet.size, false, digest}));
  in_file = saved.size();
  if (!MakeDurable(begin)) {
    LogFailure("get to the disk", errno);
    must_rewrite = true;  // The system may have dropped what it could not write.
    return false;
  }
  return true;
}

// Writes the batch and the bytes of `packet`, which may be null, at `end` and moves it. On false,
// with errno, nothing that counts is there.
bool ReliableReportCacheFile::State::WriteRecords(const DataPacket* packet) {
  if (!CutTail()) return false;
  const uint32_t size = packet != nullptr ? packet->size : 0;
  const bool copied = size <= kCopyLimitBytes;
  if (copied && size > 0 && !batch.Add(packet->data, size)) {
    errno = ENOMEM;
    return false;
  }
  bool written = batch.Write(file.fd());
  if (written && !copied) {
    written = cache_io::WriteAt(file.fd(), packet->data, size, batch.end());
  }
  if (!written) {
    const int error = errno;
    has_litter = true;
    static_cast<void>(CutTail());  // Else before the next write.
    errno = error;
    return false;
  }
  end = batch.end() + (copied ? 0 : size);
  return true;
}

// What was written from `begin` on. With kOnDisk this takes what was written before with it.
bool ReliableReportCacheFile::State::MakeDurable(uint64_t begin) {
  if (durability == Durability::kOnDisk) return cache_io::SyncFile(file.fd());
  if (durability == Durability::kStarted) {
    // Advice only: nobody was promised that it arrives.
    sync_file_range(file.fd(), static_cast<off_t>(begin), static_cast<off_t>(end - begin),
                    SYNC_FILE_RANGE_WRITE);
  }
  return true;
}

// --- A new file in place of this one -------------------------------------------------------------

// Writes what `base` holds to a new file, as a completed save, and renames that to `path`. On false
// this file stays in use.
bool ReliableReportCacheFile::State::Rewrite() {
  Fresh& fresh = spare;
  bool done = WriteFresh(base, save_number + 1, &fresh);
  if (done) {
    done = is_displaced ? cache_io::RenameToFree(recovered_path, path)
                        : cache_io::Rename(recovered_path, path);
    if (!done) {
      const int error = errno;
      unlink(recovered_path.c_str());
      errno = error;
    }
  }
  if (!done) {
    LogFailure("write anew", errno);
    fresh.file.Close();
    no_rewrite_below = end + end / 4;
    return false;
  }
  if (fresh.lost > 0) {
    LocalLog(2, kLogSource, __LINE__,
             "cache: %" PRIu64
             " packets of %s could not be read any more; only the next save "
             "brings them back",
             fresh.lost, path.c_str());
  }
  ++save_number;
  Adopt(&fresh);
  if (durability == Durability::kOnDisk && !cache_io::SyncFolderOf(path)) {
    LogFailure("get to the disk", errno);
    must_rewrite = true;
    return false;
  }
  return true;
}

bool ReliableReportCacheFile::State::WriteFresh(const NothrowArray<Packet>& from, uint64_t number,
                                                Fresh* fresh) {
  return fresh->Write(recovered_path, durability == Durability::kOnDisk,
                      {file.fd(), digest_key, from, number}, &batch);
}

void ReliableReportCacheFile::State::Adopt(Fresh* fresh) {
  file.swap(fresh->file);
  fresh->file.Close();
  AdoptBase(&fresh->packets);
  end = fresh->end;
  last_number = base.size();
  base_sealed = true;
  failure_logged = false;
  has_litter = is_displaced = must_rewrite = false;
  no_rewrite_below = 0;
}

// --- The class -----------------------------------------------------------------------------------

ReliableReportCacheFile::ReliableReportCacheFile() : state_(nullptr) {}

ReliableReportCacheFile::~ReliableReportCacheFile() { Close(); }

[[gnu::cold]] bool ReliableReportCacheFile::Open(const base::FilePath& path) {
  Close();
  State* const state = new (std::nothrow) State;
  if (state == nullptr) {
    LocalLog(2, kLogSource, __LINE__, "cache: cannot open %s: no memory", path.value().c_str());
    return false;
  }
  if (!state->Open(path)) {
    delete state;
    return false;
  }
  state_ = state;
  return true;
}

// In a forked child state_->file is not open, and nothing below does anything.

ReliableReportCacheFile::DataPacket ReliableReportCacheFile::GetNextDataPacket() {
  return state_ != nullptr && state_->file.is_open() ? state_->Read() : DataPacket();
}

bool ReliableReportCacheFile::Clear() {
  return state_ != nullptr && state_->file.is_open() && state_->Begin();
}

bool ReliableReportCacheFile::AppendDataPacket(const DataPacket& packet) {
  return state_ != nullptr && state_->file.is_open() && state_->Add(packet);
}

bool ReliableReportCacheFile::IsSaveComplete() const {
  return state_ != nullptr && state_->file.is_open() && state_->IsSaveComplete();
}

void ReliableReportCacheFile::Close() {
  if (state_ != nullptr && state_->file.is_open()) state_->Finish();
  delete state_;
  state_ = nullptr;
}

const char* ReliableReportCacheFile::ImplementationName() { return "posix"; }

QUENOR_NAMESPACE_END
