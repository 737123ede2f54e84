#include "tests/cli/cache/fake_cache_inspector.h"

namespace quenor::test {

FakeCacheFile& GetFakeCacheFile() {
  static auto* const file = new FakeCacheFile;
  return *file;
}

}  // namespace quenor::test

QUENOR_NAMESPACE_BEGIN

using test::FakeCacheFile;
using test::GetFakeCacheFile;

CacheFileInspector::Result CacheFileInspector::Inspect(const base::FilePath& path, Visitor* visitor,
                                                       Summary* summary, std::string* error) {
  FakeCacheFile& file = GetFakeCacheFile();
  file.path = path.value();
  if (file.result != Result::kOk) {
    *error = file.error;
    return file.result;
  }
  *summary = file.summary;
  if (visitor == nullptr) return Result::kOk;
  for (const auto& [scripted, packets] : file.owners) {
    Owner owner = scripted;
    for (const std::string& packet : packets) {
      ++owner.packets;
      owner.bytes += packet.size();
    }
    visitor->OnOwner(owner);
    for (const std::string& packet : packets) {
      // A copy of its own that is gone after the call, as the contract allows.
      const std::vector<uint8_t> bytes(packet.begin(), packet.end());
      visitor->OnPacket(owner, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }
  }
  file.before_inspect_returns();
  return Result::kOk;
}

CacheFileInspector::Result CacheFileInspector::Purge(const base::FilePath& path, uint64_t* packets,
                                                     std::string* error) {
  FakeCacheFile& file = GetFakeCacheFile();
  file.path = path.value();
  ++file.purges;
  if (file.result != Result::kOk) {
    *error = file.error;
    return file.result;
  }
  *packets = 0;
  for (const auto& [owner, bodies] : file.owners) *packets += bodies.size();
  return Result::kOk;
}

QUENOR_NAMESPACE_END
