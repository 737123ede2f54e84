// The memory-mapped cache file while quenor_fake_mmap_file is linked: in memory, with the owners,
// the taking of dead ones' content and the all-or-nothing saves of its contract.
#ifndef QUENOR_TESTS_SUPPORT_FAKES_FAKE_MMAP_FILE_H_
#define QUENOR_TESTS_SUPPORT_FAKES_FAKE_MMAP_FILE_H_

#include "tests/support/fakes/fake_packet_files.h"

namespace quenor::test {

// Any thread. All such files of the process.
FakePacketFiles& FakeMmapFiles();

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_FAKES_FAKE_MMAP_FILE_H_
