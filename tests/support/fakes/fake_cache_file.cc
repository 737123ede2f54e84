#include "tests/support/fakes/fake_cache_file.h"

#include <utility>

#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/reliable_report_cache_file.h"
#include "tests/support/fakes/fake_packet_files_core.h"

QUENOR_NAMESPACE_BEGIN

using test::FakeCacheFiles;
using test::FakePacketFiles;
using test::FileCall;
using Core = FakePacketFiles::Core;
using Operation = FileCall::Operation;

struct ReliableReportCacheFile::State {
  enum class Save { kNoneBegun, kUnderWay, kComplete, kVoid };

  std::string path;
  Core::Reader reader;
  Save save = Save::kNoneBegun;
  FakePacketFiles::Packets before;  // The content before the save that is under way.
  FakePacketFiles::Packets packets;

  // Part of the save was refused: none of it counts.
  void Void(Core* core) {
    if (save != Save::kUnderWay) return;
    core->Replace(path, this, before);
    save = Save::kVoid;
  }
};

ReliableReportCacheFile::ReliableReportCacheFile() : state_(nullptr) {}

ReliableReportCacheFile::~ReliableReportCacheFile() { Close(); }

bool ReliableReportCacheFile::Open(const base::FilePath& path) {
  Close();
  Core& core = FakeCacheFiles().core();
  std::unique_lock<std::mutex> hold(core.mutex);
  const bool fails = Core::Fails(&core.open_failure);
  const auto found = core.files.find(path.value());
  const bool in_use = found != core.files.end() && !found->second.owners.empty();
  const bool opened = !fails && !in_use && !Core::HasParentComponent(path.value());
  core.calls.push_back({Operation::kOpen, path.value(), 0, 0, "", false, opened});
  if (!opened) {
    hold.unlock();
    LocalLog(2, "tests/support/fake_cache_file", __LINE__, "fake cache file: cannot open %s",
             path.value().c_str());
    return false;
  }
  Core::File& file = core.files[path.value()];
  state_ = new State;
  state_->path = path.value();
  for (Core::Part& part : file.parts) {
    state_->reader.packets = part.packets;
    part.owner = state_;
  }
  state_->packets = state_->reader.packets;
  file.owners.push_back(state_);
  return true;
}

ReliableReportCacheFile::DataPacket ReliableReportCacheFile::GetNextDataPacket() {
  if (state_ == nullptr) return DataPacket();
  Core& core = FakeCacheFiles().core();
  std::lock_guard<std::mutex> hold(core.mutex);
  core.Next(state_->path, &state_->reader);
  return {state_->reader.lent.get(), state_->reader.lent_size};
}

bool ReliableReportCacheFile::Clear() {
  Core& core = FakeCacheFiles().core();
  std::lock_guard<std::mutex> hold(core.mutex);
  const bool fails = Core::Fails(&core.clear_failure);
  const bool begun = !fails && state_ != nullptr && !state_->reader.has_failed;
  core.calls.push_back({Operation::kClear, state_ != nullptr ? state_->path : std::string(), 0, 0,
                        "", false, begun});
  if (state_ == nullptr) return false;
  state_->reader.lent.reset();
  // The save before counts, unless part of it was refused.
  if (state_->save != State::Save::kVoid) state_->before = state_->packets;
  state_->packets.clear();
  state_->save = begun ? State::Save::kUnderWay : State::Save::kVoid;
  core.Replace(state_->path, state_, begun ? state_->packets : state_->before);
  return begun;
}

bool ReliableReportCacheFile::AppendDataPacket(const DataPacket& packet) {
  Core& core = FakeCacheFiles().core();
  std::lock_guard<std::mutex> hold(core.mutex);
  const bool fails = Core::Fails(&core.append_failure);
  const bool is_packet = packet.data != nullptr || packet.size == 0;
  std::string bytes = Core::Bytes(packet.data, packet.size);
  const bool taken =
      !fails && is_packet && state_ != nullptr && state_->save == State::Save::kUnderWay;
  core.calls.push_back({Operation::kAppend, state_ != nullptr ? state_->path : std::string(), 0, 0,
                        bytes, packet.data != nullptr, taken});
  if (state_ == nullptr) return false;
  state_->reader.lent.reset();
  if (!taken) {
    state_->Void(&core);
    return false;
  }
  state_->packets.push_back(std::move(bytes));
  core.Replace(state_->path, state_, state_->packets);
  return true;
}

bool ReliableReportCacheFile::IsSaveComplete() const {
  if (state_ == nullptr) return false;
  if (state_->save == State::Save::kUnderWay) state_->save = State::Save::kComplete;
  return state_->save != State::Save::kVoid;
}

void ReliableReportCacheFile::Close() {
  if (state_ == nullptr) return;
  Core& core = FakeCacheFiles().core();
  std::lock_guard<std::mutex> hold(core.mutex);
  core.calls.push_back({Operation::kClose, state_->path});
  core.Leave(state_->path, state_);
  delete std::exchange(state_, nullptr);
}

const char* ReliableReportCacheFile::ImplementationName() { return "fake"; }

QUENOR_NAMESPACE_END

namespace quenor::test {

FakePacketFiles& FakeCacheFiles() {
  static auto* const files = new FakePacketFiles;
  return *files;
}

}  // namespace quenor::test
