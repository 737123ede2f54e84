#include "cli/options/help.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace quenor::cli {
namespace {

constexpr char kHelp[] =
    "Delivers things, each of them whole and in its turn, to where they are wanted.\n"
    "\n"
    "  --url URL                   where all of them are to be delivered by this program\n"
    "  --a-long-name VALUE-OF-IT\n"
    "                              what stands below it goes on in its column, line by line\n"
    "Examples:\n"
    "  deliver --url https://collector.example/reports --send-now < events.jsonl\n"
    "      the first line of what is said of it, which\n"
    "      goes on here\n"
    "\n"
    "A paragraph of\n"
    "three short\n"
    "lines.\n";

size_t LongestLine(const std::string& text) {
  size_t longest = 0;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) longest = std::max(longest, line.size());
  return longest;
}

TEST(HelpTest, KeepsDescriptionsInTheirColumn) {
  EXPECT_EQ(
      "Delivers things, each of them whole and in its turn, to\n"
      "where they are wanted.\n"
      "\n"
      "  --url URL                   where all of them are to be\n"
      "                              delivered by this program\n"
      "  --a-long-name VALUE-OF-IT\n"
      "                              what stands below it goes on\n"
      "                              in its column, line by line\n"
      "Examples:\n"
      "  deliver --url https://collector.example/reports \\\n"
      "    --send-now < events.jsonl\n"
      "      the first line of what is said of it, which goes on\n"
      "      here\n"
      "\n"
      "A paragraph of three short lines.\n",
      FitHelp(kHelp, 60));
}

TEST(HelpTest, PutsDescriptionsBelowWhereTheColumnIsTooNarrow) {
  const std::string help = FitHelp(kHelp, 50);

  EXPECT_NE(std::string::npos,
            help.find("\n  --url URL\n      where all of them are to be delivered by\n"))
      << help;
}

TEST(HelpTest, AWordThatJustFitsStaysOnItsLine) {
  const std::string line = std::string(19, 'x') + " " + std::string(20, 'y');

  EXPECT_EQ(line + "\nz\n", FitHelp(line + " z\n", line.size()));
}

TEST(HelpTest, NoLineIsLongerThanTheTerminalIsWide) {
  for (size_t width = 58; width <= 120; ++width) {
    EXPECT_LE(LongestLine(FitHelp(kHelp, width)), width) << width;
  }
  // A word is not broken.
  EXPECT_EQ(LongestLine(FitHelp(kHelp, 1)), LongestLine(FitHelp(kHelp, 40)));
}

}  // namespace
}  // namespace quenor::cli
