// The plain cache file as its owner writes it: records behind the last one. Whatever is behind that
// is cut off first. Threads: one at a time; blocks on the file system. Life cycle: holds the file's
// lock from when it is given the file. Page: docs/design/cache-file.md.
#ifndef SERVICES_CACHE_FILE_POSIX_JOURNAL_H_
#define SERVICES_CACHE_FILE_POSIX_JOURNAL_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "services/cache_file_posix/batch.h"
#include "services/cache_file_posix/reader.h"
#include "services/cache_file_posix/rewrite.h"
#include "services/cache_shared/file_calls_posix.h"
#include "services/cache_shared/nothrow_array.h"

QUENOR_NAMESPACE_BEGIN
namespace cache_file {

// What fails answers false, or kNo, with errno; then nothing that counts is in the file.
class Journal {
 public:
  Journal() = default;
  ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // Begins an empty file, or goes on behind what a reader has found in it.
  [[gnu::cold, nodiscard]] bool Begin();
  [[gnu::cold]] void GoOn(const Content& content);
  // Takes the place of this file by one that was written anew.
  [[gnu::cold]] void Adopt(Fresh* fresh);
  // Of a former owner's numbers, where nothing else of that file is gone on with.
  void SetSaveNumber(uint64_t number) { save_number_ = number; }

  // Makes these packets a completed save.
  [[nodiscard]] bool WriteSeal(const NothrowArray<Packet>& packets);
  // Says in which order these, which are in the file, belong to the save under way.
  [[nodiscard]] bool WriteOrder(const Packet* first, const Packet* last);
  enum class Written { kYes, kNotOnDisk, kNo };
  // Such an order, unless there are none, and behind it a new packet; `*packet` is what it became.
  // kNotOnDisk: it is in the file, but the system may have dropped what it could not write.
  [[nodiscard]] Written WritePacket(const Packet* first, const Packet* last, const uint8_t* data,
                                    uint32_t size, const Digest& digest, Packet* packet);
  // What was seen of the file: it has so many bytes, of which those behind end() are not ours.
  void NoteSize(uint64_t size_bytes) { has_litter_ = has_litter_ || size_bytes > end_; }

  uint64_t end() const { return end_; }  // Where the next record goes.
  uint64_t last_number() const { return last_number_; }
  uint64_t save_number() const { return save_number_; }
  Batch& batch() { return batch_; }

  cache_io::Descriptor file;
  cache_io::Durability durability = cache_io::Durability::kProcess;

 private:
  bool CutTail();
  bool WriteRecords(const uint8_t* data, uint32_t size);
  bool MakeDurable(uint64_t begin);

  uint64_t end_ = 0;
  bool has_litter_ = false;  // There may be bytes behind `end_`, to be cut off before a write.
  uint64_t last_number_ = 0;
  uint64_t save_number_ = 0;
  Batch batch_;
};

}  // namespace cache_file
QUENOR_NAMESPACE_END

#endif  // SERVICES_CACHE_FILE_POSIX_JOURNAL_H_
