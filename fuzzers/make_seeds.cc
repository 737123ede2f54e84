// Writes the first inputs of the fuzzers with the library itself: MAKE_SEEDS FOLDER, which gets
// cache_file/ and mmap_file/. Files as a close leaves them, and as a kill does amid a save.
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzzers/fuzz_support.h"
#include "fuzzers/sparse_file.h"
#include "quenor_base/platform/default/cache_file_format.h"
#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "quenor_base/platform/reliable_report_cache_file.h"

namespace quenor::fuzz {

const char* const kFuzzedEnd = "";

namespace {

Bytes Read() {
  std::ifstream stream(FuzzedPath(), std::ios::binary);
  return Bytes((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
}

class Folder {
 public:
  explicit Folder(const std::string& path) : path_(path) {
    std::filesystem::create_directories(path);
  }
  void Add(const Bytes& bytes) {
    std::ofstream stream(path_ + "/seed-" + std::to_string(count_++), std::ios::binary);
    stream.write(reinterpret_cast<const char*>(bytes.data()),
                 static_cast<std::streamsize>(bytes.size()));
  }

 private:
  const std::string path_;
  int count_ = 0;
};

// --- The plain file
// -------------------------------------------------------------------------------

bool Append(ReliableReportCacheFile* file, const std::string& bytes) {
  return file->AppendDataPacket(
      {reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())});
}

void Save(ReliableReportCacheFile* file, const Packets& packets) {
  FUZZ_CHECK(file->Clear());
  for (const std::string& packet : packets) FUZZ_CHECK(Append(file, packet));
}

void MakePlain(const std::string& path) {
  Folder folder(path);
  const std::vector<std::vector<Packets>> histories = {
      {},
      {{}},
      {{"a"}},
      {{"one", "two", "three"}},
      {{"a", "b", "c"}, {"b", "c", "d"}},
      {{"a", "b", "c"}, {"c", "b", "a"}, {"a", "c"}},
      {{"x", "x", "x"}, {"x", "", "x"}},
      {{std::string(1500, 'l')}, {"s", std::string(1500, 'l'), "t"}},
      {{"a", "b", "c", "d"}, {"d", "e", "a"}, {"e", "f", "d", "a"}, {"f"}},
  };
  for (const std::vector<Packets>& history : histories) {
    RemoveFuzzed();
    ReliableReportCacheFile file;
    FUZZ_CHECK(file.Open(base::FilePath(FuzzedPath())));
    for (const Packets& packets : history) Save(&file, packets);
    folder.Add(Read());
    Bytes begun = Read();
    begun.resize(10);  // A creation that was killed.
    folder.Add(begun);
    Bytes torn = Read();
    torn.resize(torn.size() - torn.size() / 10);
    folder.Add(torn);
    file.Close();
    folder.Add(Read());
  }
  // What recovery makes of damage, and the damage.
  Bytes damaged = Read();
  damaged[damaged.size() / 2] ^= 1;
  folder.Add(damaged);
  cache_file::FileHeader newer = cache_file::MakeFileHeader();
  newer.version = 2;
  newer.check = cache_file::CheckOf(newer);
  std::memcpy(damaged.data(), &newer, sizeof newer);
  folder.Add(damaged);
  RemoveFuzzed();
}

// --- The mapped file
// ------------------------------------------------------------------------------

bool Open(MultiProcessSafetyMmapFile* file) {
  return file->Open(base::FilePath(FuzzedPath()), base::MemoryMappedFile::Access::READ_WRITE_EXTEND,
                    0);
}

void Save(MultiProcessSafetyMmapFile* file, const Packets& packets, int64_t also_announced) {
  int64_t size = also_announced;
  for (const std::string& packet : packets) size += static_cast<int64_t>(packet.size() + 4);
  FUZZ_CHECK(file->Clear(size));
  for (const std::string& packet : packets) {
    FUZZ_CHECK(file->AppendDataPacket(
        {reinterpret_cast<const uint8_t*>(packet.data()), static_cast<uint32_t>(packet.size())}));
  }
}

void MakeMapped(const std::string& path) {
  Folder folder(path);
  folder.Add(ToSparse(Bytes(16384)));  // A creation that was killed.
  const std::vector<std::vector<Packets>> histories = {
      {},
      {{}},
      {{"a"}},
      {{"one", "two", "three"}, {"two", "three", "four"}},
      {{"a", "b", "c"}, {"c", "b", "a"}, {"a", "c"}, {}},
      {{"x", "x"}, {"x", "", "x"}, {std::string(500, 'l'), "x"}},
      {{"s"}, {"s", std::string(12000, 'l')}, {"t"}},  // Moves to a larger extent.
  };
  for (const std::vector<Packets>& history : histories) {
    RemoveFuzzed();
    MultiProcessSafetyMmapFile file;
    FUZZ_CHECK(Open(&file));
    for (const Packets& packets : history) {
      Save(&file, packets, 0);
      folder.Add(ToSparse(Read()));
    }
    Save(&file, {"under", "way"}, 10);  // Never completed.
    folder.Add(ToSparse(Read()));
    file.Close();
    folder.Add(ToSparse(Read()));
  }
  // Several owners, dead and alive, one after another and beside one another.
  RemoveFuzzed();
  MultiProcessSafetyMmapFile files[4];
  for (int i = 0; i < 4; ++i) {
    FUZZ_CHECK(Open(&files[i]));
    Save(&files[i], {"owner", std::to_string(i)}, 0);
    folder.Add(ToSparse(Read()));
  }
  for (MultiProcessSafetyMmapFile& file : files) file.Close();
  folder.Add(ToSparse(Read()));
  FUZZ_CHECK(Open(&files[0]));
  Save(&files[0], {"all", "together"}, 0);
  folder.Add(ToSparse(Read()));
  RemoveFuzzed();
}

}  // namespace
}  // namespace quenor::fuzz

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string folder = argv[1];
  quenor::fuzz::MakePlain(folder + "/cache_file");
  quenor::fuzz::MakeMapped(folder + "/mmap_file");
  return 0;
}
