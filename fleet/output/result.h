// What a run comes to, in a few numbers, and whether that is what its scenario expects.
#ifndef FLEET_OUTPUT_RESULT_H_
#define FLEET_OUTPUT_RESULT_H_

#include <cstdint>
#include <string>
#include <vector>

#include "fleet/scenario/scenario.h"

namespace quenor::fleet {

class Fleet;

class Fleet;

// Of a fleet that has ended.
class Result {
 public:
  Result(const Fleet& fleet, const Scenario& scenario);
  // In `unit`, which is one of the measure's. Infinite for what never comes.
  double Of(const std::string& measure, const std::string& unit) const;
  // As a person reads it: "94.1%".
  std::string Text(const std::string& measure, const std::string& unit) const;

 private:
  struct Value {
    std::string measure;
    std::string unit;
    double value;
  };
  std::vector<Value> values_;
};

// Empty when it holds; else the line that says what came instead.
std::string FailureOf(const Expectation& expectation, const Result& result);

}  // namespace quenor::fleet

#endif  // FLEET_OUTPUT_RESULT_H_
