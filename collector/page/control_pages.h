// What comes of the page's form: first the old and the new values and a question, then, when it is
// confirmed, the change. No network: it reads and writes through what it is given.
#ifndef COLLECTOR_PAGE_CONTROL_PAGES_H_
#define COLLECTOR_PAGE_CONTROL_PAGES_H_

#include <cstdint>
#include <functional>
#include <string>

#include "collector/control_room/change.h"
#include "collector/page/form.h"

namespace quenor::collector {

// As ControlRoom's: both throw Fatal.
struct ControlAccess {
  std::function<ControlFound()> read;
  std::function<uint64_t(const ControlSettings& settings, uint64_t revision)> write;
};

struct PageAnswer {
  int status = 200;
  std::string html;
};

// The form names the revision that its values were read at: what was changed meanwhile is shown,
// and is not overwritten. A change that is sent again once it is set is answered as if it were new.
// `token` is for the forms that the answer has.
PageAnswer AnswerForm(const Form& form, const ControlAccess& access, const std::string& token);

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_CONTROL_PAGES_H_
