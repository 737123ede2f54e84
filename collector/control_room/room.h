// ControlRoom: reads and writes what is set for the collectors of a stream, in the store's bucket.
// Life: one per connection, which outlives it. Threads: any, one at a time.
#ifndef COLLECTOR_CONTROL_ROOM_ROOM_H_
#define COLLECTOR_CONTROL_ROOM_ROOM_H_

#include <cstdint>
#include <memory>

#include "collector/control_room/change.h"
#include "collector/store/options.h"
#include "collector/store/session.h"

namespace quenor::collector {

class ControlRoom {
 public:
  // Throws Fatal if there is no such bucket.
  ControlRoom(const StoreOptions& store, const Session& session);

  // Throws Fatal; with kExitMismatch if what is set was not set by this program.
  ControlFound Read() const;

  // Of whatever is set, whoever set it; 0: nothing. Throws Fatal.
  uint64_t ReadRevision() const;

  // The new revision. Throws Fatal, also if what is set is no longer `revision`.
  uint64_t Write(const ControlSettings& settings, uint64_t revision) const;

 private:
  using EntryPtr = std::unique_ptr<kvEntry, Destroyer<kvEntry_Destroy>>;

  // Null: nothing is set.
  EntryPtr Get() const;

  const StoreOptions store_;
  BucketPtr bucket_;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_CONTROL_ROOM_ROOM_H_
