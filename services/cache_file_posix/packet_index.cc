#include "services/cache_file_posix/packet_index.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_file {

bool PacketIndex::Build(const NothrowArray<Packet>& packets) {
  slots_.Clear();
  size_t slots = 8;
  while (slots < 2 * packets.size()) slots *= 2;
  if (packets.size() >= kNoPosition || !next_.Assign(packets.size(), kNoPosition) ||
      !taken_.Assign(packets.size(), 0) || !slots_.Assign(slots, kNoPosition)) {
    return false;
  }
  for (size_t i = packets.size(); i > 0; --i) {
    const uint32_t position = static_cast<uint32_t>(i - 1);
    uint32_t* const slot = SlotOf(packets, packets[position].digest, packets[position].size);
    next_[position] = *slot;
    *slot = position;
  }
  return true;
}

uint32_t* PacketIndex::SlotOf(const NothrowArray<Packet>& packets, const Digest& digest,
                              uint32_t size) {
  const size_t mask = slots_.size() - 1;
  size_t i = static_cast<size_t>(digest.low) & mask;
  while (slots_[i] != kNoPosition) {
    const Packet& packet = packets[slots_[i]];
    if (packet.size == size && packet.digest == digest) break;
    i = (i + 1) & mask;
  }
  return &slots_[i];
}

uint32_t PacketIndex::Take(const NothrowArray<Packet>& packets, const Digest& digest,
                           uint32_t size) {
  if (slots_.empty()) return kNoPosition;
  uint32_t* const slot = SlotOf(packets, digest, size);
  const uint32_t position = *slot;
  if (position == kNoPosition || taken_[position] != 0) return kNoPosition;
  taken_[position] = 1;
  // The last of its kind stays, taken: an empty slot would hide those that were put behind it.
  if (next_[position] != kNoPosition) *slot = next_[position];
  return position;
}

}  // namespace cache_file
QUENOR_NAMESPACE_END
