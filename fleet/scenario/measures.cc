#include "fleet/scenario/measures.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>

namespace quenor::fleet {

const std::vector<Measure>& Measures() {
  static const auto* const measures = new std::vector<Measure>{
      {"lost", "%", "reports lost, of all that were handed over"},
      {"outage-lost", "%", "reports handed over in an outage and lost, of all handed over then"},
      {"trimmed", "%", "reports dropped as too many waited, of all that were handed over"},
      {"refused", "%", "requests answered with something else than 200, of all"},
      {"peak", "x /s", "the most requests a second, over ten seconds"},
      {"after", "x /s", "requests a second in the 300 seconds after the last incident"},
      {"gone", "s", "from the last incident's end until no more reports wait than usual"},
      {"waiting", "", "reports that wait when the run ends"},
      {"age", "s", "the longest p99 of a second's reports, from hand-over to arrival"},
      {"interval", "s", "the policy's interval when the run ends"},
  };
  return *measures;
}

Expectation ParseExpectation(Words* words) {
  std::string names;
  for (const Measure& each : Measures())
    names += (names.empty() ? "" : ", ") + std::string(each.name);
  Expectation expectation;
  expectation.place = words->place();
  expectation.text = words->Rest();
  expectation.measure = words->Next(names.c_str());
  const auto measure = std::find_if(Measures().begin(), Measures().end(), [&](const Measure& each) {
    return expectation.measure == each.name;
  });
  if (measure == Measures().end()) words->Fail("one of " + names);
  const std::string sign = words->Next("\"<\" or \">\"");
  if (sign != "<" && sign != ">") words->Fail("\"<\" or \">\"");
  expectation.below = sign == "<";
  const std::string units = measure->units;
  const std::string expected = units.empty() ? "a number" : "a number with its unit: " + units;
  const std::string bound = words->Next(expected.c_str());
  char* end = nullptr;
  expectation.bound = std::strtod(bound.c_str(), &end);
  expectation.unit = end;
  const bool is_unit = (" " + units + " ").find(" " + expectation.unit + " ") != std::string::npos;
  if (end == bound.c_str() || !is_unit || !std::isfinite(expectation.bound)) words->Fail(expected);
  return expectation;
}

}  // namespace quenor::fleet
