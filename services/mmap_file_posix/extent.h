// An extent of this owner's, mapped, and whoever has extents to give: the room in the file, or in a
// test something smaller. Threads: one at a time.
#ifndef SERVICES_MMAP_FILE_POSIX_EXTENT_H_
#define SERVICES_MMAP_FILE_POSIX_EXTENT_H_

#include <cstdint>
#include <utility>

#include "services/cache_shared/file_calls_posix.h"
#include "services/mmap_file_posix/format.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {

// Which extent it is: another one at the same place has another epoch.
struct ExtentName {
  uint64_t offset = 0;  // In the file; 0: none.
  uint64_t epoch = 0;
};

struct Extent {
  cache_io::Mapping map;
  ExtentName name;

  explicit operator bool() const { return name.offset != 0; }
  uint64_t size() const { return map.size(); }
  // In the file; 0: it has none.
  uint64_t end() const { return name.offset + map.size(); }
  uint8_t* at(uint64_t offset) const { return map.data() + offset; }
  ExtentHeader* header() const { return reinterpret_cast<ExtentHeader*>(map.data()); }
  void Reset() {
    map.Unmap();
    name = ExtentName();
  }
  void swap(Extent& other) {
    map.swap(other.map);
    std::swap(name, other.name);
  }
};

// Marks an extent as given back and unmaps it, as long as it is still its owner's: once it is
// nobody's, another may use it, or cut the file.
inline ExtentName MarkFree(Extent* extent) {
  const ExtentName name = extent->name;
  if (*extent) StoreLast(&extent->header()->state, kFree);
  extent->Reset();
  return name;
}

// Every bool is false with errno; EAGAIN: a lock was not to be had.
class ExtentSource {
 public:
  // An extent of `size` bytes, mapped, that no seal names yet. One that is made but not flushed is
  // there on failure too.
  [[nodiscard]] virtual bool Take(uint64_t size, Extent* extent) = 0;
  // Where it is; the mapping may move. Nothing has changed when it fails; EEXIST: something is
  // there.
  [[nodiscard]] virtual bool Lengthen(uint64_t size, Extent* extent) = 0;
  // Nothing of value may be behind `size`.
  virtual bool Shorten(uint64_t size, Extent* extent) = 0;
  // Takes back one that no seal has named.
  virtual void Discard(Extent* extent) = 0;

 protected:
  ~ExtentSource() = default;
};

}  // namespace mmap_format
QUENOR_NAMESPACE_END

#endif  // SERVICES_MMAP_FILE_POSIX_EXTENT_H_
