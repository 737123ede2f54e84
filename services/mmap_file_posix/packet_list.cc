#include "services/mmap_file_posix/packet_list.h"

#include <algorithm>

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

uint64_t RoomOf(const Entry* begin, const Entry* end) {
  uint64_t room = 0;
  for (const Entry* entry = begin; entry != end; ++entry) room += PacketRoom(entry->length);
  return room;
}

void Entries::DropFront(size_t count) {
  first_ += count;
  const size_t stay = size();
  if (first_ == 0 || first_ < stay) return;
  std::memmove(static_cast<void*>(all_.begin()), begin(), stay * sizeof(Entry));
  (void)all_.Resize(stay);  // Fewer than before.
  first_ = 0;
}

void Pieces::Clear() {
  added_.Clear();
  pieces_.Clear();
  count_ = 0;
  is_disordered_ = false;
}

bool Pieces::NameOld(size_t at) {
  bool follows = false;
  for (size_t i = pieces_.size(); i > 0; --i) {
    const Piece& last = pieces_[i - 1];
    if (last.is_new) continue;
    if (at < last.end()) is_disordered_ = true;
    follows = at == last.end() && i == pieces_.size();
    break;
  }
  if (!follows && !pieces_.Push(Piece{at, 0, false})) return false;
  NameNext(1);
  return true;
}

bool Pieces::NameAll() {
  count_ = old_.size();
  return pieces_.Push(Piece{0, old_.size(), false});
}

uint64_t Pieces::Room() const {
  uint64_t room = 0;
  for (const Piece& piece : pieces_) room += RoomOf(Begin(piece), Begin(piece) + piece.count);
  return room;
}

void Pieces::WriteOffsets(uint64_t* to) const {
  for (const Piece& piece : pieces_) {
    const Entry* const from = Begin(piece);
    for (size_t i = 0; i < piece.count; ++i) to[i] = from[i].offset;
    to += piece.count;
  }
}

bool Pieces::Assemble() {
  whole_.Clear();
  for (const Piece& piece : pieces_) {
    if (!whole_.Append(Begin(piece), piece.count)) return false;
  }
  return true;
}

bool Pieces::AssembleAsNew() {
  whole_.Clear();
  if (count_ == 0) return true;
  if (!pieces_.Reserve(1) || !Assemble()) return false;
  added_.swap(whole_);
  pieces_.Clear();
  return pieces_.Push(Piece{0, count_, true});
}

bool Pieces::Prepare() { return ContinuesOld() ? old_.ReserveMore(added_.size()) : Assemble(); }

void Pieces::Replace(uint64_t* room) {
  if (!ContinuesOld()) {
    old_.swap(whole_);
    *room = RoomOf(old_.begin(), old_.end());
    return;
  }
  *room += RoomOf(added_.begin(), added_.end()) - RoomOf(old_.begin(), Begin(pieces_[0]));
  old_.DropFront(left_out());
  (void)old_.Append(added_.begin(), added_.size());  // Prepare() has made room for them.
}

void Pieces::MarkKept() {
  for (Entry& entry : old_) entry.kept = false;
  for (const Piece& piece : pieces_) {
    for (size_t i = piece.begin; i < piece.end() && !piece.is_new; ++i) old_[i].kept = true;
  }
}

bool Pieces::IsKept(const Entry& entry, bool is_shared) const {
  if (entry.kept || !is_shared) return entry.kept;
  return std::any_of(old_.begin(), old_.end(), [&](const Entry& other) {
    return other.kept && other.offset == entry.offset;
  });
}

}  // namespace mmap_format
QUENOR_NAMESPACE_END
