// What a save in the memory-mapped cache file costs, against floors measured in the same run, round
// by round in turn: for a content of which nothing was there before, one copy and one XXH3-64 pass
// of its bytes; for the usual save, in which one packet goes and one comes, one comparison of the
// bytes.
#define XXH_INLINE_ALL
#include <stdlib.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "quenor_base/platform/multi_process_safety_mmap_file.h"

namespace {

constexpr int kRounds = 41;
constexpr int kSavesPerRound = 50;

using Packets = std::vector<std::vector<uint8_t>>;

Packets RandomPackets(size_t count, size_t size, std::mt19937_64& random) {
  Packets packets(count, std::vector<uint8_t>(size));
  for (std::vector<uint8_t>& packet : packets) {
    for (uint8_t& byte : packet) byte = static_cast<uint8_t>(random() >> 32);
  }
  return packets;
}

bool Save(quenor::MultiProcessSafetyMmapFile& file, const Packets& packets) {
  int64_t size = 0;
  for (const std::vector<uint8_t>& packet : packets)
    size += static_cast<int64_t>(packet.size()) + 4;
  bool saved = file.Clear(size);
  for (const std::vector<uint8_t>& packet : packets) {
    saved = saved && file.AppendDataPacket({packet.data(), static_cast<uint32_t>(packet.size())});
  }
  return saved && file.IsSaveComplete();
}

// Keeps what a floor computes from being left out.
volatile uint64_t g_sink;

// Mean nanoseconds of one call in a round.
template <typename Call>
double Round(const Call& call) {
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < kSavesPerRound; ++i) call();
  const std::chrono::duration<double, std::nano> spent = std::chrono::steady_clock::now() - begin;
  return spent.count() / kSavesPerRound;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void Print(const char* what, const char* floor_name, const std::vector<double>& ours,
           const std::vector<double>& floor) {
  const auto range = [](const std::vector<double>& values) {
    return std::minmax_element(values.begin(), values.end());
  };
  std::vector<double> ratios;
  for (size_t i = 0; i < ours.size(); ++i) ratios.push_back(ours[i] / floor[i]);
  std::printf("%s: save %.1f (%.1f to %.1f), %s %.1f (%.1f to %.1f), ratio %.2f (%.2f to %.2f)\n",
              what, Median(ours), *range(ours).first, *range(ours).second, floor_name,
              Median(floor), *range(floor).first, *range(floor).second, Median(ratios),
              *range(ratios).first, *range(ratios).second);
}

bool Run(const std::string& path) {
  std::mt19937_64 random(1);
  quenor::MultiProcessSafetyMmapFile file;
  if (!file.Open(quenor::base::FilePath(path), quenor::base::MemoryMappedFile::READ_WRITE_EXTEND,
                 0)) {
    return false;
  }
  bool saved = true;

  const Packets contents[2] = {RandomPackets(200, 1024, random), RandomPackets(200, 1024, random)};
  std::vector<uint8_t> copy(200 * 1024);
  size_t turn = 0, floor_turn = 0;
  const auto save_new = [&] { saved = Save(file, contents[turn++ % 2]) && saved; };
  const auto copy_and_check = [&] {
    size_t at = 0;
    for (const std::vector<uint8_t>& packet : contents[floor_turn++ % 2]) {
      std::memcpy(copy.data() + at, packet.data(), packet.size());
      at += packet.size();
    }
    g_sink = XXH3_64bits(copy.data(), copy.size());
  };
  std::vector<double> ours, floor;
  Round(save_new);
  Round(copy_and_check);
  for (int round = 0; round < kRounds; ++round) {
    ours.push_back(Round(save_new) / 1000);
    floor.push_back(Round(copy_and_check) / 1000);
  }
  Print("200 x 1024 bytes, all new", "memcpy + XXH3-64", ours, floor);

  Packets steady = RandomPackets(150, 256, random);
  Packets fresh = RandomPackets((kRounds + 1) * kSavesPerRound, 256, random);
  size_t next = 0;
  const auto save_one_new = [&] {
    std::rotate(steady.begin(), steady.begin() + 1, steady.end());
    steady.back().swap(fresh[next++]);
    saved = Save(file, steady) && saved;
  };
  const Packets same = steady;
  const Packets twin = same;
  const auto compare_all = [&] {
    int difference = 0;
    for (size_t i = 0; i < same.size(); ++i) {
      difference |= std::memcmp(same[i].data(), twin[i].data(), same[i].size());
    }
    g_sink = static_cast<uint64_t>(difference);
  };
  ours.clear();
  floor.clear();
  Round(save_one_new);
  Round(compare_all);
  for (int round = 0; round < kRounds; ++round) {
    ours.push_back(Round(save_one_new) / 1000);
    floor.push_back(Round(compare_all) / 1000);
  }
  Print("150 x 256 bytes, one gone and one new", "memcmp of them all", ours, floor);
  return saved;
}

}  // namespace

int main() {
  std::string folder = (access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
  folder += "/quenor-bench-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  std::printf("cache save, mapped file in %s, %d rounds of %d; us per save, median (min to max)\n",
              folder.c_str(), kRounds, kSavesPerRound);
  const std::string path = folder + "/bench.mmap";
  const bool saved = Run(path);
  unlink(path.c_str());
  rmdir(folder.c_str());
  if (!saved) std::fprintf(stderr, "a save failed\n");
  return saved ? 0 : 1;
}
