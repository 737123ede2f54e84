// Looks at cache files of both kinds. While nobody has the file open, whoever wants to waits until
// it was looked at. Live owners wait for nothing: whatever is read is checked, and what they
// changed meanwhile is read again.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <vector>

#include "quenor_base/platform/cache_file_inspector.h"
#include "services/cache_file_posix/reader.h"
#include "services/cache_shared/file_calls_posix.h"
#include "services/cache_shared/names_posix.h"
#include "services/mmap_file_posix/reader.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using Owner = CacheFileInspector::Owner;
using Result = CacheFileInspector::Result;
using Summary = CacheFileInspector::Summary;
using Visitor = CacheFileInspector::Visitor;
using How = cache_io::Descriptor::How;

constexpr int kMostReadings = 50;  // Of content that its owner keeps changing.
constexpr int kMostRounds = 10;    // Of all owners, while they take over one from another.
constexpr int kWaitMs = 1000;
// A plain file's digests are compared within one reading only.
constexpr uint64_t kDigestKey = 0;

Result Refused(const std::string& what, const std::string& path, int error, std::string* text) {
  *text = "cannot " + what + " " + path + ": " + cache_io::ErrnoText(error);
  if (error == ENOENT) {
    *text += "; give the path of a cache file, such as .../quenor_report/NAME.mmap";
    return Result::kNotFound;
  }
  *text += error == ENOMEM ? "; free some memory" : "; check its permissions and the disk";
  return Result::kUnreadable;
}

Result NotOurs(const std::string& path, uint32_t newer_version, std::string* text) {
  *text = newer_version != 0 ? path + " is of version " + std::to_string(newer_version) +
                                   ", newer than this program; use the program of that version"
                             : path + " is no cache file; give one that ends in .mmap or .cache";
  return Result::kNotOurs;
}

Result NotOpened(const std::string& path, int error, std::string* text) {
  if (error == ENOENT || error == ENOMEM) return Refused("open", path, error, text);
  *text = "cannot open " + path + ": " + cache_io::WhyNotOpened(error);
  const bool is_no_file = error == ELOOP || error == EISDIR || error == ENXIO ||
                          error == cache_io::kNotRegular || error == cache_io::kOpenToAll;
  return is_no_file ? Result::kNotFound : Result::kUnreadable;
}

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// By what it begins with; one that begins with neither, by its name.
bool IsPlain(int fd, const std::string& path) {
  uint64_t magic = 0;
  const int64_t got = cache_io::ReadAt(fd, &magic, sizeof magic, 0);
  if (got == sizeof magic && magic == cache_file::kFileMagic) return true;
  if (got == sizeof magic && magic == mmap_format::kHeaderMagic) return false;
  return EndsWith(path, ".cache");
}

// --- The memory-mapped kind ----------------------------------------------------------------------

// One owner's content, all of one completed save.
class OwnerContent {
 public:
  OwnerContent(int fd, uint32_t number) : fd_(fd) { owner_.number = number; }

  // What the owner's seal in force says. False with errno when it cannot be read.
  [[nodiscard]] bool ReadSealed() {
    for (int reading = 0; reading < kMostReadings; ++reading) {
      mmap_format::Reader reader(fd_);
      if (!reader.Load() || !ReadOnce(reader) || !reader.Load()) return false;
      const mmap_format::OwnerView after = reader.Owner(owner_.number);
      const uint64_t save_number = after.in_force < 0 ? 0 : after.seal().save_number;
      const bool same = save_number == owner_.save_number;
      if (same && (!owner_.live || damage_ == nullptr)) return true;
    }
    return true;  // It is never the same twice: what was read last must do.
  }
  // What a search of a damaged file has found of the owner's, in a file that nobody has open.
  [[nodiscard]] bool ReadFound(const mmap_format::PacketPlace* places, size_t count) {
    mmap_format::Reader reader(fd_);
    for (size_t i = 0; i < count; ++i) {
      if (!AddBody(reader, places[i])) return false;
    }
    return true;
  }
  void SetSaveNumber(uint64_t number) { owner_.save_number = number; }
  void SetDamagedPackets(uint32_t count) { owner_.damaged_packets = count; }

  bool is_there() const {
    return owner_.live || owner_.packets != 0 || owner_.damaged_packets != 0 || damage_ != nullptr;
  }
  const char* damage() const { return damage_; }

  void Tell(Visitor* visitor) const {
    visitor->OnOwner(owner_);
    size_t at = 0;
    for (const uint32_t size : sizes_) {
      visitor->OnPacket(owner_, bodies_.data() + at, size);
      at += size;
    }
  }

 private:
  bool ReadOnce(mmap_format::Reader& reader) {
    const uint32_t number = owner_.number;
    owner_ = Owner();
    owner_.number = number;
    sizes_.Clear();
    bodies_.Clear();
    const mmap_format::OwnerView view = reader.Owner(number);
    damage_ = view.damage;
    const int locked = cache_io::IsLockedByOther(fd_, mmap_format::RecordOffset(number), 1);
    if (locked < 0) return false;
    owner_.live = locked == 1;
    if (view.in_force < 0) return true;
    owner_.save_number = view.seal().save_number;
    if ((reader.SupersededOwners() >> number & 1) != 0) return true;
    mmap_format::PacketPlaces places;
    const char* damage = nullptr;
    if (!reader.ReadContent(number, view.seal(), &places, &damage, &owner_.damaged_packets)) {
      return false;
    }
    if (damage != nullptr) damage_ = damage;
    for (const mmap_format::PacketPlace& place : places) {
      if (!AddBody(reader, place)) return false;
    }
    return true;
  }

  // False with errno.
  bool AddBody(mmap_format::Reader& reader, const mmap_format::PacketPlace& place) {
    if (!reader.ReadBody(place, &body_)) {
      if (errno != EBADMSG) return false;
      damage_ = "a packet";  // Or changed meanwhile: then the seal has changed too.
      ++owner_.damaged_packets;
      return true;
    }
    const size_t before = bodies_.size();
    if (!sizes_.Push(place.length) || !bodies_.Append(body_.data(), body_.size())) {
      errno = ENOMEM;
      return false;
    }
    ++owner_.packets;
    owner_.bytes += bodies_.size() - before;
    return true;
  }

  const int fd_;
  Owner owner_;
  const char* damage_ = nullptr;
  NothrowArray<uint32_t> sizes_;
  NothrowArray<uint8_t> bodies_;
  NothrowArray<uint8_t> body_;
};
using OwnerContents = std::vector<std::unique_ptr<OwnerContent>>;

// Bit n: owner n has content that no other owner's stands for.
uint64_t OwnersWithContent(const mmap_format::Reader& reader) {
  uint64_t owners = 0;
  for (uint32_t number = 1; number <= mmap_format::kOwners; ++number) {
    if (reader.Owner(number).has_content()) owners |= uint64_t{1} << number;
  }
  return owners & ~reader.SupersededOwners();
}

// By what each owner's seal says. False with errno.
bool ReadSealed(int fd, OwnerContents* contents) {
  for (int round = 0; round < kMostRounds; ++round) {
    contents->clear();
    mmap_format::Reader reader(fd);
    if (!reader.Load()) return false;
    const uint64_t before = OwnersWithContent(reader);
    for (uint32_t number = 1; number <= mmap_format::kOwners; ++number) {
      contents->push_back(std::make_unique<OwnerContent>(fd, number));
      if (!contents->back()->ReadSealed()) return false;
    }
    if (!reader.Load()) return false;
    if (OwnersWithContent(reader) == before) return true;
  }
  return true;
}

// What the next Open() will find in a damaged file. What no owner's record names counts as that of
// owner 0. False with errno.
bool ReadFound(int fd, const mmap_format::Reader& reader, const mmap_format::Survey& survey,
               OwnerContents* contents) {
  size_t begin = 0;
  for (size_t group = 0; group < survey.groups.size(); ++group) {
    const mmap_format::Survey::Group& found = survey.groups[group];
    contents->push_back(std::make_unique<OwnerContent>(fd, found.owner));
    OwnerContent& content = *contents->back();
    if (!content.ReadFound(survey.packets.data() + begin, found.end - begin)) return false;
    if (found.owner != 0) {
      const mmap_format::OwnerView view = reader.Owner(found.owner);
      content.SetSaveNumber(view.in_force < 0 ? 0 : view.seal().save_number);
      content.SetDamagedPackets(found.damaged_packets);
    }
    begin = found.end;
  }
  return true;
}

Result InspectMapped(int fd, const std::string& path, Visitor* visitor, Summary* summary,
                     std::string* error) {
  const auto count_live = [fd] {
    return cache_io::IsLockedByOther(fd, mmap_format::RecordOffset(1), mmap_format::kTableSize);
  };
  int live = count_live();
  // Kept until the descriptor is closed. When it is not to be had: somebody opens it just now.
  if (live == 0 && cache_io::WaitSharedLock(fd, 0, 1, kWaitMs)) live = count_live();
  if (live < 0) return Refused("ask for the locks of", path, errno, error);
  mmap_format::Reader reader(fd);
  if (!reader.Load()) return Refused("read", path, errno, error);
  const mmap_format::TableState state = reader.table_state();
  if (state == mmap_format::TableState::kNewer) return NotOurs(path, reader.version(), error);
  summary->mapped = true;
  summary->version = mmap_format::kVersion;
  summary->file_bytes = reader.file_size();
  OwnerContents contents;
  mmap_format::Survey survey;
  if (live == 0 && state != mmap_format::TableState::kFresh) {
    if (!reader.Examine(&survey)) return Refused("read", path, errno, error);
    if (state == mmap_format::TableState::kDamaged && survey.packets.empty() &&
        reader.LargestSaveNumber() == 0) {
      return NotOurs(path, 0, error);
    }
  }
  const bool read = survey.damage == nullptr ? ReadSealed(fd, &contents)
                                             : ReadFound(fd, reader, survey, &contents);
  if (!read) return Refused("read", path, errno, error);
  if (survey.damage != nullptr) summary->damage = survey.damage;
  for (const std::unique_ptr<OwnerContent>& content : contents) {
    if (!content->is_there()) continue;
    if (content->damage() != nullptr && summary->damage.empty()) {
      summary->damage = content->damage();
    }
    if (visitor != nullptr) content->Tell(visitor);
  }
  summary->damaged = !summary->damage.empty();
  return Result::kOk;
}

// --- The plain kind ------------------------------------------------------------------------------

Result ReadPlain(int fd, const std::string& path, cache_file::Content* content,
                 std::string* error) {
  switch (cache_file::ReadContent(fd, kDigestKey, content)) {
    case cache_file::ReadResult::kOk:
      break;
    case cache_file::ReadResult::kNoMemory:
      return Refused("read", path, ENOMEM, error);
    case cache_file::ReadResult::kUnreadable:
      return Refused("read", path, errno, error);
  }
  if (content->kind == cache_file::Content::Kind::kNewer) {
    return NotOurs(path, content->version, error);
  }
  if (content->kind == cache_file::Content::Kind::kForeign) return NotOurs(path, 0, error);
  return Result::kOk;
}

Result TellPlain(int fd, const std::string& path, const Owner& owner,
                 const cache_file::Content& content, Visitor* visitor, std::string* error) {
  visitor->OnOwner(owner);
  for (const cache_file::Packet& packet : content.packets) {
    const std::unique_ptr<uint8_t[]> body(new (std::nothrow) uint8_t[packet.size + size_t{1}]);
    if (body == nullptr) return Refused("read", path, ENOMEM, error);
    const int64_t got = cache_io::ReadAt(fd, body.get(), packet.size,
                                         packet.offset + cache_file::kRecordHeaderSize);
    if (got < 0) return Refused("read", path, errno, error);
    const bool whole = got == packet.size &&
                       cache_file::DigestOf(body.get(), packet.size, kDigestKey) == packet.digest;
    if (whole) visitor->OnPacket(owner, body.get(), packet.size);
  }
  return Result::kOk;
}

Result InspectPlain(int fd, const std::string& path, Visitor* visitor, Summary* summary,
                    std::string* error) {
  cache_file::Content content;
  const Result result = ReadPlain(fd, path, &content, error);
  if (result != Result::kOk) return result;
  uint64_t links;
  if (!cache_io::FileSize(fd, &summary->file_bytes, &links)) {
    return Refused("read", path, errno, error);
  }
  const int live = cache_io::IsLockedByOther(fd, 0, 1);
  if (live < 0) return Refused("ask for the lock of", path, errno, error);
  summary->version = cache_file::kVersion;
  summary->damaged = content.damaged;
  summary->damage = content.damage;
  Owner owner;
  owner.number = 1;
  owner.live = live == 1;
  owner.save_number = content.save_number;
  owner.packets = static_cast<uint32_t>(content.packets.size());
  for (const cache_file::Packet& packet : content.packets) owner.bytes += packet.size;
  owner.damaged_packets = content.damaged_packets;
  if (visitor == nullptr || (!owner.live && owner.packets == 0)) return Result::kOk;
  return TellPlain(fd, path, owner, content, visitor, error);
}

// How many intact packets there are; with the file's locks held, and no owner live.
Result CountPackets(int fd, const std::string& path, bool plain, uint64_t* packets,
                    std::string* error) {
  if (plain) {
    cache_file::Content content;
    const Result result = ReadPlain(fd, path, &content, error);
    *packets = content.packets.size();
    return result;
  }
  mmap_format::Reader reader(fd);
  mmap_format::Survey survey;
  if (!reader.Load()) return Refused("read", path, errno, error);
  const mmap_format::TableState state = reader.table_state();
  if (state == mmap_format::TableState::kNewer) return NotOurs(path, reader.version(), error);
  if (state == mmap_format::TableState::kFresh) return Result::kOk;
  if (!reader.Examine(&survey)) return Refused("read", path, errno, error);
  *packets = survey.packets.size();
  const bool nothing_of_ours = state == mmap_format::TableState::kDamaged && *packets == 0 &&
                               reader.LargestSaveNumber() == 0;
  return nothing_of_ours ? NotOurs(path, 0, error) : Result::kOk;
}

// Until the descriptor is closed. kInUse while an owner is live.
Result LockForPurge(const cache_io::Descriptor& file, const std::string& path, bool plain,
                    std::string* error) {
  const char* const in_use = " is in use by a live owner; end that process first";
  if (!cache_io::WaitLock(file.fd(), 0, 1, plain ? 0 : kWaitMs)) {
    if (errno != EAGAIN) return Refused("lock", path, errno, error);
    *error = path + in_use;
    return Result::kInUse;
  }
  const int live = plain ? 0
                         : cache_io::IsLockedByOther(file.fd(), mmap_format::RecordOffset(1),
                                                     mmap_format::kTableSize);
  if (live < 0) return Refused("ask for the locks of", path, errno, error);
  if (live == 0) return Result::kOk;
  *error = path + in_use;
  return Result::kInUse;
}

}  // namespace

Result CacheFileInspector::Inspect(const base::FilePath& path, Visitor* visitor, Summary* summary,
                                   std::string* error) {
  *summary = Summary();
  cache_io::Descriptor file;
  if (!file.Open(path.value(), How::kReadOnly)) return NotOpened(path.value(), errno, error);
  return IsPlain(file.fd(), path.value())
             ? InspectPlain(file.fd(), path.value(), visitor, summary, error)
             : InspectMapped(file.fd(), path.value(), visitor, summary, error);
}

Result CacheFileInspector::Purge(const base::FilePath& path, uint64_t* packets,
                                 std::string* error) {
  *packets = 0;
  const std::string& name = path.value();
  for (int attempt = 0; attempt < kMostRounds; ++attempt) {
    cache_io::Descriptor file;
    if (!file.Open(name, How::kExisting)) return NotOpened(name, errno, error);
    const bool plain = IsPlain(file.fd(), name);
    const Result locked = LockForPurge(file, name, plain, error);
    if (locked != Result::kOk) return locked;
    // Its owner may have written it anew, under the same name, and gone on there.
    if (!cache_io::IsStillAt(file.fd(), name)) continue;
    const Result counted = CountPackets(file.fd(), name, plain, packets, error);
    if (counted != Result::kOk) return counted;
    // The file goes last: without it, what is beside it would come back as its content. The locks
    // are held until it has no name: whoever waits for them sees that it is gone.
    std::string beside;
    if (!cache_io::RemoveBeside(name, &beside)) return Refused("remove", beside, errno, error);
    if (unlink(name.c_str()) != 0) return Refused("remove", name, errno, error);
    return Result::kOk;
  }
  *error = name + " is replaced again and again; end what does that first";
  return Result::kInUse;
}

QUENOR_NAMESPACE_END
