#include "tests/crash/support/cache_files.h"

#include "quenor_base/platform/base/check.h"
#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "quenor_base/platform/reliable_report_cache_file.h"

namespace quenor::test {
namespace {

template <typename Packet>
bool CopyOf(const Packet& packet, std::string* out) {
  if (packet.data == nullptr || packet.size == 0) return false;
  out->assign(reinterpret_cast<const char*>(packet.data), packet.size);
  return true;
}

template <typename Packet>
Packet PacketOf(const std::string& bytes) {
  Packet packet;
  packet.data = reinterpret_cast<const uint8_t*>(bytes.data());
  packet.size = static_cast<uint32_t>(bytes.size());
  return packet;
}

class MappedFile : public CacheFile {
 public:
  bool Open(const std::string& path) override {
    return file_.Open(base::FilePath(path), base::MemoryMappedFile::READ_WRITE_EXTEND, 0);
  }
  void Close() override { file_.Close(); }
  bool IsSaveComplete() override { return file_.IsSaveComplete(); }
  bool Clear(size_t size) override { return file_.Clear(static_cast<int64_t>(size)); }
  bool Append(const std::string& packet) override {
    return file_.AppendDataPacket(PacketOf<MmapDataPacket>(packet));
  }
  bool Next(std::string* packet) override { return CopyOf(file_.GetNextDataPacket(), packet); }

 private:
  MultiProcessSafetyMmapFile file_;
};

class PlainFile : public CacheFile {
 public:
  bool Open(const std::string& path) override { return file_.Open(base::FilePath(path)); }
  void Close() override { file_.Close(); }
  bool IsSaveComplete() override { return file_.IsSaveComplete(); }
  bool Clear(size_t) override { return file_.Clear(); }
  bool Append(const std::string& packet) override {
    return file_.AppendDataPacket(PacketOf<ReliableReportCacheFile::DataPacket>(packet));
  }
  bool Next(std::string* packet) override { return CopyOf(file_.GetNextDataPacket(), packet); }

 private:
  ReliableReportCacheFile file_;
};

}  // namespace

const char* NameOf(FileKind kind) { return kind == FileKind::kMapped ? "mapped" : "plain"; }

FileKind FileKindOf(const std::string& name) {
  QUENOR_CHECK(name == "mapped" || name == "plain", "no kind of cache file");
  return name == "mapped" ? FileKind::kMapped : FileKind::kPlain;
}

std::unique_ptr<CacheFile> CacheFile::Create(FileKind kind) {
  if (kind == FileKind::kMapped) return std::make_unique<MappedFile>();
  return std::make_unique<PlainFile>();
}

Content CacheFile::Load() {
  Content content;
  for (std::string packet; Next(&packet);) content.push_back(packet);
  return content;
}

bool CacheFile::Save(const Content& content) {
  size_t size = 0;
  for (const std::string& packet : content) size += packet.size() + 4;
  bool good = Clear(size);
  for (const std::string& packet : content) good = Append(packet) && good;
  return good && IsSaveComplete();
}

}  // namespace quenor::test
