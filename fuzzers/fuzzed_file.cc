#include "fuzzers/fuzzed_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>

namespace quenor::fuzz {
namespace {

struct Folder {
  Folder() {
    // In memory, where that may be had.
    const bool has_memory = access("/dev/shm", W_OK | X_OK) == 0;
    path = std::string(has_memory ? "/dev/shm" : "/tmp") + "/quenor-fuzz-XXXXXX";
    FUZZ_CHECK(mkdtemp(path.data()) != nullptr);
    file = path + "/fuzzed" + kFuzzedEnd;
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  std::string path;
  std::string file;
};

class Collector : public CacheFileInspector::Visitor {
 public:
  explicit Collector(Packets* packets) : packets_(packets) {}
  void OnOwner(const CacheFileInspector::Owner& owner) override {
    CheckCounts();
    owner_ = owner;
  }
  void OnPacket(const CacheFileInspector::Owner& owner, const uint8_t* data,
                uint32_t size) override {
    FUZZ_CHECK(owner.number == owner_.number);
    ++seen_;
    seen_bytes_ += size;
    // One of no bytes reads like an end mark.
    if (size > 0) packets_->emplace_back(reinterpret_cast<const char*>(data), size);
  }
  void CheckCounts() {
    FUZZ_CHECK(seen_ == owner_.packets && seen_bytes_ == owner_.bytes);
    seen_ = 0;
    seen_bytes_ = 0;
  }

 private:
  Packets* const packets_;
  CacheFileInspector::Owner owner_;
  uint64_t seen_ = 0;
  uint64_t seen_bytes_ = 0;
};

}  // namespace

const std::string& FuzzedPath() {
  static const Folder folder;
  return folder.file;
}

void RemoveFuzzed() {
  for (const char* const end : {"", ".recovered", ".set-aside"}) {
    unlink((FuzzedPath() + end).c_str());
  }
}

void WriteFuzzed(const uint8_t* data, size_t size) {
  RemoveFuzzed();
  const int fd = open(FuzzedPath().c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
  FUZZ_CHECK(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size) && close(fd) == 0);
}

size_t CountMissing(Packets packets, Packets wanted) {
  std::sort(packets.begin(), packets.end());
  std::sort(wanted.begin(), wanted.end());
  Packets missing;
  std::set_difference(wanted.begin(), wanted.end(), packets.begin(), packets.end(),
                      std::back_inserter(missing));
  return missing.size();
}

Inspected InspectFuzzed() {
  Inspected inspected;
  Collector collector(&inspected.packets);
  std::string error;
  inspected.result = CacheFileInspector::Inspect(base::FilePath(FuzzedPath()), &collector,
                                                 &inspected.summary, &error);
  collector.CheckCounts();
  using Result = CacheFileInspector::Result;
  FUZZ_CHECK(inspected.result == Result::kOk || inspected.result == Result::kNotOurs);
  FUZZ_CHECK(error.empty() == (inspected.result == Result::kOk));
  return inspected;
}

Inspected InspectWhole() {
  Inspected inspected = InspectFuzzed();
  if (inspected.summary.damaged) std::fprintf(stderr, "%s\n", inspected.summary.damage.c_str());
  FUZZ_CHECK(inspected.result == CacheFileInspector::Result::kOk && !inspected.summary.damaged);
  return inspected;
}

uint64_t PurgeFuzzed() {
  uint64_t packets = 0;
  std::string error;
  FUZZ_CHECK(CacheFileInspector::Purge(base::FilePath(FuzzedPath()), &packets, &error) ==
             CacheFileInspector::Result::kOk);
  FUZZ_CHECK(!std::filesystem::exists(FuzzedPath()));
  return packets;
}

}  // namespace quenor::fuzz
