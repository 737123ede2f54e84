#include "services/cache_file_posix/journal.h"

#include <fcntl.h>

#include <cerrno>

QUENOR_NAMESPACE_BEGIN
namespace cache_file {

using cache_io::Durability;

Journal::~Journal() {
  // By hand: a child that is being forked has the descriptor until its fork() returns.
  if (file.is_open()) cache_io::Unlock(file.fd(), 0, 1);
}

bool Journal::Begin() {
  const FileHeader header = MakeFileHeader();
  if (!cache_io::Truncate(file.fd(), 0) ||
      !cache_io::WriteAt(file.fd(), &header, sizeof header, 0)) {
    return false;
  }
  end_ = kHeaderSize;
  return true;
}

void Journal::GoOn(const Content& content) {
  end_ = content.end;
  has_litter_ = true;
  last_number_ = content.last_number;
  save_number_ = content.save_number;
}

void Journal::Adopt(Fresh* fresh) {
  file.swap(fresh->file);
  fresh->file.Close();
  end_ = fresh->end;
  last_number_ = fresh->packets.size();
  has_litter_ = false;
}

bool Journal::WriteSeal(const NothrowArray<Packet>& packets) {
  batch_.Start(end_);
  if (!batch_.AddNames(kSealMagic, save_number_ + 1, packets.begin(), packets.end())) {
    errno = ENOMEM;
    return false;
  }
  if (!WriteRecords(nullptr, 0)) return false;
  ++save_number_;
  return true;
}

bool Journal::WriteOrder(const Packet* first, const Packet* last) {
  batch_.Start(end_);
  if (!batch_.AddNames(kOrderMagic, save_number_ + 1, first, last)) {
    errno = ENOMEM;
    return false;
  }
  return WriteRecords(nullptr, 0);
}

Journal::Written Journal::WritePacket(const Packet* first, const Packet* last, const uint8_t* data,
                                      uint32_t size, const Digest& digest, Packet* packet) {
  batch_.Start(end_);
  bool made = first == last || batch_.AddNames(kOrderMagic, save_number_ + 1, first, last);
  const uint64_t offset = batch_.end();
  made = made && batch_.AddPacketHeader(last_number_ + 1, size, BodyCheckOf(data, size, offset));
  if (!made) {
    errno = ENOMEM;
    return Written::kNo;
  }
  const uint64_t begin = end_;
  if (!WriteRecords(data, size)) return Written::kNo;
  ++last_number_;
  *packet = Packet{last_number_, offset, size, false, digest};
  return MakeDurable(begin) ? Written::kYes : Written::kNotOnDisk;
}

bool Journal::CutTail() {
  if (!has_litter_) return true;
  if (!cache_io::Truncate(file.fd(), end_)) return false;
  has_litter_ = false;
  return true;
}

// Writes the batch and `size` bytes at `end_` and moves it.
bool Journal::WriteRecords(const uint8_t* data, uint32_t size) {
  if (!CutTail()) return false;
  const bool copied = size <= kCopyLimitBytes;
  if (copied && size > 0 && !batch_.Add(data, size)) {
    errno = ENOMEM;
    return false;
  }
  bool written = batch_.Write(file.fd());
  if (written && !copied) written = cache_io::WriteAt(file.fd(), data, size, batch_.end());
  if (!written) {
    const int error = errno;
    has_litter_ = true;
    static_cast<void>(CutTail());  // Else before the next write.
    errno = error;
    return false;
  }
  end_ = batch_.end() + (copied ? 0 : size);
  return true;
}

// What was written from `begin` on. With kOnDisk this takes what was written before with it.
bool Journal::MakeDurable(uint64_t begin) {
  if (durability == Durability::kOnDisk) return cache_io::SyncFile(file.fd());
  if (durability == Durability::kStarted) {
    // Advice only: nobody was promised that it arrives.
    sync_file_range(file.fd(), static_cast<off_t>(begin), static_cast<off_t>(end_ - begin),
                    SYNC_FILE_RANGE_WRITE);
  }
  return true;
}

}  // namespace cache_file
QUENOR_NAMESPACE_END
