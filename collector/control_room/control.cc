#include "collector/control_room/control.h"

#include "collector/control_room/room.h"
#include "collector/control_room/settings.h"
#include "collector/store/session.h"

namespace quenor::collector {

void RunControl(const ControlOptions& options,
                const std::function<void(const std::string& line)>& print) {
  const Session session = OpenSession(options.store);
  const ControlRoom room(options.store, session);
  ControlFound found;
  if (options.anew) {
    found.revision = room.ReadRevision();
  } else {
    found = room.Read();
  }
  if (options.change) {
    found.settings = Changed(found.settings, options);
    found.revision = room.Write(found.settings, found.revision);
  }
  print("revision " + std::to_string(found.revision) + " " + ToJson(found.settings));
  const control::Kind kind = found.settings.policy.kind;
  if (options.GivesFields() && kind != control::Kind::kNone) {
    print(std::string("policy ") + control::NameOf(kind) +
          " decides the replies: --send-interval, --max-resend and "
          "--report-duration hold when the policy is none");
  }
}

}  // namespace quenor::collector
