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

// Throws Fatal for what cannot be meant.
ControlSettings Wanted(const Form& form, const ControlFound& found) {
  ControlChange change;
  for (const auto& [name, value] : FieldsOf(found.settings)) {
    const std::string typed = form.Get(name);
    if (!typed.empty()) Give(name, typed, &change);
  }
  return Changed(found.settings, change);
}

PageAnswer ChangedMeanwhile(const ControlFound& found, const std::string& token) {
  return {409, FormPage("Changed meanwhile",
                        "Somebody else has set revision " + std::to_string(found.revision) +
                            ". Nothing of yours was set; this is what is set now.",
                        {found.revision, FieldsOf(found.settings), token})};
}

PageAnswer Failed(const Fatal& fatal) {
  return {fatal.exit_code() == kExitMismatch ? 409 : 503, MessagePage("Not changed", fatal.what())};
}

PageAnswer Write(const ControlFound& found, const ControlSettings& wanted,
                 const ControlAccess& access, const std::string& token) {
  try {
    const uint64_t revision = access.write(wanted, found.revision);
    return {200, DonePage(revision, ChangesOf(found.settings, wanted))};
  } catch (const Fatal& fatal) {
    // The store says no more than that it failed.
    const ControlFound now = access.read();
    return now.revision == found.revision ? Failed(fatal) : ChangedMeanwhile(now, token);
  }
}

}  // namespace

PageAnswer AnswerForm(const Form& form, const ControlAccess& access, const std::string& token) {
  try {
    const ControlFound found = access.read();
    if (form.Get("revision") != std::to_string(found.revision)) {
      return ChangedMeanwhile(found, token);
    }
    ControlSettings wanted;
    try {
      wanted = Wanted(form, found);
    } catch (const Fatal& fatal) {
      return {400,
              FormPage("Not changed", fatal.what(), {found.revision, Typed(form, found), token})};
    }
    const Changes changes = ChangesOf(found.settings, wanted);
    if (changes.empty()) {
      return {200, FormPage("Nothing to change", "These are the values that are set.",
                            {found.revision, FieldsOf(found.settings), token})};
    }
    if (form.Get("confirmed") != "yes") {
      return {200, ConfirmPage({found.revision, FieldsOf(wanted), token}, changes)};
    }
    return Write(found, wanted, access, token);
  } catch (const Fatal& fatal) {
    return Failed(fatal);
  }
}

}  // namespace quenor::collector
