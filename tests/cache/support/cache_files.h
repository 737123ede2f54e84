// What the tests of the two cache files share: contents as lists of packets, saving and reading
// them, damage, and the packets of a mapped file as they lie in its bytes.
// Threads: one.
#ifndef QUENOR_TESTS_CACHE_SUPPORT_CACHE_FILES_H_
#define QUENOR_TESTS_CACHE_SUPPORT_CACHE_FILES_H_

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "quenor_base/platform/reliable_report_cache_file.h"

namespace quenor::test {

using Packets = std::vector<std::string>;
using Random = std::mt19937_64;

// True when QUENOR_CACHE_FULL is set to anything but 0: the tests run at full length.
bool FullLength();
// QUENOR_TEST_SEED, else one that nobody chose. Printed by whoever draws from it.
uint64_t TestSeed();
// Below `limit`, which is at least 1.
uint64_t Below(Random& random, uint64_t limit);
// Bytes that hardly repeat anywhere.
std::string RandomBytes(Random& random, size_t size);
// "the packet number n of that name", `size` bytes of it repeated; two of them differ when their
// names or numbers do and they have a few bytes.
std::string NamedPacket(const std::string& name, size_t number, size_t size);
Packets NamedPackets(const std::string& name, size_t count, size_t size);

// What Clear() wants to know of a content.
int64_t AnnouncedSize(const Packets& packets);

[[nodiscard]] bool OpenFile(MultiProcessSafetyMmapFile& file, const std::string& path);
[[nodiscard]] bool OpenFile(ReliableReportCacheFile& file, const std::string& path);
// Clear(), for a save of these packets.
[[nodiscard]] bool BeginSave(MultiProcessSafetyMmapFile& file, const Packets& packets);
[[nodiscard]] bool BeginSave(ReliableReportCacheFile& file, const Packets& packets);
[[nodiscard]] bool Append(MultiProcessSafetyMmapFile& file, const std::string& packet);
[[nodiscard]] bool Append(ReliableReportCacheFile& file, const std::string& packet);

// The appends alone. True when each was taken and the save is complete.
template <typename File>
[[nodiscard]] bool AppendAll(File& file, const Packets& packets) {
  for (const std::string& packet : packets) {
    if (!Append(file, packet)) return false;
  }
  return file.IsSaveComplete();
}

// Clear() and every append. True when each was taken and the save is complete.
template <typename File>
[[nodiscard]] bool Save(File& file, const Packets& packets) {
  return BeginSave(file, packets) && AppendAll(file, packets);
}

// Every packet to the end. `most_empty_in_a_row`: so many empty packets may stand together, and
// come back as such; those at the very end cannot be told from the end.
template <typename File>
Packets ReadAll(File& file, int most_empty_in_a_row = 0) {
  Packets packets;
  for (int ends = 0; ends <= most_empty_in_a_row;) {
    const auto packet = file.GetNextDataPacket();
    if (packet.data == nullptr || packet.size == 0) {
      ++ends;
      continue;
    }
    packets.insert(packets.end(), static_cast<size_t>(ends), std::string());
    ends = 0;
    packets.emplace_back(reinterpret_cast<const char*>(packet.data), packet.size);
  }
  return packets;
}

// The packets that an Open() finds; {"cannot open"} when it fails. The file stays as it is.
Packets LoadMapped(const std::string& path, int most_empty_in_a_row = 0);
Packets LoadPlain(const std::string& path, int most_empty_in_a_row = 0);
// As if every process that has `path` open had been killed now: its bytes under another name,
// where nobody has a lock. What was set aside at `to` before is removed.
void CopyAsIfKilled(const std::string& path, const std::string& to);

// What a file of the next version begins with, which nobody here knows.
std::string NextMappedHeader();
std::string NextPlainHeader();

// Over the bytes of a file that others may have open.
[[nodiscard]] bool WriteInto(const std::string& path, uint64_t at, const std::string& bytes);

std::string SetAside(const std::string& path);
std::string Recovered(const std::string& path);
bool Exists(const std::string& path);
uint64_t SizeOf(const std::string& path);
uint64_t BytesOnDisk(const std::string& path);

// A packet as it lies in a file's bytes.
struct StoredPacket {
  uint64_t begin = 0;  // Of its header.
  uint64_t end = 0;    // Of its body.
};
// Where the mapped file `bytes` holds `packet`, whole and under valid checks, in any state.
std::vector<StoredPacket> FindPacket(const std::string& bytes, const std::string& packet);

// The durability of every Open() in its scope.
class DurabilityScope {
 public:
  explicit DurabilityScope(uint64_t value);
  ~DurabilityScope();
  DurabilityScope(const DurabilityScope&) = delete;
  DurabilityScope& operator=(const DurabilityScope&) = delete;
};

// As contents, in whatever order: whether each packet of `wanted` is there as often; and each
// packet as often as in whichever of the two has it more often.
bool Includes(const Packets& packets, const Packets& wanted);
Packets Union(const Packets& a, const Packets& b);

// How often `text` stands in lines of that level since the log was cleared.
int LinesWith(int level, const std::string& text);

// A short text of contents for a failure's message.
std::string Show(const Packets& packets);

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CACHE_SUPPORT_CACHE_FILES_H_
