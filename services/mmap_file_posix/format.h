// The memory-mapped cache file as it lies on the disk. Page: docs/formats/mmap-file.md.
//
//   table    16 KiB: 64 records of 256 bytes; the first is the header, the others are owners
//   extents  multiples of 16 KiB, each one owner's: head, two short indexes, packets and long
//   indexes
//
// An owner's content is what its seal in force says: the valid one of its two with the larger save
// number. A seal names an extent and an index in it; the index names packets, in order. Nothing
// that a seal in force names is ever overwritten. How long an extent is, its head alone says.
#ifndef SERVICES_MMAP_FILE_POSIX_FORMAT_H_
#define SERVICES_MMAP_FILE_POSIX_FORMAT_H_

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "services/cache_shared/checksum.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "the file is little-endian and read in place"
#endif

constexpr uint64_t kRecordSize = 256;
constexpr uint32_t kOwners = 63;
constexpr uint64_t kTableSize = (kOwners + 1) * kRecordSize;
constexpr uint64_t kUnit = 16384;  // Of extents: the largest page size in common use.
constexpr uint32_t kVersion = 2;

constexpr uint64_t kHeaderMagic = 0x1a4d726f6e657571;  // "quenorM\x1a"
constexpr uint64_t kExtentMagic = 0x1a58726f6e657571;  // "quenorX\x1a"
constexpr uint32_t kPacketMagic = 0x1a504e51;          // "QNP\x1a"

// A save that announces more is refused.
constexpr uint64_t kMostAnnounced = uint64_t{1} << 40;

// No file gets that far. What is numbered from here on is repaired, which numbers it anew; from
// twice that on it does not even count, so that numbers never begin again.
constexpr uint64_t kSaveNumberLimit = uint64_t{1} << 61;

struct Header {
  uint64_t magic;
  uint32_t version;
  uint32_t table_size;
  uint32_t record_size;
  uint32_t owners;
  uint64_t check;             // Of the 24 bytes before it.
  uint64_t next_save_number;  // Taken by every save of every owner. Not under the check.
  // The process that holds the table's lock; 0: none. For messages; a killed one leaves its number.
  uint32_t lock_holder;
  uint32_t spare;
};
static_assert(sizeof(Header) == 48);

struct Seal {
  uint64_t save_number;
  uint64_t superseded;     // Bit n: what owner n holds is part of this content, and void there.
  uint64_t extent_offset;  // In the file; 0: no extent, no packet.
  uint64_t extent_size;    // When it was sealed; where the head is damaged, nothing else tells.
  uint64_t extent_epoch;
  uint64_t index_at;  // In the extent.
  uint32_t packets;
  uint32_t spare;
  uint64_t index_check;  // Of the entries of that index.
  uint64_t check;        // Of the 64 bytes before it, or kWriting.
};
static_assert(sizeof(Seal) == 72);
// In place of the check: being written, or not in force any more. Never all zeros, so that a
// zeroed seal is known from one that was never written.
constexpr uint64_t kWriting = 0x676e697469727721;

struct Reservation {
  uint64_t offset;
  uint64_t size;  // 0: none. Written last.
};

struct OwnerRecord {
  Seal seals[2];
  Reservation reserved[2];  // Extents that the owner fills and no seal names yet.
  uint8_t spare[kRecordSize - 2 * sizeof(Seal) - 2 * sizeof(Reservation)];
};
static_assert(sizeof(OwnerRecord) == kRecordSize);

enum ExtentState : uint64_t {
  kBuilding = 0x676e69646c697562,  // No seal has named it yet.
  kInUse = 0x657375206e697c21,
  kFree = 0x2165657266212121,
};

struct ExtentHeader {
  uint64_t magic;
  uint32_t owner;
  uint32_t spare;
  uint64_t epoch;  // A save number, taken when the extent was made.
  uint64_t check;  // Of the 24 bytes before it.
  // LengthWord(): one store makes the extent longer or shorter. Not under the check; written with
  // the table's lock held.
  uint64_t length;
  uint64_t state;  // Not under the check.
  uint64_t more_spare[2];
};
static_assert(sizeof(ExtentHeader) == 64);

enum PacketState : uint32_t {
  kLive = 0x4556494c,
  // Dropped by a completed save. Asked only where damage leaves no index to tell.
  kRetired = 0x44414544,
};

struct PacketHeader {
  uint32_t magic;
  uint32_t state;  // Not under the check.
  uint32_t length;
  uint32_t check;  // Of magic, length and body_check.
  uint64_t body_check;
};
static_assert(sizeof(PacketHeader) == 24);

constexpr uint64_t RoundUp(uint64_t value, uint64_t unit) {
  return (value + unit - 1) / unit * unit;
}
// What a packet takes up in an area.
constexpr uint64_t PacketRoom(uint64_t length) { return RoundUp(sizeof(PacketHeader) + length, 8); }

// Of any number of bytes. Every save needs those of seals and packets' heads: the same, inlined.
inline uint64_t Check(const void* bytes, size_t size) {
  return cache_io::CheckOfBytes(bytes, size);
}
inline uint64_t CheckOf(const Header& header) { return Check(&header, offsetof(Header, check)); }
inline uint64_t CheckOf(const Seal& seal) { return XXH3_64bits(&seal, offsetof(Seal, check)); }
inline uint64_t CheckOf(const ExtentHeader& header) {
  return Check(&header, offsetof(ExtentHeader, check));
}
inline uint32_t CheckOf(const PacketHeader& header) {
  const uint64_t bytes[2] = {header.magic | uint64_t{header.length} << 32, header.body_check};
  return static_cast<uint32_t>(XXH3_64bits(bytes, sizeof bytes));
}

// How many units an extent has, with a check of its own.
inline uint64_t LengthWord(uint64_t size, uint64_t epoch) {
  const uint64_t bytes[2] = {size / kUnit, epoch};
  return size / kUnit | XXH3_64bits(bytes, sizeof bytes) << 32;
}
// In bytes; 0 when the check is wrong.
inline uint64_t SizeOf(const ExtentHeader& header) {
  const uint64_t size = (header.length & UINT32_MAX) * kUnit;
  return header.length == LengthWord(size, header.epoch) ? size : 0;
}

// In the first page of an extent, which loses its bytes last: the head and two indexes, each for so
// many packets. An index of more stands among the packets.
constexpr uint64_t kPacketsBegin = 4096;
constexpr uint64_t kShortIndex = (kPacketsBegin - sizeof(ExtentHeader)) / 2 / sizeof(uint64_t);
constexpr uint64_t ShortIndexAt(int which) {
  return sizeof(ExtentHeader) + static_cast<uint64_t>(which) * kShortIndex * sizeof(uint64_t);
}

constexpr uint64_t RecordOffset(uint32_t owner) { return owner * kRecordSize; }
// In a set of owners.
constexpr uint64_t Bit(uint32_t owner) { return uint64_t{1} << owner; }

// release: whoever sees `value`, in this process's remains or in another process, sees every store
// before it.
inline void StoreLast(uint64_t* to, uint64_t value) {
  __atomic_store_n(to, value, __ATOMIC_RELEASE);
}

}  // namespace mmap_format
QUENOR_NAMESPACE_END

#endif  // SERVICES_MMAP_FILE_POSIX_FORMAT_H_
