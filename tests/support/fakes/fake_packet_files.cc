#include "tests/support/fakes/fake_packet_files.h"

#include <algorithm>
#include <cstring>
#include <tuple>
#include <utility>

#include "quenor_base/platform/base/check.h"
#include "tests/support/fakes/fake_packet_files_core.h"

namespace quenor::test {

bool operator==(const FileCall& a, const FileCall& b) {
  return std::tie(a.operation, a.path, a.access, a.size, a.bytes, a.had_data, a.result) ==
         std::tie(b.operation, b.path, b.access, b.size, b.bytes, b.had_data, b.result);
}

std::ostream& operator<<(std::ostream& out, const FileCall& call) {
  static const char* const kNames[] = {"Open", "GetNextDataPacket", "Clear", "AppendDataPacket",
                                       "Close"};
  return out << kNames[static_cast<int>(call.operation)] << " " << call.path << " access "
             << call.access << " size " << call.size << " \"" << call.bytes << "\""
             << (call.result ? "" : " refused");
}

// --- The inside ----------------------------------------------------------------------------------

bool FakePacketFiles::Core::HasParentComponent(const std::string& path) {
  return ("/" + path + "/").find("/../") != std::string::npos;
}

void FakePacketFiles::Core::Next(const std::string& path, Reader* reader) {
  reader->lent.reset();
  reader->lent_size = 0;
  if (!reader->has_failed && Fails(&next_failure)) reader->has_failed = true;
  FileCall call{FileCall::Operation::kNext, path};
  if (!reader->has_failed && reader->next < reader->packets.size()) {
    call.bytes = reader->packets[reader->next++];
    call.had_data = true;
    reader->lent_size = static_cast<uint32_t>(call.bytes.size());
    reader->lent = std::make_unique<uint8_t[]>(reader->lent_size);
    std::memcpy(reader->lent.get(), call.bytes.data(), reader->lent_size);
  }
  calls.push_back(std::move(call));
}

void FakePacketFiles::Core::Replace(const std::string& path, const void* owner, Packets packets) {
  File& file = files[path];
  file.parts.remove_if([owner](const Part& part) { return part.owner == owner; });
  if (!packets.empty()) file.parts.push_back({owner, std::move(packets)});
}

void FakePacketFiles::Core::Leave(const std::string& path, const void* owner) {
  File& file = files[path];
  for (Part& part : file.parts) {
    if (part.owner == owner) part.owner = nullptr;
  }
  file.owners.erase(std::find(file.owners.begin(), file.owners.end(), owner));
}

// --- The files -----------------------------------------------------------------------------------

FakePacketFiles::FakePacketFiles() : core_(std::make_unique<Core>()) {}
FakePacketFiles::~FakePacketFiles() = default;

void FakePacketFiles::Clear() {
  QUENOR_CHECK(OpenObjects() == 0, "a fake cache file is open still");
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->files.clear();
  core_->calls.clear();
  core_->open_failure = core_->clear_failure = 0;
  core_->append_failure = core_->next_failure = 0;
}

bool FakePacketFiles::Exists(const std::string& path) const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return core_->files.count(path) > 0;
}

FakePacketFiles::Packets FakePacketFiles::Content(const std::string& path) const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  const auto found = core_->files.find(path);
  Packets content;
  if (found == core_->files.end()) return content;
  for (const Core::Part& part : found->second.parts) {
    content.insert(content.end(), part.packets.begin(), part.packets.end());
  }
  return content;
}

void FakePacketFiles::Put(const std::string& path, Packets packets) {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->Replace(path, nullptr, std::move(packets));
}

size_t FakePacketFiles::OpenObjects() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  size_t count = 0;
  for (const auto& [path, file] : core_->files) count += file.owners.size();
  return count;
}

// --- The record ----------------------------------------------------------------------------------

std::vector<FileCall> FakePacketFiles::Calls() const {
  std::lock_guard<std::mutex> hold(core_->mutex);
  return core_->calls;
}

std::vector<FileCall> FakePacketFiles::Calls(Operation operation) const {
  std::vector<FileCall> found;
  for (FileCall& call : Calls()) {
    if (call.operation == operation) found.push_back(std::move(call));
  }
  return found;
}

void FakePacketFiles::ForgetCalls() {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->calls.clear();
}

// --- Failures ------------------------------------------------------------------------------------

void FakePacketFiles::FailOpen(size_t nth) {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->open_failure = nth;
}

void FakePacketFiles::FailClear(size_t nth) {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->clear_failure = nth;
}

void FakePacketFiles::FailAppend(size_t nth) {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->append_failure = nth;
}

void FakePacketFiles::FailNext(size_t nth) {
  std::lock_guard<std::mutex> hold(core_->mutex);
  core_->next_failure = nth;
}

}  // namespace quenor::test
