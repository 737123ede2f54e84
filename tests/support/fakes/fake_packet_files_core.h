// The inside of FakePacketFiles, for the two fakes that write through it.
// A file is a list of parts, each the content of one owner. Whoever touches it holds the mutex.
#ifndef QUENOR_TESTS_SUPPORT_FAKES_FAKE_PACKET_FILES_CORE_H_
#define QUENOR_TESTS_SUPPORT_FAKES_FAKE_PACKET_FILES_CORE_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/fakes/fake_packet_files.h"
#include "tests/support/mutex_held_at_fork.h"

namespace quenor::test {

struct FakePacketFiles::Core {
  struct Part {
    const void* owner;  // The object that wrote or took it; null once that has closed.
    Packets packets;
  };
  struct File {
    std::list<Part> parts;  // In the order in which they were saved.
    std::vector<const void*> owners;
  };

  // What an object reads; also whether it may still save.
  struct Reader {
    Packets packets;
    size_t next = 0;
    bool has_failed = false;
    // A new array each time, so that a memory checker sees whoever uses an old packet.
    std::unique_ptr<uint8_t[]> lent;
    uint32_t lent_size = 0;
  };

  // Counts a call down to its failure.
  static bool Fails(size_t* countdown) { return *countdown > 0 && --*countdown == 0; }
  // Of a packet; none without data.
  static std::string Bytes(const uint8_t* data, uint32_t size) {
    return data == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(data), size);
  }
  static bool HasParentComponent(const std::string& path);

  // The next packet, into `lent`: null behind the last; not null for one of 0 bytes.
  void Next(const std::string& path, Reader* reader);
  // Makes `packets` the content of `owner`, in place of what it wrote or took before.
  void Replace(const std::string& path, const void* owner, Packets packets);
  void Leave(const std::string& path, const void* owner);

  mutable MutexHeldAtFork mutex;
  std::map<std::string, File> files;
  std::vector<FileCall> calls;
  size_t open_failure = 0;
  size_t clear_failure = 0;
  size_t append_failure = 0;
  size_t next_failure = 0;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_FAKES_FAKE_PACKET_FILES_CORE_H_
