#include "services/mmap_file_posix/repair.h"

#include <unistd.h>

#include <cerrno>

#include "quenor_base/platform/local_log.h"
#include "services/cache_shared/names_posix.h"
#include "services/mmap_file_posix/messages.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {
namespace {

constexpr char kLogSource[] = "services/mmap_file_posix/repair";

bool WriteRecovered(const std::string& recovered, const Survey& survey, Reader& reader,
                    ContentWriter write) {
  {
    cache_io::Descriptor emptied;
    if (!cache_io::CreateRecovered(recovered, &emptied)) return false;
  }
  size_t begin = 0;
  uint32_t groups = 0;
  for (const Survey::Group& group : survey.groups) {
    size_t end = group.end;
    if (end <= begin) continue;
    if (++groups == kOwners) end = survey.packets.size();  // There are no more places than that.
    RecoveredContent content(survey, begin, end, reader);
    if (!write(recovered, content)) return false;
    begin = end;
  }
  return true;
}

bool SetAside(const std::string& path, std::string* aside) {
  if (cache_io::SetAside(path, aside)) return true;
  LocalLog(2, kLogSource, __LINE__, "cache: cannot set aside %s: %s", path.c_str(), aside->c_str());
  return false;
}

}  // namespace

uint64_t RecoveredContent::AnnouncedBytes() const {
  uint64_t bytes = 0;
  for (size_t i = at_; i < end_; ++i) bytes += survey_.packets[i].length + uint64_t{4};
  return bytes;
}

bool RecoveredContent::Next(MmapDataPacket* packet) {
  const PacketPlace& place = survey_.packets[at_];
  if (!reader_.ReadBody(place, &body_)) return false;
  *packet = MmapDataPacket{body_.data(), place.length};
  ++at_;
  return true;
}

// In this order: an Open() that finds no file at `path` looks for the recovered one first.
bool Repair(const std::string& path, cache_io::Durability durability, const Survey& survey,
            Reader& reader, ContentWriter write) {
  const std::string recovered = cache_io::RecoveredPath(path);
  if (!WriteRecovered(recovered, survey, reader, write)) {
    LogFailure(kLogSource, __LINE__, "repair", path, errno,
               "it stays as it is; free some space, the next start tries again");
    unlink(recovered.c_str());
    return false;
  }
  std::string aside;
  if (!SetAside(path, &aside)) return false;
  if ((!cache_io::Rename(recovered, path) && errno != ENOENT) ||  // ENOENT: it did so already.
      (durability == cache_io::Durability::kOnDisk && !cache_io::SyncFolderOf(path))) {
    LogFailure(kLogSource, __LINE__, "replace", path, errno, "make its folder writable");
    return false;
  }
  LocalLog(2, kLogSource, __LINE__,
           "cache: %s was damaged (%s); its %zu intact packets are kept, and the file as it was "
           "is %s, for whoever wants to look at it",
           path.c_str(), survey.damage, survey.packets.size(), aside.c_str());
  return true;
}

bool SetNewerAside(const std::string& path, uint32_t version) {
  std::string aside;
  if (!SetAside(path, &aside)) return false;
  LocalLog(2, kLogSource, __LINE__,
           "cache: %s is of version %u, newer than this library's; it is set aside as %s, and a "
           "new one is begun; let the newer version deliver it",
           path.c_str(), version, aside.c_str());
  return true;
}

}  // namespace mmap_format
QUENOR_NAMESPACE_END
