// Other ways to keep the same messages on the same disk, none of which waits for the disk: as the
// documentation of each recommends for small records that a process must not lose when it dies.
// Threads: one at a time. What fails ends the program.
#ifndef QUENOR_BENCHMARKS_ADMISSION_RIVALS_H_
#define QUENOR_BENCHMARKS_ADMISSION_RIVALS_H_

#include <memory>
#include <string>

#include "benchmarks/admission/contents.h"

namespace quenor::bench {

class Rival {
 public:
  virtual ~Rival() = default;
  // Adds a message and removes the oldest once there are more than were asked for.
  virtual void Replace(const Bytes& message) = 0;
};

// `folder` is new and the rival's own; `count` is how many messages are there after each Replace().
// LevelDB: one write batch of a put under a growing key and the delete of the oldest, without sync.
std::unique_ptr<Rival> MakeLevelDb(const std::string& folder, size_t count);
// SQLite in WAL mode: one transaction of prepared INSERT and DELETE. `synchronous`: OFF or NORMAL.
std::unique_ptr<Rival> MakeSqlite(const std::string& folder, size_t count, const char* synchronous);
// A file of each message's own, written under another name and renamed; the oldest is unlinked.
std::unique_ptr<Rival> MakeFiles(const std::string& folder, size_t count);
// All messages in one new file, which is then renamed over the old one.
std::unique_ptr<Rival> MakeWholeFile(const std::string& folder, size_t count);
// The plain cache file of the library, on its own, in the channel's sequence of calls.
std::unique_ptr<Rival> MakePlainCacheFile(const std::string& folder, size_t count);

}  // namespace quenor::bench

#endif  // QUENOR_BENCHMARKS_ADMISSION_RIVALS_H_
