#include "tests/cache/damage_bench.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <map>
#include <utility>

#include "quenor_base/platform/base/check.h"
#include "services/mmap_file_posix/format.h"
#include "services/mmap_file_posix/reader.h"
#include "tests/support/fakes/recording_log.h"

namespace quenor::test {
namespace {

Packets LoadMappedAll(const std::string& path) { return LoadMapped(path); }

// Without the state of the head: whoever has the index does not need it.
std::vector<std::vector<StoredPacket>> FindMapped(const std::string& image,
                                                  const std::string& packet) {
  std::vector<std::vector<StoredPacket>> copies;
  for (const StoredPacket& copy : FindPacket(image, packet)) {
    const uint64_t state = copy.begin + offsetof(mmap_format::PacketHeader, state);
    uint32_t value;
    std::memcpy(&value, image.data() + state, sizeof value);
    if (value != mmap_format::kLive) continue;
    copies.push_back({{copy.begin, state}, {state + sizeof value, copy.end}});
  }
  return copies;
}

// Neither a seal nor the head of an extent in use tells of any content.
bool LooksUnusedMapped(const std::string& image) {
  using namespace mmap_format;
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    const size_t begin = std::min<size_t>(RecordOffset(owner), image.size());
    const std::string seals = image.substr(begin, sizeof(OwnerRecord::seals));
    if (seals.find_first_not_of('\0') != std::string::npos) return false;
  }
  ExtentHeader head;
  for (uint64_t at = kTableSize; at + sizeof head <= image.size(); at += kUnit) {
    std::memcpy(&head, image.data() + at, sizeof head);
    if (IsSound(head, at) && head.state == kInUse) return false;
  }
  return true;
}

}  // namespace

const FileKind kMappedKind = {"mapped", LoadMappedAll, FindMapped, LooksUnusedMapped, false};

DamageBench::DamageBench(const FileKind& kind, std::string image, Packets content, Packets former)
    : kind_(kind), image_(std::move(image)), content_(std::move(content)) {
  ever_saved_.insert(content_.begin(), content_.end());
  QUENOR_CHECK(ever_saved_.size() == content_.size(), "a packet is there twice");
  ever_saved_.insert(former.begin(), former.end());
  for (const std::string& packet : content_) {
    places_.push_back(kind_.find(image_, packet));
    QUENOR_CHECK(!places_.back().empty(), "a packet of the content is not in the file");
  }
}

bool DamageBench::IsIntact(size_t packet, const std::string& damaged) const {
  for (const std::vector<StoredPacket>& copy : places_[packet]) {
    bool same = true;
    for (const StoredPacket& range : copy) {
      same = same && range.end <= damaged.size() &&
             image_.compare(range.begin, range.end - range.begin, damaged, range.begin,
                            range.end - range.begin) == 0;
    }
    if (same) return true;
  }
  return false;
}

void DamageBench::Fault(const std::string& what, const std::string& fault, const Packets& found) {
  if (!fault_.empty()) return;
  fault_ = std::string(kind_.name) + " file, " + what + ": " + fault + "; found " + Show(found);
  for (const std::string& line : RecordingLog::Texts()) fault_ += "\n  log: " + line;
}

void DamageBench::Try(const std::string& damaged, const std::string& what) {
  ++cases_;
  std::remove(path_.c_str());
  std::remove(SetAside(path_).c_str());
  QUENOR_CHECK(WriteWholeFile(path_, damaged), "a damaged file cannot be written");
  RecordingLog::Clear();

  const Packets found = kind_.load(path_);

  if (found == Packets{"cannot open"}) return Fault(what, "it is not opened", found);
  std::map<std::string, int> times;
  for (const std::string& packet : found) ++times[packet];
  bool lost = false;
  for (size_t i = 0; i < content_.size(); ++i) {
    const bool is_there = times.count(content_[i]) != 0;
    lost = lost || !is_there;
    if (!IsIntact(i, damaged)) {
      ++packets_destroyed_;
      continue;
    }
    ++packets_intact_;
    if (is_there) continue;
    ++intact_lost_;
    Fault(what, "packet " + std::to_string(i) + " is intact and did not come back", found);
  }
  for (const auto& [packet, count] : times) {
    if (ever_saved_.count(packet) == 0) Fault(what, "a packet that nobody ever saved", found);
    if (std::find(content_.begin(), content_.end(), packet) == content_.end()) ++came_back_dropped_;
    if (count > 1) ++came_back_twice_;
  }
  size_t in_order = 0;
  for (const std::string& packet : content_) {
    if (in_order < found.size() && found[in_order] == packet) ++in_order;
  }
  if (in_order < found.size()) ++out_of_order_;

  const bool set_aside = Exists(SetAside(path_));
  ++(set_aside ? repaired_ : unnoticed_);
  // Nothing tells a table without any record, and no packet behind it, from a file never used.
  const bool is_cut = kind_.a_cut_is_no_damage && damaged.size() < image_.size();
  const bool is_blank = (found.empty() && kind_.looks_unused(damaged)) || is_cut;
  if (is_cut && set_aside && image_.compare(0, damaged.size(), damaged) == 0) {
    Fault(what, "what a kill leaves was set aside", found);
  }
  if (lost && is_blank && !set_aside) ++lost_unnoticed_;
  if (lost && !is_blank && !set_aside) {
    Fault(what, "packets are lost and the file was not set aside", found);
  }
  if (set_aside && ReadWholeFile(SetAside(path_)) != damaged) {
    Fault(what, "what was set aside is not the file as it was", found);
  }
  if (set_aside && LinesWith(2, SetAside(path_)) == 0) {
    Fault(what, "no line says that it was set aside", found);
  }
  RecordingLog::Clear();
  const Packets again = kind_.load(path_);
  if (again != found) Fault(what, "the second Open() finds other packets", again);
  if (LinesWith(2, "") != 0) Fault(what, "the second Open() complains", again);
}

std::ostream& operator<<(std::ostream& out, const DamageBench& bench) {
  return out << bench.kind_.name << " file: " << bench.cases_ << " damaged copies, "
             << bench.repaired_ << " repaired, " << bench.unnoticed_
             << " without loss as they are; " << bench.packets_intact_ << " intact packets, "
             << bench.intact_lost_ << " of them lost, " << bench.packets_destroyed_
             << " destroyed, in " << bench.lost_unnoticed_
             << " cases with everything that told of them; dropped ones that came back "
             << bench.came_back_dropped_ << ", twice " << bench.came_back_twice_
             << ", other order in " << bench.out_of_order_ << " cases";
}

}  // namespace quenor::test
