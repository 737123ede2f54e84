// A save of the plain cache file: a packet that the file has is only named again, a new one is
// written. Threads: one at a time; blocks on the file system. Page: docs/design/cache-file.md.
#ifndef SERVICES_CACHE_FILE_POSIX_SAVE_H_
#define SERVICES_CACHE_FILE_POSIX_SAVE_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "services/cache_file_posix/journal.h"
#include "services/cache_file_posix/packet_index.h"
#include "services/cache_file_posix/reader.h"
#include "services/cache_shared/nothrow_array.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_file {

// What a recovery would now yield, less the save under way.
struct Base {
  NothrowArray<Packet> packets;
  uint64_t bytes = 0;   // Of its records.
  bool sealed = false;  // As one save, in the file.

  void Adopt(NothrowArray<Packet>* adopted);
};

// One line for a row of failures with one cause: a full disk fails at every save.
class FailureLog {
 public:
  // Borrows `path` until destruction.
  explicit FailureLog(const std::string& path) : path_(path) {}
  [[gnu::cold]] void Tell(const char* what, int error);
  // Something succeeded: the next failure is told again.
  void Forget() { told_ = false; }

 private:
  const std::string& path_;
  bool told_ = false;
  int error_ = 0;
};

class Save {
 public:
  // Borrows all until destruction. `digest_key`: of the digests in the base.
  Save(Journal& journal, Base& base, FailureLog& failures, uint64_t digest_key)
      : journal_(journal), base_(base), failures_(failures), digest_key_(digest_key) {}

  // The save under way, if there is one, becomes what a recovery has to yield. One that is complete
  // has. From then on appends are refused.
  void End();
  void Void();
  // Begins one whose packets may be those of the base. False when there is no memory; logged.
  bool Begin();
  // False when it is not taken: then the save is void. `*not_on_disk` is set when that is because
  // the system may have dropped what it could not write.
  bool Add(const uint8_t* data, uint32_t size, bool* not_on_disk);
  // Sealed when it is asked, and not by the next save only: until it is, a start brings back what
  // it dropped. True also when none was begun.
  bool IsComplete();
  bool is_begun() const { return state_ == State::kOpen || state_ == State::kComplete; }
  // Makes these packets a completed save in the file. False is logged.
  bool Seal(const NothrowArray<Packet>& packets);

 private:
  enum class State { kNone, kOpen, kComplete, kVoid };
  bool WriteOrder();
  bool WritePacket(const uint8_t* data, uint32_t size, const Digest& digest, bool* not_on_disk);
  [[gnu::cold]] void KeepWhatWasWritten();

  Journal& journal_;
  Base& base_;
  FailureLog& failures_;
  const uint64_t digest_key_;
  State state_ = State::kNone;
  PacketIndex index_;  // Over the base.
  NothrowArray<Packet> saved_;
  uint64_t saved_bytes_ = 0;
  uint64_t first_new_number_ = 0;  // From it on packets were written by this save.
  size_t in_file_ = 0;             // So many of `saved_` are named in the file, in their order.
  uint32_t last_position_ = 0;     // In the base, of the last one that is not.
};

}  // namespace cache_file
QUENOR_NAMESPACE_END

#endif  // SERVICES_CACHE_FILE_POSIX_SAVE_H_
