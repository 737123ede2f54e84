#include "collector/control_room/room.h"

#include <memory>
#include <optional>
#include <string>

#include "collector/fatal.h"

namespace quenor::collector {

ControlRoom::ControlRoom(const StoreOptions& store, const Session& session) : store_(store) {
  kvStore* made = nullptr;
  const natsStatus status = js_KeyValue(&made, session.context.get(), store_.bucket.c_str());
  if (status == NATS_NOT_FOUND) {
    throw Fatal(kExitUnavailable, "bucket " + store_.bucket +
                                      " is not there; make it with quenor-collector provision");
  }
  Require(status, "open bucket " + store_.bucket);
  bucket_.reset(made);
}

ControlFound ControlRoom::Read() const {
  ControlFound found;
  kvEntry* entry = nullptr;
  const natsStatus status = kvStore_Get(&entry, bucket_.get(), store_.stream.c_str());
  if (status == NATS_NOT_FOUND) return found;
  Require(status, "read what is set for stream " + store_.stream);
  const std::unique_ptr<kvEntry, Destroyer<kvEntry_Destroy>> owner(entry);
  const std::string json(static_cast<const char*>(kvEntry_Value(entry)),
                         static_cast<size_t>(kvEntry_ValueLen(entry)));
  std::string problem;
  const std::optional<ControlSettings> settings = SettingsFromJson(json, &problem);
  if (!settings) {
    throw Fatal(kExitMismatch, "what is set for stream " + store_.stream +
                                   " was not set by this program: " + problem +
                                   "; collectors ignore it; delete key " + store_.stream +
                                   " of bucket " + store_.bucket + " and set it again");
  }
  found.settings = *settings;
  found.revision = kvEntry_Revision(entry);
  return found;
}

uint64_t ControlRoom::Write(const ControlSettings& settings, uint64_t revision) const {
  const std::string json = ToJson(settings);
  const char* const key = store_.stream.c_str();
  uint64_t written = 0;
  const natsStatus status =
      revision == 0 ? kvStore_CreateString(&written, bucket_.get(), key, json.c_str())
                    : kvStore_UpdateString(&written, bucket_.get(), key, json.c_str(), revision);
  Require(status, "set it (was it changed meanwhile? control show tells)");
  return written;
}

}  // namespace quenor::collector
