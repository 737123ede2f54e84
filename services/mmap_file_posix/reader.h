// Reads a memory-mapped cache file without trusting a byte of it: every length, offset and check is
// looked at before use, and nothing is read through a mapping, where a bad sector would be a
// signal. Threads: one at a time. What live owners write meanwhile is noticed, not locked out.
#ifndef SERVICES_MMAP_FILE_POSIX_READER_H_
#define SERVICES_MMAP_FILE_POSIX_READER_H_

#include <cstdint>

#include "services/cache_shared/nothrow_array.h"
#include "services/mmap_file_posix/format.h"
#include "services/mmap_file_posix/ranges.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

// Where an intact packet is.
struct PacketPlace {
  uint64_t header_offset;  // In the file.
  uint32_t length;
  uint64_t body_check;
};
using PacketPlaces = NothrowArray<PacketPlace>;

// What an owner's record says.
struct OwnerView {
  Seal seals[2];
  bool valid[2];
  Range reserved[2];             // Sane ones; else empty.
  int in_force = -1;             // The valid seal with the larger save number; -1: none.
  const char* damage = nullptr;  // What no writer leaves; null: nothing.

  bool has_content() const { return in_force >= 0 && seals[in_force].packets > 0; }
  const Seal& seal() const { return seals[in_force]; }
};
OwnerView ViewOf(const OwnerRecord& record);
// Whether the content of `heir` stands for what `owner`, with that view, still holds. Only for what
// is older: so no forged seal stands for itself, or for one that stands for it.
bool Supersedes(const OwnerView& heir, uint32_t owner, const OwnerView& view);

// Whether the head of an extent, read at `offset`, is what a writer wrote there.
bool IsSound(const ExtentHeader& head, uint64_t offset);
// Likewise, and of the extent that `seal` names.
bool IsHeadOf(const ExtentHeader& head, const Seal& seal);
// Of a sound head of an extent that no record names: whether its owner had given it back, had not
// sealed it yet, or has sealed elsewhere since. Else it is content that has lost its seal.
bool IsLeftOver(const ExtentHeader& head, const OwnerView& owner);

enum class TableState { kFresh, kGood, kNewer, kDamaged };

// Everything that is intact in a file that nobody has open. Packets of one former owner stand
// together, in the order of its content.
struct Survey {
  struct Group {
    uint32_t owner;  // 0: what no owner's record names.
    uint32_t damaged_packets;
    size_t end;  // Behind its last packet; it begins where the group before it ends.
  };

  const char* damage = nullptr;  // The first thing found; null: the file is whole.
  PacketPlaces packets;
  NothrowArray<Group> groups;
};

class Reader {
 public:
  // Of a file that nobody knows, at most so much is searched for packets.
  static constexpr uint64_t kMaxSearchedBytes = uint64_t{64} << 20;

  // Borrows the descriptor until destruction.
  explicit Reader(int fd) : fd_(fd) {}

  // Reads the table, which what follows asks about; ReadBody() alone does without it. False with
  // errno.
  [[nodiscard]] bool Load();
  uint64_t file_size() const { return file_size_; }
  uint32_t version() const { return header().version; }
  TableState table_state() const;
  OwnerView Owner(uint32_t owner) const { return ViewOf(table_[owner]); }
  // Bit n: another owner's content in force stands for what owner n holds.
  uint64_t SupersededOwners() const;
  uint64_t LargestSaveNumber() const;

  // The packets of a seal in force, in order. False with errno when the system refuses; else
  // `*damage` says what was wrong (null: nothing) and `*damaged_packets` counts what is missing.
  [[gnu::cold]] [[nodiscard]] bool ReadContent(uint32_t owner, const Seal& seal,
                                               PacketPlaces* packets, const char** damage,
                                               uint32_t* damaged_packets);
  // A packet's body; false with errno (EBADMSG: it is not what it was).
  [[nodiscard]] bool ReadBody(const PacketPlace& place, NothrowArray<uint8_t>* body);

  // Nobody must have the file open. False with errno.
  [[gnu::cold]] [[nodiscard]] bool Examine(Survey* survey);

 private:
  const Header& header() const { return *reinterpret_cast<const Header*>(table_.data()); }
  [[gnu::cold]] bool IsSuperseded(const ExtentHeader& head) const;
  // How long the extent is that a seal names: `*is_sound`, its head says so; else the seal alone.
  [[gnu::cold]] bool ReadExtentSize(const Seal& seal, uint64_t* size, bool* is_sound);
  [[gnu::cold]] bool UsedRanges(Range* used, size_t* count);
  bool MaySearch() const { return searched_ < kMaxSearchedBytes; }
  bool Read(void* out, size_t size, uint64_t offset, bool* whole);
  // The header of a packet whose bytes lie inside [.., end) of the file, and whether it is intact.
  bool ReadPacket(uint64_t offset, uint64_t end, PacketPlace* place, PacketHeader* header,
                  bool* intact);
  [[gnu::cold]] bool ExamineOwner(uint32_t owner, Survey* survey, uint32_t* damaged_packets);
  [[gnu::cold]] bool ExamineGaps(Survey* survey);
  [[gnu::cold]] bool ExamineGap(uint64_t begin, uint64_t end, Survey* survey);
  // A gap block that is known not to hold anything of value; 0 when that is not known. And whether
  // the head of an extent there says that its content has lost its seal.
  [[gnu::cold]] bool SkipKnown(uint64_t offset, uint64_t end, uint64_t* skip, bool* lost_its_seal);
  // Not another owner's, which a misdirected write has put into its record.
  [[gnu::cold]] bool HasOwnSeal(uint32_t owner, bool* is_own);
  // Adds every intact packet in the range that was not retired.
  [[gnu::cold]] bool Search(uint64_t begin, uint64_t end, PacketPlaces* packets);

  const int fd_;
  uint64_t file_size_ = 0;
  uint64_t searched_ = 0;
  // The header in place of the first record. Not part of the object: a channel's thread would keep
  // the pages of its stack that this has touched for as long as it lives.
  NothrowArray<OwnerRecord> table_;
  NothrowArray<uint8_t> buffer_;  // Of bodies that are only checked.
  NothrowArray<uint8_t> window_;  // Of a search.
};

}  // namespace mmap_format
QUENOR_NAMESPACE_END

#endif  // SERVICES_MMAP_FILE_POSIX_READER_H_
