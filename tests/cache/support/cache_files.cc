#include "tests/cache/support/cache_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <set>

#include "quenor_base/platform/base/check.h"
#include "quenor_base/platform/config_center.h"
#include "services/mmap_file_posix/format.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

struct stat StatOf(const std::string& path) {
  struct stat info = {};
  if (lstat(path.c_str(), &info) != 0) info = {};
  return info;
}

}  // namespace

bool FullLength() {
  const char* const text = std::getenv("QUENOR_CACHE_FULL");
  return text != nullptr && std::strcmp(text, "0") != 0;
}

uint64_t TestSeed() {
  const char* const text = std::getenv("QUENOR_TEST_SEED");
  return text == nullptr ? std::random_device()() : std::strtoull(text, nullptr, 10);
}

uint64_t Below(Random& random, uint64_t limit) { return random() % limit; }

std::string RandomBytes(Random& random, size_t size) {
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() >> 32);
  return bytes;
}

std::string NamedPacket(const std::string& name, size_t number, size_t size) {
  const std::string word = name + "-" + std::to_string(number) + " ";
  std::string packet;
  while (packet.size() < size) packet += word;
  packet.resize(size);
  return packet;
}

Packets NamedPackets(const std::string& name, size_t count, size_t size) {
  Packets packets;
  for (size_t i = 0; i < count; ++i) packets.push_back(NamedPacket(name, i, size));
  return packets;
}

int64_t AnnouncedSize(const Packets& packets) {
  int64_t size = 0;
  for (const std::string& packet : packets) size += static_cast<int64_t>(packet.size()) + 4;
  return size;
}

bool OpenFile(MultiProcessSafetyMmapFile& file, const std::string& path) {
  return file.Open(base::FilePath(path), base::MemoryMappedFile::READ_WRITE_EXTEND, 0);
}

bool BeginSave(MultiProcessSafetyMmapFile& file, const Packets& packets) {
  return file.Clear(AnnouncedSize(packets));
}

bool Append(MultiProcessSafetyMmapFile& file, const std::string& packet) {
  const auto* const data = reinterpret_cast<const uint8_t*>(packet.data());
  return file.AppendDataPacket({data, static_cast<uint32_t>(packet.size())});
}

Packets LoadMapped(const std::string& path, int most_empty_in_a_row) {
  MultiProcessSafetyMmapFile file;
  if (!OpenFile(file, path)) return {"cannot open"};
  return ReadAll(file, most_empty_in_a_row);
}

void CopyAsIfKilled(const std::string& path, const std::string& to) {
  std::remove(SetAside(to).c_str());
  QUENOR_CHECK(WriteWholeFile(to, ReadWholeFile(path)), "a copy cannot be written");
}

std::string NextMappedHeader() {
  mmap_format::Header header = {};
  header.magic = mmap_format::kHeaderMagic;
  header.version = mmap_format::kVersion + 1;
  header.table_size = mmap_format::kTableSize;
  header.check = mmap_format::CheckOf(header);
  return std::string(reinterpret_cast<const char*>(&header), sizeof header);
}

bool WriteInto(const std::string& path, uint64_t at, const std::string& bytes) {
  std::FILE* const out = std::fopen(path.c_str(), "r+b");
  if (out == nullptr) return false;
  const bool written = std::fseek(out, static_cast<long>(at), SEEK_SET) == 0 &&
                       std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
  return std::fclose(out) == 0 && written;
}

std::string SetAside(const std::string& path) { return path + ".set-aside"; }
std::string Recovered(const std::string& path) { return path + ".recovered"; }
bool Exists(const std::string& path) { return StatOf(path).st_ino != 0; }
uint64_t SizeOf(const std::string& path) { return static_cast<uint64_t>(StatOf(path).st_size); }
uint64_t BytesOnDisk(const std::string& path) {
  return static_cast<uint64_t>(StatOf(path).st_blocks) * 512;
}

std::vector<StoredPacket> FindPacket(const std::string& bytes, const std::string& packet) {
  mmap_format::PacketHeader wanted = {};
  wanted.magic = mmap_format::kPacketMagic;
  wanted.length = static_cast<uint32_t>(packet.size());
  wanted.body_check = mmap_format::Check(packet.data(), packet.size());
  wanted.check = mmap_format::CheckOf(wanted);
  std::vector<StoredPacket> found;
  const std::string magic(reinterpret_cast<const char*>(&wanted.magic), sizeof wanted.magic);
  for (size_t at = bytes.find(magic); at != std::string::npos; at = bytes.find(magic, at + 1)) {
    const size_t body = at + sizeof wanted;
    if (at % 8 != 0 || body + packet.size() > bytes.size()) continue;
    mmap_format::PacketHeader header;
    std::memcpy(&header, bytes.data() + at, sizeof header);
    if (header.length != wanted.length || header.check != wanted.check ||
        header.body_check != wanted.body_check || bytes.compare(body, packet.size(), packet) != 0) {
      continue;
    }
    found.push_back({at, body + packet.size()});
  }
  return found;
}

DurabilityScope::DurabilityScope(uint64_t value) {
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_durability,
                                                           value);
}

DurabilityScope::~DurabilityScope() {
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_durability,
                                                           base::Optional<uint64_t>());
}

bool Includes(const Packets& packets, const Packets& wanted) {
  const std::multiset<std::string> has(packets.begin(), packets.end());
  const std::multiset<std::string> wants(wanted.begin(), wanted.end());
  return std::includes(has.begin(), has.end(), wants.begin(), wants.end());
}

Packets Union(const Packets& a, const Packets& b) {
  const std::multiset<std::string> in_a(a.begin(), a.end()), in_b(b.begin(), b.end());
  Packets both;
  std::set_union(in_a.begin(), in_a.end(), in_b.begin(), in_b.end(), std::back_inserter(both));
  return both;
}

int LinesWith(int level, const std::string& text) {
  int count = 0;
  for (const std::string& line : RecordingLog::Texts(level)) {
    if (line.find(text) != std::string::npos) ++count;
  }
  return count;
}

std::string Show(const Packets& packets) {
  std::string text = std::to_string(packets.size()) + " packets:";
  for (size_t i = 0; i < packets.size() && i < 12; ++i) {
    text += " [" + std::to_string(packets[i].size()) + "] ";
    for (const char byte : packets[i].substr(0, 12)) {
      const bool plain = byte >= ' ' && byte <= '~';
      char hex[8];
      std::snprintf(hex, sizeof hex, plain ? "%c" : "\\x%02x", static_cast<unsigned char>(byte));
      text += hex;
    }
  }
  return text;
}

}  // namespace quenor::test
