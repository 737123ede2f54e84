// DeflateFaults: counts the compressor's calls, notes how it was set up, and fails those that the
// test names. The linker redirects the calls by --wrap. Threads: one at a time.
#ifndef QUENOR_TESTS_SUPPORT_DEFLATE_FAULTS_H_
#define QUENOR_TESTS_SUPPORT_DEFLATE_FAULTS_H_

#include <string>

namespace quenor::test {

struct DeflateFaults {
  // The record.
  int inits = 0;
  int resets = 0;
  int deflates = 0;
  int ends = 0;
  int level = 0;
  int method = 0;
  int window_bits = 0;
  int memory_level = 0;
  int strategy = -1;
  std::string version;
  int stream_size = 0;
  bool stream_was_zero = false;  // Every byte, when deflateInit2_ was called.

  // The script: what the next call answers instead of being made; 0 lets it through.
  int fail_next_init = 0;
  int fail_next_reset = 0;
  int fail_next_deflate = 0;
  bool last_flush_was_finish = false;

  static DeflateFaults& Get();
  // Forgets the record and the script.
  static void Clear() { Get() = DeflateFaults(); }
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_DEFLATE_FAULTS_H_
