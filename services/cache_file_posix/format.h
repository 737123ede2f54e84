// The plain cache file on the disk: a header, then records, each behind the one before it, without
// gaps. Packets are written once; a save is a list of packet numbers. Little-endian. Byte by byte,
// with the reasons: docs/formats/cache-file.md. Shared by the writer and the reader.
#ifndef SERVICES_CACHE_FILE_POSIX_FORMAT_H_
#define SERVICES_CACHE_FILE_POSIX_FORMAT_H_

#include <cstddef>
#include <cstdint>

#include "services/cache_shared/checksum.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_file {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "records are copied as they are in memory");

constexpr uint32_t kVersion = 1;
constexpr uint64_t kFileMagic = 0x1a50726f6e657571;  // "quenorP\x1a"
constexpr uint32_t kPacketMagic = 0x1a506351;        // "QcP\x1a": one packet.
constexpr uint32_t kOrderMagic = 0x1a4f6351;  // "QcO\x1a": packets of the last seal, or after it,
                                              // that come next in the save under way.
constexpr uint32_t kSealMagic = 0x1a536351;   // "QcS\x1a": a save is complete; all its packets.
// Numbers of packets and saves stay below: a larger one was not written by us.
constexpr uint64_t kNumberLimit = uint64_t{1} << 62;

struct FileHeader {
  uint64_t magic;
  uint32_t version;
  uint32_t reserved;   // 0.
  uint64_t reserved2;  // 0.
  uint64_t check;      // Of the 24 bytes before it. Stays here in every later version.
};

struct RecordHeader {
  uint32_t magic;
  uint32_t size;        // Of the body, in bytes.
  uint64_t number;      // A packet's: larger than of every packet before it. Else the save's.
  uint64_t body_check;  // Of the body.
  uint64_t check;       // Of the 24 bytes before it.
};

// Body of an order or a seal: the packets numbered first, first + 1, ... in this order.
struct Run {
  uint64_t first;
  uint64_t count;  // At least 1.
};

constexpr uint64_t kHeaderSize = sizeof(FileHeader);
constexpr uint64_t kRecordHeaderSize = sizeof(RecordHeader);
static_assert(kHeaderSize == 32 && kRecordHeaderSize == 32 && sizeof(Run) == 16, "as on the disk");

inline uint64_t CheckOf(const FileHeader& header) {
  return cache_io::CheckOfBytes(&header, offsetof(FileHeader, check));
}

// The record's place in the file is part of its checks: bytes of a cache file inside a packet are
// no records.
inline uint64_t CheckOf(const RecordHeader& header, uint64_t offset) {
  return cache_io::CheckOfBytes(&header, offsetof(RecordHeader, check), offset);
}
inline uint64_t BodyCheckOf(const void* body, size_t size, uint64_t offset) {
  return cache_io::CheckOfBytes(body, size, offset);
}

inline FileHeader MakeFileHeader() {
  FileHeader header = {kFileMagic, kVersion, 0, 0, 0};
  header.check = CheckOf(header);
  return header;
}

inline RecordHeader MakeRecordHeader(uint32_t magic, uint64_t number, uint32_t size,
                                     uint64_t body_check, uint64_t offset) {
  RecordHeader header = {magic, size, number, body_check, 0};
  header.check = CheckOf(header, offset);
  return header;
}

inline bool IsRecord(const RecordHeader& header, uint64_t offset) {
  return (header.magic == kPacketMagic || header.magic == kOrderMagic ||
          header.magic == kSealMagic) &&
         header.number < kNumberLimit && header.check == CheckOf(header, offset);
}

using cache_io::BodyHasher;
using cache_io::Digest;
using cache_io::DigestOf;

}  // namespace cache_file
QUENOR_NAMESPACE_END

#endif  // SERVICES_CACHE_FILE_POSIX_FORMAT_H_
