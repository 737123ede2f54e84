#include "tests/support/temp_folder.h"

#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "quenor_base/platform/base/check.h"

namespace quenor::test {

TempFolder::TempFolder() {
  std::error_code error;
  const std::filesystem::path parent = std::filesystem::temp_directory_path(error);
  path_ = (error ? std::string("/tmp") : parent.string()) + "/quenor-test-XXXXXX";
  QUENOR_CHECK(mkdtemp(path_.data()) != nullptr, "no temporary folder can be made");
}

TempFolder::~TempFolder() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
  if (error) std::fprintf(stderr, "cannot remove %s: %s\n", path_.c_str(), error.message().c_str());
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::string bytes;
  char block[65536];
  while (in.read(block, sizeof block) || in.gcount() > 0) {
    bytes.append(block, static_cast<size_t>(in.gcount()));
  }
  return bytes;
}

std::vector<std::string> FileNames(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool WriteWholeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  out.close();
  return !out.fail();
}

}  // namespace quenor::test
