#include "services/cache_file_posix/rewrite.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "services/cache_file_posix/format.h"
#include "services/cache_shared/names_posix.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_file {

bool Fresh::Write(const std::string& path, bool on_disk, const Source& source, Batch* batch) {
  packets.Clear();
  lost = 0;
  errno = ENOMEM;
  if (!packets.Reserve(source.packets.size()) || !copy_bytes_.Reserve(kCopyLimitBytes) ||
      !batch->Reserve(3 * kCopyLimitBytes)) {
    return false;
  }
  if (!cache_io::CreateRecovered(path, &file)) return false;
  bool done = WriteAll(source, batch);
  if (done && on_disk) done = cache_io::SyncFile(file.fd());
  if (!done) {
    const int error = errno;
    unlink(path.c_str());
    file.Close();
    errno = error;
  }
  return done;
}

bool Fresh::WriteAll(const Source& source, Batch* batch) {
  const FileHeader header = MakeFileHeader();
  batch->Start(0);
  if (!cache_io::TryLock(file.fd(), 0, 1) || !batch->Add(&header, sizeof header)) return false;
  for (const Packet& packet : source.packets) {
    if (!CopyPacket(source, packet, batch)) return false;
  }
  if (!batch->AddNames(kSealMagic, std::max<uint64_t>(source.save_number, 1), packets.begin(),
                       packets.end())) {
    errno = ENOMEM;
    return false;
  }
  end = batch->end();
  return Flush(batch);
}

bool Fresh::Flush(Batch* batch) const {
  if (!batch->Write(file.fd())) return false;
  batch->Start(batch->end());
  return true;
}

bool Fresh::CopyPacket(const Source& source, const Packet& packet, Batch* batch) {
  if (batch->size() >= kCopyLimitBytes && !Flush(batch)) return false;
  const uint64_t offset = batch->end();
  uint64_t check = 0;
  switch (CheckBody(source, packet, offset, &check)) {
    case Body::kFailed:
      return false;
    case Body::kGone:
      ++lost;
      return true;
    case Body::kIntact:
      break;
  }
  const uint64_t number = packets.size() + 1;
  if (!batch->AddPacketHeader(number, packet.size, check) || !CopyBody(source, packet, batch)) {
    return false;
  }
  // There is room: Write() made it.
  static_cast<void>(packets.Push(Packet{number, offset, packet.size, true, packet.digest}));
  return true;
}

// *check is the body's, for a record at `fresh_offset`. Leaves the last part in copy_bytes_.
Fresh::Body Fresh::CheckBody(const Source& source, const Packet& packet, uint64_t fresh_offset,
                             uint64_t* check) {
  BodyHasher hasher(fresh_offset, source.digest_key);
  for (uint32_t done = 0; done < packet.size;) {
    const size_t part = std::min<size_t>(kCopyLimitBytes, packet.size - done);
    const int64_t got = cache_io::ReadAt(source.fd, copy_bytes_.data(), part,
                                         packet.offset + kRecordHeaderSize + done);
    if (got < 0) return Body::kFailed;
    if (got != static_cast<int64_t>(part)) return Body::kGone;
    hasher.Update(copy_bytes_.data(), part);
    done += static_cast<uint32_t>(part);
  }
  *check = hasher.Check();
  return hasher.ContentDigest() == packet.digest ? Body::kIntact : Body::kGone;
}

// After CheckBody(): a small body is still in copy_bytes_.
bool Fresh::CopyBody(const Source& source, const Packet& packet, Batch* batch) {
  if (packet.size <= kCopyLimitBytes) {
    const bool added = batch->Add(copy_bytes_.data(), packet.size);
    if (!added) errno = ENOMEM;
    return added;
  }
  for (uint32_t done = 0; done < packet.size;) {
    if (!Flush(batch)) return false;
    const size_t part = std::min<size_t>(kCopyLimitBytes, packet.size - done);
    const int64_t got = cache_io::ReadAt(source.fd, copy_bytes_.data(), part,
                                         packet.offset + kRecordHeaderSize + done);
    if (got >= 0 && got != static_cast<int64_t>(part)) errno = EIO;
    if (got != static_cast<int64_t>(part) || !batch->Add(copy_bytes_.data(), part)) return false;
    done += static_cast<uint32_t>(part);
  }
  return true;
}

}  // namespace cache_file
QUENOR_NAMESPACE_END
