#include "tests/support/fakes/fake_mmap_file.h"

#include <utility>

#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "tests/support/fakes/fake_packet_files_core.h"

QUENOR_NAMESPACE_BEGIN

using test::FakeMmapFiles;
using test::FakePacketFiles;
using test::FileCall;
using Core = FakePacketFiles::Core;
using Operation = FileCall::Operation;

namespace {

constexpr uint32_t kLengthBytes = 4;  // Of each packet, besides its bytes.

// Makes the content of dead owners that of `owner`, oldest first, and returns it.
FakePacketFiles::Packets TakeDeadOwners(Core::File* file, const void* owner) {
  FakePacketFiles::Packets taken;
  for (Core::Part& part : file->parts) {
    if (part.owner != nullptr) continue;
    const size_t together = taken.size() + part.packets.size();
    if (!taken.empty() && together >= MultiProcessSafetyMmapFile::kMaxPacketsOfSeveralOwners) break;
    taken.insert(taken.end(), part.packets.begin(), part.packets.end());
    part.owner = owner;
  }
  return taken;
}

}  // namespace

struct MultiProcessSafetyMmapFile::State {
  enum class Save { kNoneBegun, kUnderWay, kComplete, kVoid };

  std::string path;
  Core::Reader reader;
  Save save = Save::kNoneBegun;
  uint64_t missing_bytes = 0;  // Of the save that is under way.
  FakePacketFiles::Packets packets;

  void SealWhenAllHasCome(Core* core) {
    if (missing_bytes > 0) return;
    core->Replace(path, this, std::exchange(packets, {}));
    save = Save::kComplete;
  }
};

MultiProcessSafetyMmapFile::MultiProcessSafetyMmapFile() : state_(nullptr) {}

MultiProcessSafetyMmapFile::~MultiProcessSafetyMmapFile() { Close(); }

bool MultiProcessSafetyMmapFile::Open(const base::FilePath& path,
                                      base::MemoryMappedFile::Access access, int64_t size) {
  Close();
  Core& core = FakeMmapFiles().core();
  std::unique_lock<std::mutex> hold(core.mutex);
  const bool fails = Core::Fails(&core.open_failure);
  const auto found = core.files.find(path.value());
  const bool full = found != core.files.end() && found->second.owners.size() >= kMaxOwners;
  const bool opened = !fails && !full && access == base::MemoryMappedFile::READ_WRITE_EXTEND &&
                      !Core::HasParentComponent(path.value());
  core.calls.push_back({Operation::kOpen, path.value(), access, size, "", false, opened});
  if (!opened) {
    hold.unlock();
    LocalLog(2, "tests/support/fake_mmap_file", __LINE__, "fake mmap file: cannot open %s",
             path.value().c_str());
    return false;
  }
  Core::File& file = core.files[path.value()];
  state_ = new State;
  state_->path = path.value();
  state_->reader.packets = TakeDeadOwners(&file, state_);
  file.owners.push_back(state_);
  return true;
}

MmapDataPacket MultiProcessSafetyMmapFile::GetNextDataPacket() {
  if (state_ == nullptr) return MmapDataPacket();
  Core& core = FakeMmapFiles().core();
  std::lock_guard<std::mutex> hold(core.mutex);
  core.Next(state_->path, &state_->reader);
  return {state_->reader.lent.get(), state_->reader.lent_size};
}

bool MultiProcessSafetyMmapFile::Clear(int64_t size) {
  Core& core = FakeMmapFiles().core();
  std::lock_guard<std::mutex> hold(core.mutex);
  const bool fails = Core::Fails(&core.clear_failure);
  const bool begun = !fails && state_ != nullptr && !state_->reader.has_failed && size >= 0;
  core.calls.push_back({Operation::kClear, state_ != nullptr ? state_->path : std::string(), 0,
                        size, "", false, begun});
  if (state_ == nullptr) return false;
  state_->reader.lent.reset();
  state_->packets.clear();
  state_->save = begun ? State::Save::kUnderWay : State::Save::kVoid;
  if (!begun) return false;
  state_->missing_bytes = static_cast<uint64_t>(size);
  state_->SealWhenAllHasCome(&core);
  return true;
}

bool MultiProcessSafetyMmapFile::AppendDataPacket(const MmapDataPacket& packet) {
  Core& core = FakeMmapFiles().core();
  std::lock_guard<std::mutex> hold(core.mutex);
  const bool fails = Core::Fails(&core.append_failure);
  const bool is_packet = packet.data != nullptr || packet.size == 0;
  std::string bytes = Core::Bytes(packet.data, packet.size);
  const uint64_t taken_bytes = uint64_t{packet.size} + kLengthBytes;
  const bool under_way = state_ != nullptr && state_->save == State::Save::kUnderWay;
  const bool taken = !fails && is_packet && under_way && taken_bytes <= state_->missing_bytes;
  core.calls.push_back({Operation::kAppend, state_ != nullptr ? state_->path : std::string(), 0, 0,
                        bytes, packet.data != nullptr, taken});
  if (state_ != nullptr) state_->reader.lent.reset();
  if (under_way && !taken) state_->save = State::Save::kVoid;
  if (!taken) return false;
  state_->packets.push_back(std::move(bytes));
  state_->missing_bytes -= taken_bytes;
  state_->SealWhenAllHasCome(&core);
  return true;
}

bool MultiProcessSafetyMmapFile::IsSaveComplete() const {
  return state_ != nullptr &&
         (state_->save == State::Save::kNoneBegun || state_->save == State::Save::kComplete);
}

void MultiProcessSafetyMmapFile::Close() {
  if (state_ == nullptr) return;
  Core& core = FakeMmapFiles().core();
  std::lock_guard<std::mutex> hold(core.mutex);
  core.calls.push_back({Operation::kClose, state_->path});
  core.Leave(state_->path, state_);
  delete std::exchange(state_, nullptr);
}

const char* MultiProcessSafetyMmapFile::ImplementationName() { return "fake"; }

QUENOR_NAMESPACE_END

namespace quenor::test {

FakePacketFiles& FakeMmapFiles() {
  static auto* const files = new FakePacketFiles;
  return *files;
}

}  // namespace quenor::test
