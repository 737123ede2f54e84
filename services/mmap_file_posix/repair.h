// What becomes of a file that nobody else has open and that cannot be used as it is: one of a newer
// version is set aside; of a damaged one, what is intact goes into a new file, which takes its
// name. Writes no mapped file itself: whoever asks for a repair hands it the writer. Threads: one
// at a time, with the table's lock held. Page: docs/design/mmap-file.md.
#ifndef SERVICES_MMAP_FILE_POSIX_REPAIR_H_
#define SERVICES_MMAP_FILE_POSIX_REPAIR_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "quenor_base/platform/multi_process_safety_mmap_file.h"
#include "services/cache_shared/file_calls_posix.h"
#include "services/cache_shared/nothrow_array.h"
#include "services/mmap_file_posix/reader.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

// The intact packets of one former owner, one after the other.
class RecoveredContent {
 public:
  // Borrows both until destruction; [begin, end) of the survey's packets.
  RecoveredContent(const Survey& survey, size_t begin, size_t end, Reader& reader)
      : survey_(survey), at_(begin), end_(end), reader_(reader) {}

  // What a save of those to come announces.
  uint64_t AnnouncedBytes() const;
  bool is_at_end() const { return at_ == end_; }
  // Not at the end. False with errno when it cannot be read; its bytes are valid until the next
  // call.
  [[nodiscard]] bool Next(MmapDataPacket* packet);

 private:
  const Survey& survey_;
  size_t at_;
  const size_t end_;
  Reader& reader_;
  NothrowArray<uint8_t> body_;
};

// Saves it in the file at `path` as the content of one more owner, which is dead on return. False
// with errno.
using ContentWriter = bool (*)(const std::string& path, RecoveredContent& content);

// True: the file at `path` is to be opened anew. False has been logged, and it stays as it is.
[[nodiscard]] bool Repair(const std::string& path, cache_io::Durability durability,
                          const Survey& survey, Reader& reader, ContentWriter write);
[[nodiscard]] bool SetNewerAside(const std::string& path, uint32_t version);

}  // namespace mmap_format
QUENOR_NAMESPACE_END

#endif  // SERVICES_MMAP_FILE_POSIX_REPAIR_H_
