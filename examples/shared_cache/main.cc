// shared_cache URL FOLDER WHO COUNT: sends COUNT messages, says how many are safe, and ends with
// its input. Up to 63 of these may run at a time, on one folder and under one name: each keeps its
// own messages in the one mapped file, and at its start takes over what those have left that ended,
// or were killed.
#include <quenor_base/reporter/reporter.h>

#include <cstdlib>
#include <iostream>

int main(int argc, char** argv) {
  if (argc < 5) return std::cerr << "usage: shared_cache URL FOLDER WHO COUNT\n", 64;
  quenor::Reporter::Options options;
  options.name = "shared";
  options.url = argv[1];
  options.shared.cache = quenor::SharedSettings::Cache::kMapped;  // The default, for once said.
  options.shared.folder = argv[2];
  std::string error;
  const auto reporter = quenor::Reporter::Create(options, &error);
  if (reporter == nullptr) return std::cerr << error << '\n', 2;

  const int count = std::atoi(argv[4]);
  for (int number = 1; number <= count; ++number) {
    const std::string message = std::string(argv[3]) + "/" + std::to_string(number);
    const auto sent = reporter->Send(message.data(), message.size());
    if (!sent) std::cerr << "not taken: " << quenor::Reporter::TextOf(sent.refusal) << '\n';
  }
  // Until none is in memory only: what is in the file by then survives a kill. Ten seconds at most,
  // for a disk that is full.
  quenor::Reporter::Outcome so_far;
  for (int attempt = 0; attempt < 100 && (attempt == 0 || so_far.out > 0); ++attempt) {
    so_far = reporter->Flush(std::chrono::milliseconds(100));
  }
  std::cout << so_far.acknowledged << " acknowledged, " << so_far.kept << " kept, " << so_far.out
            << " in memory only" << std::endl;

  for (std::string line; std::getline(std::cin, line);) {
  }
  const auto all = reporter->Stop(std::chrono::seconds(2));
  std::cout << all.acknowledged << " acknowledged, " << all.kept << " kept for the next start\n";
  return all.dropped + all.rejected + all.out == 0 ? 0 : 1;
}
