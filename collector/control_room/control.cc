#include "collector/control_room/control.h"

#include "collector/control_room/room.h"
#include "collector/control_room/settings.h"
#include "collector/store/session.h"

namespace quenor::collector {

void RunControl(const ControlOptions& options,
                const std::function<void(const std::string& line)>& print) {
  const Session session = OpenSession(options.store);
  const ControlRoom room(options.store, session);
  ControlFound found = room.Read();
  if (options.change) {
    found.settings = Changed(found.settings, options);
    found.revision = room.Write(found.settings, found.revision);
  }
  print("revision " + std::to_string(found.revision) + " " + ToJson(found.settings));
}

}  // namespace quenor::collector
