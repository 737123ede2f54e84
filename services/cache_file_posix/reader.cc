#include "services/cache_file_posix/reader.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "services/cache_file_posix/format.h"
#include "services/cache_shared/file_calls_posix.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_file {
namespace {

constexpr size_t kWindowBytes = 64 * 1024;
// Steps that sorting out the order of an unsealed save may take. Only a forged file needs more; the
// rest of its packets then come in the order of the file.
constexpr uint64_t kMaxOrderSteps = uint64_t{1} << 24;
// No writer counts up to here. Whoever went on from such a number would reach the limit.
constexpr uint64_t kForgedNumber = kNumberLimit / 2;

class Reader {
 public:
  Reader(int fd, uint64_t digest_key, Content* content)
      : fd_(fd), digest_key_(digest_key), content_(content) {}

  ReadResult Read();

 private:
  // Each false ends the reading; result_ says why.
  bool Fail(ReadResult result);
  bool View(uint64_t offset, size_t size, const uint8_t** bytes);
  bool ReadFileHeader();
  bool ReadRecords();
  bool ReadRecordHeader(uint64_t offset, RecordHeader* header);
  bool FindRecord(uint64_t from, uint64_t* found);
  bool TakeRecord(uint64_t offset, const RecordHeader& header);
  bool TakePacket(uint64_t offset, const RecordHeader& header);
  bool TakeRuns(uint64_t offset, const RecordHeader& header);
  bool PutInOrder();

  bool IsTornHeader(const uint8_t* bytes, uint64_t size) const;
  void NoteDamage(uint64_t offset, const char* what);
  bool AddTailRun(const Run& run);
  void AddRun(const Run& run, NothrowArray<uint8_t>* taken, uint64_t* steps, uint64_t* added);
  void AddTail(NothrowArray<uint8_t>* taken);

  const int fd_;
  const uint64_t digest_key_;
  Content* const content_;
  ReadResult result_ = ReadResult::kOk;

  uint64_t file_size_ = 0;
  NothrowArray<uint8_t> window_;
  uint64_t window_offset_ = 0;

  uint64_t at_ = 0;        // Where the next record is expected.
  uint64_t searched_ = 0;  // Bytes, of kSearchLimitBytes.
  bool found_record_ = false;

  NothrowArray<Packet> packets_;  // Every intact one in the file, by number.
  size_t first_unsealed_ = 0;     // In packets_: behind the last seal.
  NothrowArray<Run> sealed_;      // As the last seal says.
  NothrowArray<Run> tail_;        // What comes after it, in the order written.
  NothrowArray<Run> runs_;        // Of the record in hand.
  uint32_t damaged_in_tail_ = 0;
};

bool Reader::Fail(ReadResult result) {
  result_ = result;
  return false;
}

// At most kWindowBytes that are inside the file. Valid until the next call.
bool Reader::View(uint64_t offset, size_t size, const uint8_t** bytes) {
  const bool inside = offset >= window_offset_ && offset + size <= window_offset_ + window_.size();
  if (!inside) {
    window_.Clear();
    const size_t wanted =
        static_cast<size_t>(std::min<uint64_t>(kWindowBytes, file_size_ - offset));
    if (!window_.Assign(wanted, 0)) return Fail(ReadResult::kNoMemory);
    const int64_t got = cache_io::ReadAt(fd_, window_.data(), wanted, offset);
    if (got != static_cast<int64_t>(wanted)) {
      if (got >= 0) errno = EIO;  // Somebody shortens it while it is read.
      window_.Clear();
      return Fail(ReadResult::kUnreadable);
    }
    window_offset_ = offset;
  }
  *bytes = window_.data() + (offset - window_offset_);
  return true;
}

void Reader::NoteDamage(uint64_t offset, const char* what) {
  if (content_->damaged) return;
  content_->damaged = true;
  std::snprintf(content_->damage, sizeof content_->damage, "%s at byte %" PRIu64, what, offset);
}

ReadResult Reader::Read() {
  uint64_t links;
  if (!cache_io::FileSize(fd_, &file_size_, &links)) return ReadResult::kUnreadable;
  if (!window_.Reserve(kWindowBytes)) return ReadResult::kNoMemory;
  if (!ReadFileHeader() || !ReadRecords()) return result_;
  if (content_->version == 0 && !found_record_) {
    content_->kind = Content::Kind::kForeign;
    return ReadResult::kOk;
  }
  content_->kind = Content::Kind::kOurs;
  content_->end = at_;
  return PutInOrder() ? ReadResult::kOk : result_;
}

// Leaves at_ where the first record is. False with kOk: there is none to be read.
bool Reader::ReadFileHeader() {
  const FileHeader expected = MakeFileHeader();
  const size_t size = static_cast<size_t>(std::min(file_size_, kHeaderSize));
  const uint8_t* bytes = nullptr;
  if (size > 0 && !View(0, size, &bytes)) return false;
  if (size < kHeaderSize) {
    if (size == 0 || std::memcmp(bytes, &expected, size) == 0) return false;
    NoteDamage(0, "no header");
    content_->kind = Content::Kind::kForeign;
    return false;
  }
  FileHeader header;
  std::memcpy(&header, bytes, sizeof header);
  const bool intact = header.magic == kFileMagic && header.check == CheckOf(header);
  if (intact && header.version > kVersion) {
    content_->kind = Content::Kind::kNewer;
    content_->version = header.version;
    return false;
  }
  if (intact && header.version == kVersion) {
    content_->version = kVersion;
    at_ = kHeaderSize;
    return true;
  }
  NoteDamage(0, "no header");
  uint64_t found;
  if (!FindRecord(0, &found)) return false;
  at_ = found;
  return true;
}

// True for what may be there when a record was being written and the process was killed.
bool Reader::IsTornHeader(const uint8_t* bytes, uint64_t size) const {
  const size_t compared = static_cast<size_t>(std::min<uint64_t>(size, sizeof(uint32_t)));
  for (const uint32_t magic : {kPacketMagic, kOrderMagic, kSealMagic}) {
    if (std::memcmp(bytes, &magic, compared) == 0) return true;
  }
  return false;
}

bool Reader::ReadRecordHeader(uint64_t offset, RecordHeader* header) {
  const uint8_t* bytes;
  if (!View(offset, kRecordHeaderSize, &bytes)) return false;
  std::memcpy(header, bytes, sizeof *header);
  return true;
}

bool Reader::ReadRecords() {
  while (at_ < file_size_) {
    const uint64_t left = file_size_ - at_;
    if (left < kRecordHeaderSize) {
      const uint8_t* bytes;
      if (!View(at_, static_cast<size_t>(left), &bytes)) return false;
      if (!IsTornHeader(bytes, left)) NoteDamage(at_, "no record");
      return true;
    }
    RecordHeader header;
    if (!ReadRecordHeader(at_, &header)) return false;
    if (!IsRecord(header, at_)) {
      NoteDamage(at_, "no record");
      if (!FindRecord(at_ + 1, &at_)) return false;
      continue;
    }
    found_record_ = true;
    if (header.size > left - kRecordHeaderSize) return true;  // Torn by a kill.
    if (!TakeRecord(at_, header)) return false;
    at_ += kRecordHeaderSize + header.size;
  }
  return true;
}

// *found is the place of the next header of a record that is whole; else the end of the file.
bool Reader::FindRecord(uint64_t from, uint64_t* found) {
  *found = file_size_;
  uint64_t at = from;
  while (at < file_size_ && file_size_ - at >= kRecordHeaderSize) {
    if (searched_ >= kSearchLimitBytes) {
      NoteDamage(at, "search given up");
      return true;
    }
    // Whole windows, but for a hit near the end of one.
    const uint64_t left_in_window = at >= window_offset_ && at < window_offset_ + window_.size()
                                        ? window_offset_ + window_.size() - at
                                        : 0;
    const size_t size = static_cast<size_t>(
        left_in_window > 0 ? left_in_window : std::min<uint64_t>(kWindowBytes, file_size_ - at));
    const uint8_t* bytes;
    if (!View(at, size, &bytes)) return false;
    const void* const hit = std::memchr(bytes, kPacketMagic & 0xff, size);
    const uint64_t step = hit == nullptr ? size : static_cast<const uint8_t*>(hit) - bytes;
    at += step;
    searched_ += step + 1;
    if (hit == nullptr || file_size_ - at < kRecordHeaderSize) continue;
    RecordHeader header;
    if (!ReadRecordHeader(at, &header)) return false;
    if (IsRecord(header, at) && header.size <= file_size_ - at - kRecordHeaderSize) {
      *found = at;
      return true;
    }
    ++at;
  }
  return true;
}

bool Reader::TakeRecord(uint64_t offset, const RecordHeader& header) {
  return header.magic == kPacketMagic ? TakePacket(offset, header) : TakeRuns(offset, header);
}

bool Reader::TakePacket(uint64_t offset, const RecordHeader& header) {
  const uint64_t body = offset + kRecordHeaderSize;
  BodyHasher hasher(offset, digest_key_);
  for (uint32_t done = 0; done < header.size;) {
    const size_t part = std::min<size_t>(kWindowBytes, header.size - done);
    const uint8_t* bytes;
    if (!View(body + done, part, &bytes)) return false;
    hasher.Update(bytes, part);
    done += static_cast<uint32_t>(part);
  }
  const bool intact = hasher.Check() == header.body_check;
  if (!intact || header.number <= content_->last_number) {
    NoteDamage(offset, intact ? "packet out of order" : "damaged packet");
    ++damaged_in_tail_;
    content_->last_number = std::max(content_->last_number, header.number);
    return true;
  }
  content_->last_number = header.number;
  const Packet packet = {header.number, offset, header.size, false, hasher.ContentDigest()};
  if (!packets_.Push(packet)) return Fail(ReadResult::kNoMemory);
  return AddTailRun(Run{header.number, 1});
}

bool Reader::AddTailRun(const Run& run) {
  if (!tail_.empty() && tail_.back().first + tail_.back().count == run.first) {
    tail_.back().count += run.count;
    return true;
  }
  return tail_.Push(run) || Fail(ReadResult::kNoMemory);
}

// An order or a seal.
bool Reader::TakeRuns(uint64_t offset, const RecordHeader& header) {
  runs_.Clear();
  BodyHasher hasher(offset, digest_key_);
  // Each packet that it may name lies before it.
  uint64_t names_left = offset / kRecordHeaderSize;
  bool intact = header.size % sizeof(Run) == 0;
  for (uint32_t done = 0; intact && done < header.size; done += sizeof(Run)) {
    const uint8_t* bytes;
    if (!View(offset + kRecordHeaderSize + done, sizeof(Run), &bytes)) return false;
    hasher.Update(bytes, sizeof(Run));
    Run run;
    std::memcpy(&run, bytes, sizeof run);
    intact = run.count > 0 && run.count <= names_left && run.first < kNumberLimit;
    if (!intact) break;
    names_left -= run.count;
    if (!runs_.Push(run)) return Fail(ReadResult::kNoMemory);
  }
  if (!intact || hasher.Check() != header.body_check) {
    NoteDamage(offset, header.magic == kSealMagic ? "damaged seal" : "damaged order");
    return true;
  }
  if (header.magic == kOrderMagic) {
    for (const Run& run : runs_) {
      if (!AddTailRun(run)) return false;
    }
    return true;
  }
  sealed_.swap(runs_);
  tail_.Clear();
  first_unsealed_ = packets_.size();
  damaged_in_tail_ = 0;
  content_->save_number = std::max(content_->save_number, header.number);
  return true;
}

// Adds the packets of a run that are not taken yet, the last one first. There is room: PutInOrder()
// made it.
void Reader::AddRun(const Run& run, NothrowArray<uint8_t>* taken, uint64_t* steps,
                    uint64_t* added) {
  const auto by_number = [](const Packet& packet, uint64_t number) {
    return packet.number < number;
  };
  const Packet* const begin =
      std::lower_bound(packets_.begin(), packets_.end(), run.first, by_number);
  const Packet* const end = std::lower_bound(begin, static_cast<const Packet*>(packets_.end()),
                                             run.first + run.count, by_number);
  for (const Packet* packet = end; packet != begin && *steps > 0; --*steps) {
    --packet;
    uint8_t* const mark = taken->data() + (packet - packets_.data());
    if (*mark != 0) continue;
    *mark = 1;
    ++*added;
    static_cast<void>(content_->packets.Push(*packet));
  }
}

// A packet that the tail names twice counts where it is named last: what was before that is of a
// save that did not complete.
void Reader::AddTail(NothrowArray<uint8_t>* taken) {
  uint64_t steps = kMaxOrderSteps;
  uint64_t added = 0;
  for (size_t i = tail_.size(); i > 0; --i) AddRun(tail_[i - 1], taken, &steps, &added);
  std::reverse(content_->packets.begin(), content_->packets.end());
  for (size_t i = first_unsealed_; i < packets_.size(); ++i) {
    if ((*taken)[i] != 0) continue;
    (*taken)[i] = 1;
    static_cast<void>(content_->packets.Push(packets_[i]));
  }
}

bool Reader::PutInOrder() {
  NothrowArray<uint8_t> taken;
  if (!taken.Assign(packets_.size(), 0)) return Fail(ReadResult::kNoMemory);
  if (!content_->packets.Reserve(packets_.size())) return Fail(ReadResult::kNoMemory);

  // The seal first, to know what is in it; then again for the places that the tail leaves.
  uint64_t named = 0;
  uint64_t sealed = 0;
  uint64_t steps = UINT64_MAX;  // TakeRuns() has bounded them.
  for (const Run& run : sealed_) {
    named += run.count;
    AddRun(run, &taken, &steps, &sealed);
  }
  for (size_t i = 0; i < packets_.size(); ++i) {
    packets_[i].sealed = taken[i] != 0;
    taken[i] = 0;
  }
  content_->packets.Clear();
  content_->has_tail = !tail_.empty();
  AddTail(&taken);
  for (const Run& run : sealed_) {
    const size_t before = content_->packets.size();
    uint64_t added = 0;
    AddRun(run, &taken, &steps, &added);
    std::reverse(content_->packets.begin() + before, content_->packets.end());
  }
  content_->damaged_packets = damaged_in_tail_ + static_cast<uint32_t>(named - sealed);
  if (named != sealed) NoteDamage(content_->end, "packets of the last save are missing");
  if (std::max(content_->save_number, content_->last_number) >= kForgedNumber) {
    NoteDamage(content_->end, "numbers that no writer reaches before");
    if (content_->save_number >= kForgedNumber) content_->save_number = 1;
  }
  return true;
}

}  // namespace

ReadResult ReadContent(int fd, uint64_t digest_key, Content* content) {
  return Reader(fd, digest_key, content).Read();
}

}  // namespace cache_file
QUENOR_NAMESPACE_END
