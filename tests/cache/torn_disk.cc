#include "tests/cache/torn_disk.h"

#include <sys/stat.h>

#include <algorithm>

#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

std::string SectorOf(const std::string& image, size_t sector) {
  const size_t begin = sector * TornDisk::kSector;
  std::string bytes = begin < image.size() ? image.substr(begin, TornDisk::kSector) : std::string();
  bytes.resize(TornDisk::kSector, '\0');
  return bytes;
}

void SetSector(std::string* image, size_t sector, const std::string& bytes) {
  const size_t begin = sector * TornDisk::kSector;
  if (image->size() < begin + bytes.size()) image->resize(begin + bytes.size(), '\0');
  image->replace(begin, bytes.size(), bytes);
}

uint64_t IdOf(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

}  // namespace

std::string PowerLoss::Draw(Random& random) const {
  std::string image = flushed;
  // Hardly any of the sectors, about half of them, nearly all.
  const uint64_t percent = 5 + Below(random, 3) * 45;
  for (const auto& [sector, versions] : sectors) {
    if (Below(random, 100) >= percent) continue;
    // The latest one as often as all others.
    const size_t version =
        Below(random, 2) == 0 ? versions.size() - 1 : Below(random, versions.size());
    SetSector(&image, sector, versions[version]);
  }
  image.resize(sizes[Below(random, sizes.size())], '\0');
  return image;
}

TornDisk::TornDisk(const std::string& path)
    : path_(path), now_(ReadWholeFile(path)), file_id_(IdOf(path)) {
  state_.flushed = now_;
  state_.sizes = {now_.size()};
}

void TornDisk::SetContents(const Packets& confirmed, const Packets& under_way) {
  for (PowerLoss* const state : {&state_, replaced_.get()}) {
    if (state == nullptr) continue;
    state->confirmed = confirmed;
    state->under_way = under_way;
  }
}

void TornDisk::Look() {
  const FileCalls::Unseen unseen;
  TakeNote();
  losses_.push_back(state_);
  if (replaced_ != nullptr) losses_.push_back(*replaced_);
}

bool TornDisk::IsThisFile(int fd) const {
  struct stat by_descriptor, by_name;
  return fstat(fd, &by_descriptor) == 0 && lstat(path_.c_str(), &by_name) == 0 &&
         by_descriptor.st_dev == by_name.st_dev && by_descriptor.st_ino == by_name.st_ino;
}

void TornDisk::NoteSync(int fd) {
  struct stat info;
  if (fstat(fd, &info) != 0) return;
  if (S_ISDIR(info.st_mode)) {
    replaced_.reset();
  } else if (info.st_ino == file_id_) {
    Flushed(0, UINT64_MAX);
  } else {
    ++flushes_;
    synced_[info.st_ino] = ReadWholeFile("/proc/self/fd/" + std::to_string(fd));
  }
}

void TornDisk::NoteRename() {
  const uint64_t id = IdOf(path_);
  if (id == file_id_ || id == 0) return;
  if (replaced_ == nullptr) replaced_ = std::make_unique<PowerLoss>(state_);
  file_id_ = id;
  now_ = state_.flushed = synced_[id];
  state_.sectors.clear();
  state_.sizes = {now_.size()};
  Look();
}

void TornDisk::TakeNote() {
  std::string image = ReadWholeFile(path_);
  if (image.size() != now_.size()) state_.sizes.push_back(image.size());
  const size_t longer = std::max(image.size(), now_.size());
  for (size_t begin = 0; begin < longer; begin += kSector) {
    const bool same = begin + kSector <= std::min(image.size(), now_.size()) &&
                      image.compare(begin, kSector, now_, begin, kSector) == 0;
    if (same) continue;
    const size_t sector = begin / kSector;
    const std::string bytes = SectorOf(image, sector);
    if (bytes != SectorOf(now_, sector)) state_.sectors[sector].push_back(bytes);
  }
  now_ = std::move(image);
}

void TornDisk::Flushed(uint64_t begin, uint64_t end) {
  ++flushes_;
  state_.flushed.resize(std::max(state_.flushed.size(), now_.size()), '\0');
  for (auto at = state_.sectors.begin(); at != state_.sectors.end();) {
    const uint64_t offset = at->first * kSector;
    if (offset + kSector <= begin || offset >= end) {
      ++at;
      continue;
    }
    SetSector(&state_.flushed, at->first, SectorOf(now_, at->first));
    at = state_.sectors.erase(at);
  }
  // With the content of a range goes the length that it needs.
  state_.sizes = {now_.size()};
  state_.flushed.resize(now_.size(), '\0');
}

void TornDisk::Before(const CallInfo& info) {
  if (info.call == Call::kMsync || info.call == Call::kFsync || info.call == Call::kFdatasync)
    Look();
}

void TornDisk::After(const CallInfo& info) {
  switch (info.call) {
    case Call::kMmap:
      if (info.fd >= 0 && IsThisFile(info.fd)) {
        mapped_[static_cast<const uint8_t*>(info.address)] = {info.size, info.offset};
      }
      break;
    case Call::kMunmap:
      mapped_.erase(static_cast<const uint8_t*>(info.address));
      break;
    case Call::kMsync: {
      const uint8_t* const address = static_cast<const uint8_t*>(info.address);
      auto map = mapped_.upper_bound(address);
      if (map == mapped_.begin()) break;
      --map;
      const uint64_t into = static_cast<uint64_t>(address - map->first);
      if (into >= map->second.size) break;
      const uint64_t begin = map->second.offset + into;
      // Whole pages go.
      Flushed(begin / 4096 * 4096, (begin + info.size + 4095) / 4096 * 4096);
      break;
    }
    case Call::kFsync:
    case Call::kFdatasync:
      NoteSync(info.fd);
      break;
    case Call::kRename:
    case Call::kRenameat2:
      NoteRename();
      break;
    case Call::kPwrite:
    case Call::kFtruncate:
    case Call::kFallocate:
    case Call::kPosixFallocate:
      if (IsThisFile(info.fd)) Look();
      break;
    default:
      break;
  }
}

}  // namespace quenor::test
