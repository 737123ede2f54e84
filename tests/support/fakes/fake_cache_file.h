// The plain cache file while quenor_fake_cache_file is linked: in memory, with the one owner and
// the saves of its contract.
#ifndef QUENOR_TESTS_SUPPORT_FAKES_FAKE_CACHE_FILE_H_
#define QUENOR_TESTS_SUPPORT_FAKES_FAKE_CACHE_FILE_H_

#include "tests/support/fakes/fake_packet_files.h"

namespace quenor::test {

// Any thread. All such files of the process. The content of a file while a save is under way is
// what has been appended so far, unless part of it was refused.
FakePacketFiles& FakeCacheFiles();

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_FAKES_FAKE_CACHE_FILE_H_
