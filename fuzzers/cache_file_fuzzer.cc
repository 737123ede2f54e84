// The plain cache file: the input is the file. Whatever it holds, Open() takes it, shows what the
// inspector shows, loses no packet that its own writer would have left, and serves on.
#include <algorithm>
#include <cstring>

#include "fuzzers/fuzzed_file.h"
#include "quenor_base/platform/reliable_report_cache_file.h"
#include "services/cache_file_posix/format.h"
#include "services/mmap_file_posix/format.h"

namespace quenor::fuzz {

const char* const kFuzzedEnd = ".cache";

namespace {

using cache_file::FileHeader;
using cache_file::kHeaderSize;
using cache_file::kRecordHeaderSize;
using cache_file::RecordHeader;
using cache_file::Run;

// --- What has to be in the content
// ----------------------------------------------------------------

// The packets of the records that stand behind an intact header without a gap: those that the last
// whole seal there names, and those behind it.
Packets PacketsThatCount(const uint8_t* data, size_t size) {
  const FileHeader expected = cache_file::MakeFileHeader();
  if (size < kHeaderSize || std::memcmp(data, &expected, kHeaderSize) != 0) return {};
  struct Known {
    uint64_t number;
    std::string bytes;
  };
  std::vector<Known> packets;
  std::vector<Run> sealed;
  size_t first_unsealed = 0;
  uint64_t last_number = 0;
  for (size_t at = kHeaderSize; size - at >= kRecordHeaderSize;) {
    RecordHeader header;
    std::memcpy(&header, data + at, sizeof header);
    const uint8_t* const body = data + at + kRecordHeaderSize;
    if (!cache_file::IsRecord(header, at)) return {};  // A later seal may be behind it.
    if (header.size > size - at - kRecordHeaderSize) break;
    const bool intact = cache_file::BodyCheckOf(body, header.size, at) == header.body_check;
    if (header.magic == cache_file::kPacketMagic) {
      if (intact && header.number > last_number) {
        packets.push_back(
            {header.number, std::string(reinterpret_cast<const char*>(body), header.size)});
      }
      last_number = std::max(last_number, header.number);
    } else if (header.magic == cache_file::kSealMagic && intact && header.size % sizeof(Run) == 0) {
      sealed.resize(header.size / sizeof(Run));
      if (!sealed.empty()) std::memcpy(sealed.data(), body, header.size);
      uint64_t left = packets.size();
      for (const Run& run : sealed) {
        // No writer names more packets than there are, or none, or numbers that no file reaches.
        if (run.count == 0 || run.count > left || run.first >> 61 != 0) return {};
        left -= run.count;
      }
      first_unsealed = packets.size();
    }
    at += kRecordHeaderSize + header.size;
  }
  Packets counting;
  for (size_t i = 0; i < packets.size(); ++i) {
    const auto names = [&](const Run& run) {
      return packets[i].number >= run.first && packets[i].number - run.first < run.count;
    };
    const bool counts = i >= first_unsealed || std::any_of(sealed.begin(), sealed.end(), names);
    if (counts && !packets[i].bytes.empty()) counting.push_back(packets[i].bytes);
  }
  return counting;
}

// All that is not empty. An end mark may be a packet of no bytes: there are no more of those than
// the file has room for.
Packets ReadAll(ReliableReportCacheFile* file, size_t file_size) {
  Packets packets;
  for (size_t i = 0; i <= file_size / kRecordHeaderSize; ++i) {
    const ReliableReportCacheFile::DataPacket packet = file->GetNextDataPacket();
    if (packet.size > 0) {
      packets.emplace_back(reinterpret_cast<const char*>(packet.data), packet.size);
    }
  }
  FUZZ_CHECK(file->GetNextDataPacket().size == 0);
  return packets;
}

void Save(ReliableReportCacheFile* file, const Packets& packets) {
  FUZZ_CHECK(file->Clear());
  for (const std::string& packet : packets) {
    FUZZ_CHECK(file->AppendDataPacket(
        {reinterpret_cast<const uint8_t*>(packet.data()), static_cast<uint32_t>(packet.size())}));
  }
  FUZZ_CHECK(file->IsSaveComplete());
}

// --- Changing an input
// ----------------------------------------------------------------------------

// A file in parts: bytes that are no record, or a record with what its checks are made of.
struct Part {
  bool is_record = false;
  RecordHeader header = {};
  Bytes body;  // Or the bytes.
};

bool IsMagic(uint32_t magic) {
  return magic == cache_file::kPacketMagic || magic == cache_file::kOrderMagic ||
         magic == cache_file::kSealMagic;
}

std::vector<Part> PartsOf(const uint8_t* data, size_t size) {
  std::vector<Part> parts(1);
  parts[0].body.assign(data, data + std::min(size, size_t{kHeaderSize}));
  for (size_t at = parts[0].body.size(); at < size;) {
    Part part;
    part.is_record = size - at >= kRecordHeaderSize;
    if (part.is_record) {
      std::memcpy(&part.header, data + at, kRecordHeaderSize);
      part.is_record =
          IsMagic(part.header.magic) && part.header.size <= size - at - kRecordHeaderSize;
    }
    if (!part.is_record) {
      parts.back().is_record ? parts.push_back(Part()) : void();
      parts.back().body.push_back(data[at++]);
      continue;
    }
    const uint8_t* const body = data + at + kRecordHeaderSize;
    part.body.assign(body, body + part.header.size);
    at += kRecordHeaderSize + part.header.size;
    parts.push_back(std::move(part));
  }
  return parts;
}

// With checks that hold, but for one record in 64.
Bytes BytesOf(const std::vector<Part>& parts, Random& random) {
  Bytes bytes;
  for (const Part& part : parts) {
    if (part.is_record) {
      RecordHeader header = part.header;
      if (!OneIn(random, 64)) header.size = static_cast<uint32_t>(part.body.size());
      if (!OneIn(random, 64)) {
        header.body_check =
            cache_file::BodyCheckOf(part.body.data(), part.body.size(), bytes.size());
      }
      if (!OneIn(random, 64)) header.check = cache_file::CheckOf(header, bytes.size());
      const uint8_t* const first = reinterpret_cast<const uint8_t*>(&header);
      bytes.insert(bytes.end(), first, first + sizeof header);
    }
    bytes.insert(bytes.end(), part.body.begin(), part.body.end());
  }
  if (bytes.size() >= kHeaderSize && !OneIn(random, 64)) {
    FileHeader header;
    std::memcpy(&header, bytes.data(), sizeof header);
    header.magic = cache_file::kFileMagic;
    header.check = cache_file::CheckOf(header);
    std::memcpy(bytes.data(), &header, sizeof header);
  }
  return bytes;
}

Part NewNames(Random& random, const std::vector<Part>& parts) {
  Part part;
  part.is_record = true;
  part.header.magic = OneIn(random, 2) ? cache_file::kSealMagic : cache_file::kOrderMagic;
  part.header.number = Below(random, 20);
  for (size_t i = Below(random, 5); i > 0; --i) {
    const Run run = {parts[Below(random, parts.size())].header.number,
                     OneIn(random, 8) ? Interesting(random, 1) : 1 + Below(random, 4)};
    const uint8_t* const first = reinterpret_cast<const uint8_t*>(&run);
    part.body.insert(part.body.end(), first, first + sizeof run);
  }
  return part;
}

void ChangeOne(std::vector<Part>* parts, Random& random, size_t room) {
  const size_t i = Below(random, parts->size());
  const size_t j = Below(random, parts->size());
  Part& part = (*parts)[i];
  switch (Below(random, 9)) {
    case 0:
      parts->insert(parts->begin() + j, Part(part));
      break;
    case 1:
      if (i > 0) parts->erase(parts->begin() + i);
      break;
    case 2:
      if (i > 0 && j > 0) std::swap(part, (*parts)[j]);
      break;
    case 3:
      part.header.number = OneIn(random, 2) ? Interesting(random, part.header.number)
                                            : (*parts)[j].header.number + Below(random, 3);
      break;
    case 4:
      part.header.magic = OneIn(random, 2) ? cache_file::kPacketMagic : cache_file::kSealMagic;
      break;
    case 5:
      parts->insert(parts->begin() + 1 + Below(random, parts->size()), NewNames(random, *parts));
      break;
    case 6:  // In order again, as a writer numbers them.
      for (size_t k = 1; k < parts->size(); ++k) {
        if ((*parts)[k].header.magic == cache_file::kPacketMagic) (*parts)[k].header.number = k;
      }
      break;
    default:
      MutatePart(&part.body, 0, part.body.size(), part.body.size() + std::min(room, size_t{64}));
  }
}

}  // namespace
}  // namespace quenor::fuzz

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed) {
  using namespace quenor::fuzz;
  Random random(seed);
  const size_t way = Below(random, 4);
  if (way <= 1) size = LLVMFuzzerMutate(data, size, max_size);
  if (way == 0) return size;
  std::vector<Part> parts = PartsOf(data, size);
  if (way >= 2) {
    for (size_t i = 1 + Below(random, 4); i > 0; --i) ChangeOne(&parts, random, max_size - size);
  }
  Bytes bytes = BytesOf(parts, random);
  bytes.resize(std::min(bytes.size(), max_size));
  if (!bytes.empty()) std::memcpy(data, bytes.data(), bytes.size());
  return bytes.size();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace quenor::fuzz;
  const quenor::base::FilePath path(FuzzedPath());
  const bool drops_first = size > 0 && data[size - 1] % 2 == 0;
  WriteFuzzed(data, size);
  const Inspected before = InspectFuzzed();

  quenor::ReliableReportCacheFile file;
  FUZZ_CHECK(file.Open(path));
  const Packets found = ReadAll(&file, size);
  file.Close();
  if (!BeginsWith(data, size, quenor::mmap_format::kHeaderMagic)) {
    FUZZ_CHECK(found == before.packets);
  }
  size_t bytes = 0;
  for (const std::string& packet : found) bytes += packet.size();
  FUZZ_CHECK(bytes <= size);
  FUZZ_CHECK(CountMissing(found, PacketsThatCount(data, size)) == 0);

  FUZZ_CHECK(file.Open(path));
  FUZZ_CHECK(ReadAll(&file, size) == found);
  Packets saved = found;
  if (drops_first && !saved.empty()) saved.erase(saved.begin());
  saved.push_back("new");
  Save(&file, saved);
  // Saved once more in another order, and left as a kill leaves it.
  std::rotate(saved.begin(), saved.begin() + 1, saved.end());
  Save(&file, saved);
  const Inspected killed = InspectWhole();
  FUZZ_CHECK(CountMissing(killed.packets, saved) == 0);
  file.Close();

  FUZZ_CHECK(file.Open(path));
  FUZZ_CHECK(ReadAll(&file, size + 35) == saved);
  file.Close();
  FUZZ_CHECK(InspectWhole().packets == saved);
  FUZZ_CHECK(PurgeFuzzed() == saved.size());
  return 0;
}
