// What a run can be measured by, and expected to come to.
#ifndef FLEET_SCENARIO_MEASURES_H_
#define FLEET_SCENARIO_MEASURES_H_

#include <vector>

#include "fleet/scenario/scenario.h"
#include "fleet/scenario/words.h"

namespace quenor::fleet {

struct Measure {
  const char* name;
  const char* units;  // In which it may be asked for, one behind the other.
  const char* meaning;
};
const std::vector<Measure>& Measures();

// "MEASURE < NUMBER", or ">". Throws ScenarioError.
Expectation ParseExpectation(Words* words);

}  // namespace quenor::fleet

#endif  // FLEET_SCENARIO_MEASURES_H_
