// The plain file as the damage bench sees it.
#include <cstring>

#include "services/cache_file_posix/format.h"
#include "tests/cache/damage_bench.h"

namespace quenor::test {
namespace {

Packets LoadPlainAll(const std::string& path) { return LoadPlain(path); }

// A packet is its record: head and body.
std::vector<std::vector<StoredPacket>> FindPlain(const std::string& image,
                                                 const std::string& packet) {
  std::vector<std::vector<StoredPacket>> copies;
  for (size_t at = image.find(packet); at != std::string::npos; at = image.find(packet, at + 1)) {
    if (at < cache_file::kRecordHeaderSize) continue;
    const uint64_t begin = at - cache_file::kRecordHeaderSize;
    cache_file::RecordHeader header;
    std::memcpy(&header, image.data() + begin, sizeof header);
    if (header.magic != cache_file::kPacketMagic || header.size != packet.size() ||
        !cache_file::IsRecord(header, begin)) {
      continue;
    }
    copies.push_back({{begin, at + packet.size()}});
  }
  return copies;
}

bool LooksUnusedPlain(const std::string& image) {
  return image.find_first_not_of('\0', cache_file::kHeaderSize) == std::string::npos;
}

}  // namespace

const FileKind kPlainKind = {"plain", LoadPlainAll, FindPlain, LooksUnusedPlain, true};

}  // namespace quenor::test
