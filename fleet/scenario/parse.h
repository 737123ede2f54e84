// Reads scenarios. Both throw ScenarioError.
#ifndef FLEET_SCENARIO_PARSE_H_
#define FLEET_SCENARIO_PARSE_H_

#include <string>
#include <vector>

#include "fleet/scenario/scenario.h"
#include "fleet/scenario/words.h"

namespace quenor::fleet {

// `text`, and then each of `settings`, "KEY=VALUE", as the line "KEY VALUE"; the channels of such a
// line replace all others. `name` is what errors call the text.
Scenario ParseScenario(const std::string& name, const std::string& text,
                       const std::vector<std::string>& settings);

Scenario ReadScenario(const std::string& path, const std::vector<std::string>& settings);

}  // namespace quenor::fleet

#endif  // FLEET_SCENARIO_PARSE_H_
