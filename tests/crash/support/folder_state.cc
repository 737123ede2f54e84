#include "tests/crash/support/folder_state.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "quenor_base/platform/base/check.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

// Faster than a stream; a state is written for every instant that is looked at.
void WriteNewFile(const std::string& path, const std::string& bytes) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  QUENOR_CHECK(fd >= 0, "a copy of a cache file cannot be made");
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t step = write(fd, bytes.data() + done, bytes.size() - done);
    QUENOR_CHECK(step > 0, "a copy of a cache file cannot be written");
    done += static_cast<size_t>(step);
  }
  close(fd);
}

}  // namespace

FolderState FolderState::Of(const std::string& folder) {
  FolderState state;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    state.files[entry.path().filename().string()] = ReadWholeFile(entry.path().string());
  }
  return state;
}

void FolderState::WriteTo(const std::string& folder) const {
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    std::filesystem::remove(entry.path());
  }
  for (const auto& [name, bytes] : files) WriteNewFile(folder + "/" + name, bytes);
}

bool HasSetAside(const std::string& folder) {
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().string().find(".set-aside") != std::string::npos) return true;
  }
  return false;
}

}  // namespace quenor::test
