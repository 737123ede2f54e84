// The memory-mapped cache file: the input is the file, written down as sparse_file.h says. Whatever
// it holds, Open() takes it, no packet that the inspector shows is lost by that, and it serves on.
#include <algorithm>
#include <cstring>

#include "fuzzers/fuzzed_file.h"
#include "fuzzers/sparse_file.h"
#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "services/cache_shared/file_calls_posix.h"
#include "services/mmap_file_posix/format.h"
#include "services/mmap_file_posix/reader.h"

namespace quenor::fuzz {

const char* const kFuzzedEnd = ".mmap";

namespace {

using namespace mmap_format;

bool Open(MultiProcessSafetyMmapFile* file) {
  return file->Open(base::FilePath(FuzzedPath()), base::MemoryMappedFile::Access::READ_WRITE_EXTEND,
                    0);
}

// All that is not empty. An end mark may be a packet of no bytes: more than this many of those in a
// row are taken for the end.
Packets ReadAll(MultiProcessSafetyMmapFile* file) {
  constexpr size_t kMostEmpty = 64;
  Packets packets;
  for (size_t empty = 0; empty <= kMostEmpty; ++empty) {
    const MmapDataPacket packet = file->GetNextDataPacket();
    if (packet.size == 0) continue;
    FUZZ_CHECK(packet.size <= kLargestSparseFile);
    packets.emplace_back(reinterpret_cast<const char*>(packet.data), packet.size);
    empty = 0;
  }
  return packets;
}

void Save(MultiProcessSafetyMmapFile* file, const Packets& packets) {
  int64_t size = 0;
  for (const std::string& packet : packets) size += static_cast<int64_t>(packet.size() + 4);
  FUZZ_CHECK(file->Clear(size));
  for (const std::string& packet : packets) {
    FUZZ_CHECK(file->AppendDataPacket(
        {reinterpret_cast<const uint8_t*>(packet.data()), static_cast<uint32_t>(packet.size())}));
  }
  FUZZ_CHECK(file->IsSaveComplete());
}

template <typename T>
T At(const Bytes& file, size_t offset) {
  T value;
  std::memcpy(&value, file.data() + offset, sizeof value);
  return value;
}

bool Holds(const Bytes& file, uint64_t offset, uint64_t size) {
  return size <= file.size() && offset <= file.size() - size;
}

// What a search of the whole file finds intact.
struct Surveyed {
  Packets packets;
  bool damaged = false;  // It is not as a writer leaves it.
  // One of no bytes: Open() takes the content of no other owner beside the one that has it.
  bool has_empty_packet = false;
};

Surveyed SurveyFuzzed() {
  cache_io::Descriptor file;
  FUZZ_CHECK(file.Open(FuzzedPath(), cache_io::Descriptor::How::kReadOnly));
  Reader reader(file.fd());
  FUZZ_CHECK(reader.Load());
  Surveyed surveyed;
  if (reader.table_state() == TableState::kNewer || reader.table_state() == TableState::kFresh) {
    return surveyed;
  }
  Survey survey;
  FUZZ_CHECK(reader.Examine(&survey));
  surveyed.damaged = survey.damage != nullptr;
  NothrowArray<uint8_t> body;
  for (const PacketPlace& place : survey.packets) {
    FUZZ_CHECK(reader.ReadBody(place, &body) && body.size() == place.length);
    surveyed.has_empty_packet = surveyed.has_empty_packet || body.empty();
    if (!body.empty()) surveyed.packets.emplace_back(body.begin(), body.end());
  }
  return surveyed;
}

// --- Changing an input ---------------------------------------------------------------------------

template <typename T>
void Put(Bytes* file, size_t offset, const T& value) {
  std::memcpy(file->data() + offset, &value, sizeof value);
}

void SealPacket(Bytes* file, uint64_t offset) {
  if (!Holds(*file, offset, sizeof(PacketHeader))) return;
  PacketHeader packet = At<PacketHeader>(*file, offset);
  if (packet.magic != kPacketMagic || !Holds(*file, offset + sizeof packet, packet.length)) return;
  packet.body_check = Check(file->data() + offset + sizeof packet, packet.length);
  packet.check = CheckOf(packet);
  Put(file, offset, packet);
}

void SealExtent(Bytes* file, uint64_t offset) {
  if (!Holds(*file, offset, sizeof(ExtentHeader))) return;
  ExtentHeader extent = At<ExtentHeader>(*file, offset);
  if (extent.magic != kExtentMagic) return;
  extent.check = CheckOf(extent);
  extent.length = LengthWord((extent.length & UINT32_MAX) * kUnit, extent.epoch);
  Put(file, offset, extent);
}

// The check of a seal and of the index that it names; `agree`: and the head of the extent says what
// the seal says.
void SealOwner(Bytes* file, uint32_t owner, int which, bool agree) {
  const size_t place = RecordOffset(owner) + static_cast<size_t>(which) * sizeof(Seal);
  if (!Holds(*file, place, sizeof(Seal))) return;
  Seal seal = At<Seal>(*file, place);
  const uint8_t* const first = file->data() + place;
  const bool is_zero =
      std::all_of(first, first + sizeof seal, [](uint8_t byte) { return byte == 0; });
  if (is_zero || seal.check == kWriting) return;
  const uint64_t index = seal.extent_offset + seal.index_at;
  const uint64_t index_size = uint64_t{seal.packets} * sizeof(uint64_t);
  if (seal.extent_offset < file->size() && Holds(*file, index, index_size)) {
    seal.index_check = Check(file->data() + index, index_size);
    if (agree && seal.extent_offset % kUnit == 0 && seal.extent_offset >= kTableSize) {
      ExtentHeader extent = At<ExtentHeader>(*file, seal.extent_offset);
      extent.magic = kExtentMagic;
      extent.owner = owner;
      extent.epoch = seal.extent_epoch;
      extent.length = LengthWord(seal.extent_size, seal.extent_epoch);
      Put(file, seal.extent_offset, extent);
    }
  }
  seal.check = CheckOf(seal);
  Put(file, place, seal);
}

// Makes the checks hold, but for some.
void SealAll(Bytes* file, Random& random) {
  if (Holds(*file, 0, sizeof(Header)) && !OneIn(random, 16)) {
    Header header = At<Header>(*file, 0);
    header.magic = kHeaderMagic;
    header.check = CheckOf(header);
    Put(file, 0, header);
  }
  for (size_t at = kTableSize; at + sizeof(PacketHeader) <= file->size(); at += 8) {
    uint32_t magic;
    std::memcpy(&magic, file->data() + at, sizeof magic);
    if (magic == kPacketMagic && !OneIn(random, 64)) SealPacket(file, at);
  }
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    for (int which = 0; which < 2; ++which) {
      if (!OneIn(random, 64)) SealOwner(file, owner, which, !OneIn(random, 4));
    }
  }
  for (size_t at = kTableSize; at < file->size(); at += kUnit) {
    if (!OneIn(random, 64)) SealExtent(file, at);
  }
}

void ChangeNumber(Bytes* file, Random& random, size_t begin, size_t size) {
  const bool is_short = OneIn(random, 2);
  const size_t width = is_short ? 4 : 8;
  const size_t at = begin + Below(random, size / width) * width;
  if (!Holds(*file, at, width)) return;
  if (is_short) {
    Put(file, at, static_cast<uint32_t>(Interesting(random, At<uint32_t>(*file, at))));
  } else {
    Put(file, at, Interesting(random, At<uint64_t>(*file, at)));
  }
}

void Copy(Bytes* file, size_t from, size_t to, size_t size) {
  if (!Holds(*file, from, size) || !Holds(*file, to, size)) return;
  std::memmove(file->data() + to, file->data() + from, size);
}

// One of the first few owners' records: those that are in use.
size_t SomeRecord(Random& random) {
  return RecordOffset(static_cast<uint32_t>(1 + Below(random, OneIn(random, 8) ? kOwners : 4)));
}

void ChangeOne(Bytes* file, Random& random) {
  const size_t units = file->size() / kUnit;
  const size_t unit = units > 1 ? kTableSize + Below(random, units - 1) * kUnit : 0;
  const size_t seal = SomeRecord(random) + Below(random, 2) * sizeof(Seal);
  switch (Below(random, 14)) {
    case 0:
      ChangeNumber(file, random, 0, sizeof(Header));
      break;
    case 1:
    case 2:
      ChangeNumber(file, random, seal, sizeof(Seal));
      break;
    case 3:  // A reservation.
      ChangeNumber(file, random, SomeRecord(random) + 2 * sizeof(Seal), 2 * sizeof(Reservation));
      break;
    case 4:
      ChangeNumber(file, random, unit, sizeof(ExtentHeader));
      break;
    case 5:  // An index.
      ChangeNumber(file, random, unit + sizeof(ExtentHeader), 256);
      break;
    case 6: {  // A packet.
      size_t at = unit + sizeof(ExtentHeader) + Below(random, kUnit / 8) * 8;
      while (at + sizeof(PacketHeader) <= file->size()) {
        if (At<uint32_t>(*file, at) == kPacketMagic) {
          ChangeNumber(file, random, at, sizeof(PacketHeader));
          break;
        }
        at += 8;
      }
      break;
    }
    case 7:
      Copy(file, SomeRecord(random), SomeRecord(random), kRecordSize);
      break;
    case 8:
      Copy(file, SomeRecord(random), seal, sizeof(Seal));
      break;
    case 9:
      file->resize(std::min(kLargestSparseFile, RoundUp(Below(random, 6) * kUnit, kUnit)));
      break;
    case 10:
      if (units > 1) Copy(file, unit, kTableSize + Below(random, units - 1) * kUnit, kUnit);
      break;
    case 11:
      if (Holds(*file, seal, sizeof(Seal))) {
        Put(file, seal + offsetof(Seal, check), OneIn(random, 2) ? kWriting : uint64_t{0});
      }
      break;
    case 12:
      if (Holds(*file, seal, sizeof(Seal))) {
        std::memset(file->data() + seal, 0, sizeof(Seal));
      }
      break;
    default: {
      const size_t at = unit + Below(random, 2048);
      const size_t file_size = file->size();
      if (Holds(*file, at, 64)) MutatePart(file, at, 64, 64);
      file->resize(file_size);
    }
  }
}

}  // namespace
}  // namespace quenor::fuzz

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed) {
  using namespace quenor::fuzz;
  Random random(seed);
  const size_t way = Below(random, 8);
  if (way <= 1) size = LLVMFuzzerMutate(data, size, max_size);
  if (way == 0) return size;
  Bytes file = FromSparse(data, size);
  if (way >= 2) {
    for (size_t i = 1 + Below(random, 4); i > 0; --i) ChangeOne(&file, random);
  }
  SealAll(&file, random);
  Bytes sparse = ToSparse(file);
  sparse.resize(std::min(sparse.size(), max_size));
  if (!sparse.empty()) std::memcpy(data, sparse.data(), sparse.size());
  return sparse.size();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace quenor::fuzz;
  const bool drops_first = size > 0 && data[size - 1] % 2 == 0;
  // The inspector is slow: it reads each owner's content by itself.
  const bool inspects = size % 8 == 0;
  const size_t file_size = WriteFuzzedSparse(data, size);
  const Surveyed before = SurveyFuzzed();
  if (inspects) {
    const Inspected inspected = InspectFuzzed();
    FUZZ_CHECK(!inspected.summary.mapped || CountMissing(before.packets, inspected.packets) == 0);
  }

  quenor::MultiProcessSafetyMmapFile file;
  FUZZ_CHECK(Open(&file));
  Packets found = ReadAll(&file);
  file.Close();
  const Surveyed opened = SurveyFuzzed();
  FUZZ_CHECK(CountMissing(opened.packets, found) == 0);
  FUZZ_CHECK(CountMissing(opened.packets, before.packets) == 0);
  for (const std::string& packet : found) FUZZ_CHECK(packet.size() <= file_size);

  FUZZ_CHECK(Open(&file));
  FUZZ_CHECK(!opened.damaged && ReadAll(&file) == found);
  const bool has_all = found.size() == opened.packets.size() && !opened.has_empty_packet;
  Packets saved = found;
  if (drops_first && !saved.empty()) saved.erase(saved.begin());
  saved.push_back("new");
  Save(&file, saved);
  std::rotate(saved.begin(), saved.begin() + 1, saved.end());
  Save(&file, saved);
  file.Close();
  const Surveyed after = SurveyFuzzed();
  FUZZ_CHECK(!after.damaged);
  FUZZ_CHECK(CountMissing(after.packets, saved) == 0);
  FUZZ_CHECK(!has_all || after.packets.size() == saved.size());
  if (inspects) FUZZ_CHECK(CountMissing(InspectWhole().packets, saved) == 0);

  FUZZ_CHECK(Open(&file));
  const Packets again = ReadAll(&file);
  FUZZ_CHECK(!has_all || again == saved);
  file.Close();
  FUZZ_CHECK(!has_all || PurgeFuzzed() == saved.size());
  return 0;
}
