// TornDisk: what the disk may hold of one file when the power goes. Watches the calls that write
// and flush; between two flushes any sector of 512 bytes may be there in any version it has had
// since, in any order, and the length may be any it has had. A renamed file has its new name once
// its folder was flushed, perhaps before. Coarser than a disk: stores through a mapping are seen as
// they are at the next call or Look(). Threads: one.
#ifndef QUENOR_TESTS_CACHE_TORN_DISK_H_
#define QUENOR_TESTS_CACHE_TORN_DISK_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/cache/support/cache_files.h"
#include "tests/cache/support/file_calls.h"

namespace quenor::test {

// A moment at which the power may go.
struct PowerLoss {
  std::string flushed;                                 // What is certainly there.
  std::map<size_t, std::vector<std::string>> sectors;  // What else a sector may hold.
  std::vector<size_t> sizes;                           // How long the file may be.
  Packets confirmed;                                   // Saved, and told so.
  Packets under_way;                                   // Being saved; equal to `confirmed` if none.

  // One of the files that it may leave.
  std::string Draw(Random& random) const;
};

class TornDisk : public CallObserver {
 public:
  static constexpr size_t kSector = 512;

  // `path` as it is now is on the disk.
  explicit TornDisk(const std::string& path);

  // What the next moments have as their contents.
  void SetContents(const Packets& confirmed, const Packets& under_way);
  // Takes note of what was stored, and that the power may go here.
  void Look();
  const std::vector<PowerLoss>& losses() const { return losses_; }
  uint64_t flushes() const { return flushes_; }

  void Before(const CallInfo& info) override;
  void After(const CallInfo& info) override;

 private:
  struct Mapped {
    uint64_t size;
    uint64_t offset;
  };

  bool IsThisFile(int fd) const;
  void NoteSync(int fd);
  void NoteRename();
  void TakeNote();
  void Flushed(uint64_t begin, uint64_t end);

  const std::string path_;
  std::string now_;  // As the system shows the file.
  PowerLoss state_;
  uint64_t file_id_;
  std::map<uint64_t, std::string> synced_;  // By file: what is certainly there of those beside it.
  // What had the name before: it may have it still, until the folder is on the disk.
  std::unique_ptr<PowerLoss> replaced_;
  std::map<const uint8_t*, Mapped> mapped_;
  std::vector<PowerLoss> losses_;
  uint64_t flushes_ = 0;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CACHE_TORN_DISK_H_
