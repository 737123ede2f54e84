#include "collector/control_room/control.h"

#include <memory>

#include "collector/control_room/settings.h"
#include "collector/fatal.h"
#include "collector/store/session.h"

namespace quenor::collector {
namespace {

struct Found {
  uint64_t revision = 0;  // 0: nothing has been set yet.
  ControlSettings settings;
};

BucketPtr OpenBucket(const ControlOptions& options, const Session& session) {
  kvStore* made = nullptr;
  const natsStatus status = js_KeyValue(&made, session.context.get(), options.store.bucket.c_str());
  if (status == NATS_NOT_FOUND) {
    throw Fatal(kExitUnavailable, "bucket " + options.store.bucket +
                                      " is not there; make it with quenor-collector provision");
  }
  Require(status, "open bucket " + options.store.bucket);
  return BucketPtr(made);
}

Found Read(const ControlOptions& options, kvStore* bucket) {
  Found found;
  kvEntry* entry = nullptr;
  const natsStatus status = kvStore_Get(&entry, bucket, options.store.stream.c_str());
  if (status == NATS_NOT_FOUND) return found;
  Require(status, "read what is set for stream " + options.store.stream);
  const std::unique_ptr<kvEntry, Destroyer<kvEntry_Destroy>> owner(entry);
  const std::string json(static_cast<const char*>(kvEntry_Value(entry)),
                         static_cast<size_t>(kvEntry_ValueLen(entry)));
  std::string problem;
  const std::optional<ControlSettings> settings = SettingsFromJson(json, &problem);
  if (!settings) {
    throw Fatal(kExitMismatch, "what is set for stream " + options.store.stream +
                                   " was not set by this program: " + problem +
                                   "; collectors ignore it; delete key " + options.store.stream +
                                   " of bucket " + options.store.bucket + " and set it again");
  }
  found.settings = *settings;
  found.revision = kvEntry_Revision(entry);
  return found;
}

template <typename Value>
void Change(const std::optional<Value>& given, Value* value) {
  if (given) *value = *given;
}

// Throws Fatal.
ControlSettings Changed(ControlSettings settings, const ControlOptions& options) {
  if (options.policy) {
    const std::optional<control::Kind> kind = control::KindOf(*options.policy);
    if (!kind) {
      throw Fatal(kExitUsage,
                  "no policy: \"" + *options.policy + "\"; give none, fixed, brake, pace or steer");
    }
    settings.policy.kind = *kind;
  }
  if (options.target_percent) settings.policy.target = *options.target_percent / 100.0;
  Change(options.low_ms, &settings.policy.low_ms);
  Change(options.high_ms, &settings.policy.high_ms);
  Change(options.low_duration_s, &settings.policy.low_duration_s);
  Change(options.high_duration_s, &settings.policy.high_duration_s);
  Change(options.capacity, &settings.capacity);
  Change(options.send_interval_ms, &settings.send_interval_ms);
  Change(options.max_resend_count, &settings.max_resend_count);
  Change(options.report_duration_s, &settings.report_duration_s);
  const std::string problem = ProblemOf(settings);
  if (!problem.empty()) throw Fatal(kExitUsage, "cannot set " + problem);
  return settings;
}

// Only if it is still the revision that was read. Throws Fatal.
uint64_t Write(const ControlOptions& options, const Found& found, kvStore* bucket) {
  const std::string json = ToJson(found.settings);
  const char* const key = options.store.stream.c_str();
  uint64_t revision = 0;
  const natsStatus status =
      found.revision == 0
          ? kvStore_CreateString(&revision, bucket, key, json.c_str())
          : kvStore_UpdateString(&revision, bucket, key, json.c_str(), found.revision);
  Require(status, "set it (was it changed meanwhile? control show tells)");
  return revision;
}

}  // namespace

void RunControl(const ControlOptions& options,
                const std::function<void(const std::string& line)>& print) {
  const Session session = OpenSession(options.store);
  const BucketPtr bucket = OpenBucket(options, session);
  Found found = Read(options, bucket.get());
  if (options.change) {
    found.settings = Changed(found.settings, options);
    found.revision = Write(options, found, bucket.get());
  }
  print("revision " + std::to_string(found.revision) + " " + ToJson(found.settings));
}

}  // namespace quenor::collector
