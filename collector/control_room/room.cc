#include "collector/control_room/room.h"

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

ControlRoom::EntryPtr ControlRoom::Get() const {
  kvEntry* entry = nullptr;
  const natsStatus status = kvStore_Get(&entry, bucket_.get(), store_.stream.c_str());
  if (status != NATS_NOT_FOUND) Require(status, "read what is set for stream " + store_.stream);
  return EntryPtr(entry);
}

uint64_t ControlRoom::ReadRevision() const {
  const EntryPtr entry = Get();
  return entry ? kvEntry_Revision(entry.get()) : 0;
}

ControlFound ControlRoom::Read() const {
  ControlFound found;
  const EntryPtr entry = Get();
  if (!entry) return found;
  const std::string json(static_cast<const char*>(kvEntry_Value(entry.get())),
                         static_cast<size_t>(kvEntry_ValueLen(entry.get())));
  std::string problem;
  const std::optional<ControlSettings> settings = SettingsFromJson(json, &problem);
  if (!settings) {
    throw Fatal(kExitMismatch, "what is set for stream " + store_.stream +
                                   " was not set by this program: " + problem +
                                   "; collectors ignore it; set it anew with quenor-collector "
                                   "control set --anew");
  }
  found.settings = *settings;
  found.revision = kvEntry_Revision(entry.get());
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
