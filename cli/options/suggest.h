// What someone who has mistyped a word may have meant. Pure; any thread.
#ifndef CLI_OPTIONS_SUGGEST_H_
#define CLI_OPTIONS_SUGGEST_H_

#include <string>
#include <vector>

namespace quenor::cli {

// The one of `known` that takes the fewest slips (a letter wrong, missing, added, or two swapped)
// to become `word`, the first of several; empty when even that takes more than a third of its
// letters.
std::string Nearest(const std::string& word, const std::vector<std::string>& known);

}  // namespace quenor::cli

#endif  // CLI_OPTIONS_SUGGEST_H_
