#include "services/cache_file_posix/batch.h"

#include <cstring>

QUENOR_NAMESPACE_BEGIN
namespace cache_file {

bool Batch::AddNames(uint32_t magic, uint64_t number, const Packet* first, const Packet* last) {
  const uint64_t offset = end();
  const size_t header_at = bytes_.size();
  RecordHeader header = {};
  if (!Add(&header, sizeof header)) return false;
  Run run = {0, 0};
  for (const Packet* packet = first; packet != last; ++packet) {
    if (run.count > 0 && packet->number == run.first + run.count) {
      ++run.count;
      continue;
    }
    if (run.count > 0 && !Add(&run, sizeof run)) return false;
    run = {packet->number, 1};
  }
  if (run.count > 0 && !Add(&run, sizeof run)) return false;
  const size_t body_at = header_at + sizeof header;
  const size_t size = bytes_.size() - body_at;
  if (size > UINT32_MAX) return false;
  header = MakeRecordHeader(magic, number, static_cast<uint32_t>(size),
                            BodyCheckOf(bytes_.data() + body_at, size, offset), offset);
  std::memcpy(bytes_.data() + header_at, &header, sizeof header);
  return true;
}

}  // namespace cache_file
QUENOR_NAMESPACE_END
