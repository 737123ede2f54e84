// What a person or a script may ask of a cache file, of either kind, without being its owner: who
// owns what, which packets are in it, whether it is whole. Takes the file's own locks and never
// disturbs a live owner. Threads: any; every call blocks on the file system.
#ifndef QUENOR_BASE_PLATFORM_CACHE_FILE_INSPECTOR_H_
#define QUENOR_BASE_PLATFORM_CACHE_FILE_INSPECTOR_H_

#include <cstdint>
#include <string>

#include "quenor_base/platform/base/file_path.h"

QUENOR_NAMESPACE_BEGIN

class CacheFileInspector {
 public:
  enum class Result : int32_t {
    kOk,
    kNotFound,    // No file, or no regular file, at the path.
    kNotOurs,     // Neither kind of cache file, or of a newer version.
    kUnreadable,  // The system refused; `error` says what.
    kInUse,       // Purge: a live owner has it open.
  };

  // One owner's content. The plain file has exactly one, of number 1.
  struct Owner {
    uint32_t number = 0;           // Its place in the file, from 1; 0 for what was found in a
                                   // damaged file and is in nobody's content.
    bool live = false;             // Open in some process now.
    uint64_t save_number = 0;      // Of its last completed save; larger is later, over all owners.
    uint32_t packets = 0;          // Intact ones.
    uint64_t bytes = 0;            // Of their bodies.
    uint32_t damaged_packets = 0;  // Known of, but not intact.
  };

  struct Summary {
    bool mapped = false;  // The memory-mapped kind; else the plain one.
    uint32_t version = 0;
    uint64_t file_bytes = 0;  // The file's length.
    bool damaged = false;  // Something in it is not as a writer leaves it; Open() will repair it.
    std::string damage;    // What, for a person; empty when not damaged.
  };

  class Visitor {
   public:
    virtual ~Visitor() = default;
    // Each owner that has content or is live, in the order of their numbers.
    virtual void OnOwner(const Owner& owner) = 0;
    // Each intact packet of that owner, in the order written, after its OnOwner(). Borrowed for the
    // length of the call.
    virtual void OnPacket(const Owner& owner, const uint8_t* data, uint32_t size) = 0;
  };

  // Reads the whole file. A live owner's content is as of one of its completed saves. On anything
  // but kOk `*error` says what happened, to which file, and what to do; `visitor` may be null.
  static Result Inspect(const base::FilePath& path, Visitor* visitor, Summary* summary,
                        std::string* error);

  // Removes the file and what was set aside beside it. kInUse, and nothing is touched, while an
  // owner is live. `*packets` is how many intact packets were in it.
  static Result Purge(const base::FilePath& path, uint64_t* packets, std::string* error);
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_CACHE_FILE_INSPECTOR_H_
