// The plain cache file as a journal: a packet is written once, a save is a list of packet numbers
// that is written when the save is complete. What recovery finds after the last such list counts
// too. How and why: docs/design/cache-file.md. The bytes: docs/formats/cache-file.md.
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <new>
#include <string>
#include <utility>

#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/reliable_report_cache_file.h"
#include "services/cache_file_posix/journal.h"
#include "services/cache_file_posix/reader.h"
#include "services/cache_file_posix/rewrite.h"
#include "services/cache_file_posix/save.h"
#include "services/cache_shared/file_calls_posix.h"
#include "services/cache_shared/names_posix.h"
#include "services/cache_shared/nothrow_array.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using cache_file::Base;
using cache_file::Content;
using cache_file::FailureLog;
using cache_file::Fresh;
using cache_file::Journal;
using cache_file::kHeaderSize;
using cache_file::kRecordHeaderSize;
using cache_file::Packet;
using cache_file::ReadResult;
using cache_file::Run;
using cache_file::Save;
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
  explicit State(std::string path_in) : path(std::move(path_in)) {}

  // --- Opening
  [[gnu::cold]] bool Open();
  enum class Taken { kYes, kAgain, kNo };
  [[gnu::cold]] Taken TakeFile();
  [[gnu::cold]] Taken TakeExisting();
  [[gnu::cold]] Taken TakeRecovered();
  [[gnu::cold]] Taken TakeNew();
  [[gnu::cold]] Taken Refuse(const char* what, const std::string& which, const std::string& why);
  [[gnu::cold]] bool Lock(const std::string& at, Taken* taken);
  [[gnu::cold]] bool ReadOrRepair();
  bool SyncAll();
  [[gnu::cold]] bool SetAside(const Content& content, const char* why);

  // --- Saving
  bool Begin();
  bool Add(const DataPacket& packet);
  void Finish();
  bool Complete();
  bool CheckFile();
  bool IsTooLong() const;

  // --- A new file in place of this one
  [[gnu::cold]] bool Rewrite();
  [[gnu::cold]] bool WriteFresh(const NothrowArray<Packet>& from, uint64_t number, Fresh* fresh);
  [[gnu::cold]] void Adopt(Fresh* fresh);

  [[gnu::cold]] DataPacket Read();

  const std::string path;
  const std::string recovered_path = cache_io::RecoveredPath(path);
  const uint64_t digest_key = RandomKey();
  Journal journal;
  Descriptor& file = journal.file;
  Base base;
  FailureLog failures{path};
  Save save{journal, base, failures, digest_key};

  bool is_displaced = false;      // Nobody finds this file at `path` any more.
  bool must_rewrite = false;      // What is in the file cannot be relied on.
  uint64_t no_rewrite_below = 0;  // Bytes; after one that failed.
  Fresh spare;                    // Keeps its memory from one rewrite to the next.

  bool reading = false;
  size_t next_to_read = 0;
  NothrowArray<uint8_t> read_bytes;  // What GetNextDataPacket() gave out.
  bool refuses_saves = false;
};

// --- Opening -------------------------------------------------------------------------------------

bool ReliableReportCacheFile::State::Open() {
  const std::string refusal = cache_io::WhyPathIsRefused(path);
  if (!refusal.empty()) {
    LocalLog(2, kLogSource, __LINE__, "cache: will not open \"%s\": %s", path.c_str(),
             refusal.c_str());
    return false;
  }
  journal.durability = cache_io::ConfiguredDurability();
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

// True when the lock was taken and the file is still the one at that path. Else *taken
// says what to do.
bool ReliableReportCacheFile::State::Lock(const std::string& at, Taken* taken) {
  if (!cache_io::WaitLock(file.fd(), 0, 1, kForkWaitMs)) {
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
  return cache_io::IsStillAt(file.fd(), at);
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
  if (!Lock(path, &taken)) return taken;
  // A rewrite that was killed. Only the owner of `path` has anything to do under this name.
  unlink(recovered_path.c_str());
  return Taken::kYes;
}

auto ReliableReportCacheFile::State::TakeRecovered() -> Taken {
  Taken taken;
  if (!Lock(recovered_path, &taken)) return taken;
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
  return Lock(path, &taken) ? Taken::kYes : taken;
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
    base.sealed = true;
    if (journal.Begin() && SyncAll()) return true;
    Refuse("begin", path, cache_io::ErrnoText(errno));
    return false;
  }
  journal.SetSaveNumber(content.save_number);
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
  journal.GoOn(content);
  base.sealed = !content.has_tail;
  base.Adopt(&content.packets);
  if (SyncAll()) return true;
  Refuse("get to the disk", path, cache_io::ErrnoText(errno));
  return false;
}

// With kOnDisk, what a former owner may have left on its way to the disk; later saves rely on it.
bool ReliableReportCacheFile::State::SyncAll() {
  return journal.durability != Durability::kOnDisk ||
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
  if (done && journal.durability == Durability::kOnDisk) done = cache_io::SyncFolderOf(path);
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
  if (!reading || next_to_read >= base.packets.size()) return {};
  const Packet& packet = base.packets[next_to_read++];
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
  save.End();
  save.Void();  // Appends are refused unless all of this succeeds.
  return !refuses_saves && Complete() && save.Begin();
}

bool ReliableReportCacheFile::State::Add(const DataPacket& packet) {
  bool not_on_disk = false;
  const bool added = save.Add(packet.data, packet.size, &not_on_disk);
  must_rewrite = must_rewrite || not_on_disk;
  return added;
}

// Makes `base` a completed save in the file, and the file no longer than it may be.
bool ReliableReportCacheFile::State::Complete() {
  if (!CheckFile()) return false;
  if ((must_rewrite || IsTooLong()) && Rewrite()) return true;
  if (must_rewrite) return false;
  base.sealed = base.sealed || save.Seal(base.packets);
  return base.sealed;
}

void ReliableReportCacheFile::State::Finish() {
  if (!save.is_begun()) return;
  save.End();
  if (!Complete() || journal.durability != Durability::kOnDisk) return;
  if (!cache_io::SyncFile(file.fd())) failures.Tell("get to the disk", errno);
}

bool ReliableReportCacheFile::State::IsTooLong() const {
  const uint64_t live = kHeaderSize + base.bytes + kRecordHeaderSize + sizeof(Run);
  return journal.end() > std::max({kSizeFloorBytes, kSizeMultiple * live, no_rewrite_below});
}

// Others may delete, replace or shorten the file. False when it cannot even be asked.
bool ReliableReportCacheFile::State::CheckFile() {
  uint64_t size;
  const cache_io::Name name = cache_io::AskName(file.fd(), path, &size);
  if (name == cache_io::Name::kUnknown) {
    failures.Tell("look at", errno);
    return false;
  }
  const bool was_well = !must_rewrite;
  is_displaced = name != cache_io::Name::kOurs;  // It may be back.
  if (is_displaced) {
    must_rewrite = true;
  } else if (size < journal.end()) {
    must_rewrite = true;
  } else {
    journal.NoteSize(size);
  }
  if (was_well && must_rewrite) {
    LocalLog(2, kLogSource, __LINE__, "cache: %s was %s by somebody else; it is written anew",
             path.c_str(), is_displaced ? "removed or replaced" : "shortened");
  }
  return true;
}

// --- A new file in place of this one -------------------------------------------------------------

// Writes what `base` holds to a new file, as a completed save, and renames that to `path`. On false
// this file stays in use.
bool ReliableReportCacheFile::State::Rewrite() {
  Fresh& fresh = spare;
  bool done = WriteFresh(base.packets, journal.save_number() + 1, &fresh);
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
    failures.Tell("write anew", errno);
    fresh.file.Close();
    no_rewrite_below = journal.end() + journal.end() / 4;
    return false;
  }
  if (fresh.lost > 0) {
    LocalLog(2, kLogSource, __LINE__,
             "cache: %" PRIu64
             " packets of %s could not be read any more; only the next save "
             "brings them back",
             fresh.lost, path.c_str());
  }
  journal.SetSaveNumber(journal.save_number() + 1);
  Adopt(&fresh);
  if (journal.durability == Durability::kOnDisk && !cache_io::SyncFolderOf(path)) {
    failures.Tell("get to the disk", errno);
    must_rewrite = true;
    return false;
  }
  return true;
}

bool ReliableReportCacheFile::State::WriteFresh(const NothrowArray<Packet>& from, uint64_t number,
                                                Fresh* fresh) {
  return fresh->Write(recovered_path, journal.durability == Durability::kOnDisk,
                      {file.fd(), digest_key, from, number}, &journal.batch());
}

void ReliableReportCacheFile::State::Adopt(Fresh* fresh) {
  journal.Adopt(fresh);
  base.Adopt(&fresh->packets);
  base.sealed = true;
  failures.Forget();
  is_displaced = must_rewrite = false;
  no_rewrite_below = 0;
}

// --- The class -----------------------------------------------------------------------------------

ReliableReportCacheFile::ReliableReportCacheFile() : state_(nullptr) {}

ReliableReportCacheFile::~ReliableReportCacheFile() { Close(); }

[[gnu::cold]] bool ReliableReportCacheFile::Open(const base::FilePath& path) {
  Close();
  State* const state = new (std::nothrow) State(path.value());
  if (state == nullptr) {
    LocalLog(2, kLogSource, __LINE__, "cache: cannot open %s: no memory", path.value().c_str());
    return false;
  }
  if (!state->Open()) {
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
  return state_ != nullptr && state_->file.is_open() && state_->save.IsComplete();
}

void ReliableReportCacheFile::Close() {
  if (state_ != nullptr && state_->file.is_open()) state_->Finish();
  delete state_;
  state_ = nullptr;
}

const char* ReliableReportCacheFile::ImplementationName() { return "posix"; }

QUENOR_NAMESPACE_END
