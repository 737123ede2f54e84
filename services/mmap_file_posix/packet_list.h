// The packets of a content, and of the save that is to replace it: where each stands in the extent
// and in which order, not their bytes. Memory only. Threads: one at a time.
#ifndef SERVICES_MMAP_FILE_POSIX_PACKET_LIST_H_
#define SERVICES_MMAP_FILE_POSIX_PACKET_LIST_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "services/cache_shared/nothrow_array.h"
#include "services/mmap_file_posix/format.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

struct Entry {
  uint64_t offset;  // In the extent.
  uint64_t body_check;
  uint64_t glance;
  uint32_t length;
  bool kept;  // Meant only while a save retires what it dropped.
};

// Of a few of the body's bytes: packets that differ are mostly told apart by it, without a look at
// the mapped bytes, which are far from the processor.
inline uint64_t Glance(const uint8_t* body, uint32_t length) {
  uint64_t words[3] = {};
  if (length < sizeof words[0]) {
    if (length != 0) std::memcpy(words, body, length);
  } else {
    const uint32_t last = length - static_cast<uint32_t>(sizeof words[0]);
    std::memcpy(&words[0], body, sizeof words[0]);
    std::memcpy(&words[1], body + last / 2, sizeof words[1]);
    std::memcpy(&words[2], body + last, sizeof words[2]);
  }
  return (words[0] * 31 + words[1]) * 31 + words[2];
}
// What packets take up in an extent.
uint64_t RoomOf(const Entry* begin, const Entry* end);
// What an index of so many packets takes up.
constexpr uint64_t IndexRoom(uint64_t packets) { return packets * sizeof(uint64_t); }

// Where an index of an extent stands, and for how many packets.
struct IndexPlace {
  uint64_t at = 0;
  uint64_t capacity = 0;  // 0: nowhere.
  bool is_long() const { return at >= kPacketsBegin; }
};

// Entries in a row, of which some may go at the front and others come at the end without moving
// those between.
class Entries {
 public:
  size_t size() const { return all_.size() - first_; }
  bool empty() const { return size() == 0; }
  const Entry* begin() const { return all_.begin() + first_; }
  const Entry* end() const { return all_.end(); }
  Entry* begin() { return all_.begin() + first_; }
  Entry* end() { return all_.end(); }
  Entry& operator[](size_t i) { return all_[first_ + i]; }
  const Entry& operator[](size_t i) const { return all_[first_ + i]; }

  void Clear() {
    all_.Clear();
    first_ = 0;
  }
  [[nodiscard]] bool Append(const Entry* entries, size_t count) {
    return all_.Append(entries, count);
  }
  [[nodiscard]] bool Push(const Entry& entry) { return all_.Push(entry); }
  // For so many that come at the end.
  [[nodiscard]] bool ReserveMore(size_t count) { return all_.Reserve(all_.size() + count); }
  // Those that went take up their memory until they are as many as those that stay.
  void DropFront(size_t count);
  void swap(Entries& other) {
    all_.swap(other.all_);
    std::swap(first_, other.first_);
  }

 private:
  NothrowArray<Entry> all_;
  size_t first_ = 0;
};

// Packets of a save that stand in a row where they come from: in the old content, or among those
// that the save has written.
struct Piece {
  size_t begin;
  size_t count;
  bool is_new;

  size_t end() const { return begin + count; }
};

// All packets of a save, in order. A usual one repeats the old content but for a few, so what it
// takes from there is only counted, until the whole is put together. False: no memory.
class Pieces {
 public:
  // Borrows the old content until destruction.
  explicit Pieces(Entries& old) : old_(old) {}
  void Clear();

  // Takes over one of the old packets, or the next `count` behind the last that was taken over.
  [[nodiscard]] bool NameOld(size_t at);
  void NameNext(size_t count) {
    pieces_.back().count += count;
    count_ += count;
  }
  [[nodiscard]] bool NameAll();
  [[nodiscard]] bool AddNew(const Entry& entry);

  size_t count() const { return count_; }
  // Those that the save has written.
  const Entries& added() const { return added_; }
  Entries& added() { return added_; }
  // The old ones do not come in the order of the old content.
  bool is_disordered() const { return is_disordered_; }
  // Whether the save is the old content without some at its front and with others behind its end,
  // as most are; and how many it leaves out there.
  bool ContinuesOld() const;
  size_t left_out() const { return pieces_[0].begin; }
  uint64_t Room() const;
  // To memory for count() of them.
  void WriteOffsets(uint64_t* to) const;

  // From now on all count as written by this save, which is about to do so. What it had written
  // before is in written_before(), until it does so again.
  [[nodiscard]] bool AssembleAsNew();
  const Entries& written_before() const { return whole_; }
  // Gets the memory that Replace() takes.
  [[nodiscard]] bool Prepare();
  // They are the old content from now on; `*room`, what that takes up, follows.
  void Replace(uint64_t* room);
  // Calls drop(entry) for each old one that is not among them. `is_shared`: several of the old
  // ones may stand at one place, which is not dropped while one of those is kept.
  template <typename Drop>
  void EachDropped(bool is_shared, Drop drop) {
    const bool in_order = !is_disordered_ && !is_shared;
    if (!in_order) MarkKept();
    size_t at = 0;
    for (const Piece& piece : pieces_) {
      if (piece.is_new || !in_order) continue;
      for (; at < piece.begin; ++at) drop(old_[at]);
      at = piece.end();
    }
    for (; at < old_.size(); ++at) {
      if (in_order || !IsKept(old_[at], is_shared)) drop(old_[at]);
    }
  }

 private:
  const Entry* Begin(const Piece& piece) const {
    return (piece.is_new ? added_.begin() : old_.begin()) + piece.begin;
  }
  bool Assemble();
  void MarkKept();
  bool IsKept(const Entry& entry, bool is_shared) const;

  Entries& old_;
  NothrowArray<Piece> pieces_;
  Entries added_;
  Entries whole_;  // All of them, once put together.
  size_t count_ = 0;
  bool is_disordered_ = false;
};

inline bool Pieces::AddNew(const Entry& entry) {
  const bool follows = !pieces_.empty() && pieces_.back().is_new;
  if (!added_.Push(entry) || (!follows && !pieces_.Push(Piece{added_.size() - 1, 0, true}))) {
    return false;
  }
  NameNext(1);
  return true;
}

inline bool Pieces::ContinuesOld() const {
  return !pieces_.empty() && !pieces_[0].is_new && pieces_[0].end() == old_.size() &&
         (pieces_.size() == 1 || (pieces_.size() == 2 && pieces_[1].is_new));
}

}  // namespace mmap_format
QUENOR_NAMESPACE_END

#endif  // SERVICES_MMAP_FILE_POSIX_PACKET_LIST_H_
