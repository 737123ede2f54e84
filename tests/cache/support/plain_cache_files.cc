// The helpers for the plain file: an object of their own, so that tests of the mapped file alone
// need no plain one.
#include "services/cache_file_posix/format.h"
#include "tests/cache/support/cache_files.h"

namespace quenor::test {

bool OpenFile(ReliableReportCacheFile& file, const std::string& path) {
  return file.Open(base::FilePath(path));
}

bool BeginSave(ReliableReportCacheFile& file, const Packets&) { return file.Clear(); }

bool Append(ReliableReportCacheFile& file, const std::string& packet) {
  const auto* const data = reinterpret_cast<const uint8_t*>(packet.data());
  return file.AppendDataPacket({data, static_cast<uint32_t>(packet.size())});
}

std::string NextPlainHeader() {
  cache_file::FileHeader header = cache_file::MakeFileHeader();
  header.version = cache_file::kVersion + 1;
  header.check = cache_file::CheckOf(header);
  return std::string(reinterpret_cast<const char*>(&header), sizeof header);
}

Packets LoadPlain(const std::string& path, int most_empty_in_a_row) {
  ReliableReportCacheFile file;
  if (!OpenFile(file, path)) return {"cannot open"};
  return ReadAll(file, most_empty_in_a_row);
}

}  // namespace quenor::test
