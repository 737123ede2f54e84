// Runs a fuzzer's inputs without libFuzzer: REPLAY COUNT FOLDER... Each file of the folders as it
// is, then inputs that the fuzzer's own mutator makes of it, of each file as many and the same ones
// at each run, as long as they are no more than COUNT in all.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fuzzers/fuzz_support.h"

namespace {
quenor::fuzz::Random mutations(1);
}

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size) {
  using quenor::fuzz::Below;
  if (size < max_size && Below(mutations, 4) == 0) data[size++] = 0;
  if (size > 0 && Below(mutations, 8) == 0) --size;
  for (size_t i = Below(mutations, 4) + 1; i > 0 && size > 0; --i) {
    data[Below(mutations, size)] = static_cast<uint8_t>(mutations());
  }
  return size;
}

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s COUNT FOLDER...\n", argv[0]);
    return 2;
  }
  std::vector<std::filesystem::path> paths;
  for (int i = 2; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      paths.push_back(entry.path());
    }
  }
  if (paths.empty()) return 1;
  std::sort(paths.begin(), paths.end());
  const int count = std::atoi(argv[1]) / static_cast<int>(paths.size()) - 1;
  size_t inputs = 0;
  for (const std::filesystem::path& path : paths) {
    std::ifstream stream(path, std::ios::binary);
    quenor::fuzz::Bytes bytes((std::istreambuf_iterator<char>(stream)),
                              std::istreambuf_iterator<char>());
    std::fprintf(stderr, "%s\n", path.filename().c_str());  // The last one shown is to blame.
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    ++inputs;
    size_t size = bytes.size();
    const size_t max_size = size + 4096;
    bytes.resize(max_size);
    for (int i = 0; i < count; ++i, ++inputs) {
      size = LLVMFuzzerCustomMutator(bytes.data(), size, max_size, static_cast<unsigned>(i));
      LLVMFuzzerTestOneInput(bytes.data(), size);
    }
  }
  std::printf("%zu inputs of %zu files\n", inputs, paths.size());
  return 0;
}
