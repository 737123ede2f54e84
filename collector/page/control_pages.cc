#include "collector/page/control_pages.h"

#include <cstdlib>
#include <utility>
#include <vector>

#include "collector/fatal.h"
#include "collector/page/html/pages.h"

namespace quenor::collector {
namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;

// What was typed, and where nothing was, what is set.
Fields Typed(const Form& form, const ControlFound& found) {
  Fields fields = FieldsOf(found.settings);
  for (auto& [name, value] : fields) {
    const std::string typed = form.Get(name);
    if (!typed.empty()) value = typed;
  }
  return fields;
}

// What was typed, over what is set. Throws Fatal for what cannot be meant.
ControlSettings Wanted(const Form& form, const ControlFound& found) {
  ControlChange change;
  for (const auto& [name, value] : FieldsOf(found.settings)) {
    const std::string typed = form.Get(name);
    if (!typed.empty()) Give(name, typed, &change);
  }
  return Changed(found.settings, change);
}

bool MayTellInterval(const ControlSettings& settings) {
  return settings.policy.kind != control::Kind::kNone || settings.send_interval_ms != 0;
}

PageAnswer Done(uint64_t revision, const Changes& changes) {
  return {200, DonePage(revision, changes)};
}

PageAnswer ChangedMeanwhile(const ControlFound& found, const std::string& token) {
  return {409, FormPage("Changed meanwhile",
                        "Revision " + std::to_string(found.revision) +
                            " has been set meanwhile. What you sent was not set over it; this is "
                            "what is set now.",
                        {found.revision, FieldsOf(found.settings), token, ""})};
}

PageAnswer Failed(const Fatal& fatal) {
  return {fatal.exit_code() == kExitMismatch ? 409 : 503, MessagePage("Not changed", fatal.what())};
}

// The store has said that it failed, or nothing: its acknowledgement alone may be lost.
PageAnswer Uncertain(const Fatal& fatal) {
  return {503, MessagePage("Perhaps not changed",
                           std::string(fatal.what()) +
                               "; it may still be set: look at the revision on the page first")};
}

PageAnswer Write(const ControlFound& found, const ControlSettings& wanted,
                 const ControlAccess& access, const std::string& token) {
  const Changes changes = ChangesOf(found.settings, wanted);
  try {
    return Done(access.write(wanted, found.revision), changes);
  } catch (const Fatal& fatal) {
    ControlFound now;
    try {
      now = access.read();
    } catch (const Fatal&) {
      return Uncertain(fatal);
    }
    if (now.revision == found.revision) return Uncertain(fatal);
    const bool is_set = ChangesOf(now.settings, wanted).empty();
    return is_set ? Done(now.revision, changes) : ChangedMeanwhile(now, token);
  }
}

// Throws Fatal if what is set cannot be read.
PageAnswer Answer(const Form& form, const ControlAccess& access, const std::string& token) {
  const ControlFound found = access.read();
  const bool is_confirmed = form.Get("confirmed") == "yes";
  const bool is_of_now = form.Get("revision") == std::to_string(found.revision);
  ControlSettings wanted;
  try {
    wanted = Wanted(form, found);
  } catch (const Fatal& fatal) {
    if (!is_of_now) return ChangedMeanwhile(found, token);
    return {400,
            FormPage("Not changed", fatal.what(), {found.revision, Typed(form, found), token, ""})};
  }
  const Changes changes = ChangesOf(found.settings, wanted);
  // Sent twice, by two clicks or a reload.
  if (changes.empty() && is_confirmed && !is_of_now) return Done(found.revision, changes);
  if (!is_of_now) return ChangedMeanwhile(found, token);
  if (changes.empty()) {
    return {200, FormPage("Nothing to change", "These are the values that are set.",
                          {found.revision, FieldsOf(found.settings), token, ""})};
  }
  if (is_confirmed) return Write(found, wanted, access, token);
  const bool brings_interval = !MayTellInterval(found.settings) && MayTellInterval(wanted);
  return {200,
          ConfirmPage({found.revision, FieldsOf(wanted), token, ""}, changes, brings_interval)};
}

}  // namespace

PageAnswer AnswerForm(const Form& form, const ControlAccess& access, const std::string& token) {
  try {
    return Answer(form, access, token);
  } catch (const Fatal& fatal) {
    return Failed(fatal);
  }
}

}  // namespace quenor::collector
