#include "fleet/services/memory_cache.h"

#include <cstring>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/multi_process_safety_mmap_file.h"

QUENOR_NAMESPACE_BEGIN
namespace {

// Packets one behind the other, each with its length in front.
using Content = std::vector<uint8_t>;

std::unordered_map<std::string, Content>& Files() {
  static auto* const files = new std::unordered_map<std::string, Content>;
  return *files;
}

constexpr uint32_t kLengthBytes = 4;

}  // namespace

struct MultiProcessSafetyMmapFile::State {
  Content* file = nullptr;  // Of Files(), whose elements stay where they are.
  size_t read = 0;
  Content coming;            // Of the save under way.
  size_t missing_bytes = 0;  // Likewise.
  bool complete = true;

  void SealWhenAllHasCome() {
    if (missing_bytes > 0) return;
    file->swap(coming);
    coming.clear();
    complete = true;
  }
};

MultiProcessSafetyMmapFile::MultiProcessSafetyMmapFile() : state_(nullptr) {}
MultiProcessSafetyMmapFile::~MultiProcessSafetyMmapFile() { Close(); }

bool MultiProcessSafetyMmapFile::Open(const base::FilePath& path, base::MemoryMappedFile::Access,
                                      int64_t) {
  Close();
  state_ = new State;
  state_->file = &Files()[path.value()];
  return true;
}

MmapDataPacket MultiProcessSafetyMmapFile::GetNextDataPacket() {
  MmapDataPacket packet;
  if (state_ == nullptr || state_->read >= state_->file->size()) return packet;
  const uint8_t* const at = state_->file->data() + state_->read;
  std::memcpy(&packet.size, at, kLengthBytes);
  packet.data = at + kLengthBytes;
  state_->read += kLengthBytes + packet.size;
  return packet;
}

bool MultiProcessSafetyMmapFile::Clear(int64_t size) {
  if (state_ == nullptr) return false;
  state_->coming.clear();
  state_->coming.reserve(static_cast<size_t>(size));
  state_->missing_bytes = static_cast<size_t>(size);
  state_->complete = false;
  state_->SealWhenAllHasCome();
  return true;
}

bool MultiProcessSafetyMmapFile::AppendDataPacket(const MmapDataPacket& packet) {
  const size_t bytes = size_t{kLengthBytes} + packet.size;
  if (state_ == nullptr || state_->complete || bytes > state_->missing_bytes) return false;
  const auto* const length = reinterpret_cast<const uint8_t*>(&packet.size);
  state_->coming.insert(state_->coming.end(), length, length + kLengthBytes);
  state_->coming.insert(state_->coming.end(), packet.data, packet.data + packet.size);
  state_->missing_bytes -= bytes;
  state_->SealWhenAllHasCome();
  return true;
}

bool MultiProcessSafetyMmapFile::IsSaveComplete() const {
  return state_ != nullptr && state_->complete;
}

void MultiProcessSafetyMmapFile::Close() { delete std::exchange(state_, nullptr); }

const char* MultiProcessSafetyMmapFile::ImplementationName() { return "memory"; }

namespace base {

bool PathService::Get(int, FilePath* out) {
  *out = FilePath("/");
  return true;
}
bool PathService::Override(int, const FilePath&) { return false; }
const char* PathService::ImplementationName() { return "memory"; }
bool PathExists(const FilePath&) { return true; }
bool CreateDirectory(const FilePath&) { return true; }

}  // namespace base
QUENOR_NAMESPACE_END

namespace quenor::fleet {

void ForgetCacheFiles() { Files().clear(); }

}  // namespace quenor::fleet
