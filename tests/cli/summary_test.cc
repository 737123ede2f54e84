#include "cli/summary.h"

#include <gtest/gtest.h>

namespace quenor::cli {
namespace {

Counts Some() {
  Counts counts;
  counts.handed_over = 10;
  counts.delivered = 6;
  counts.failed_attempts = 5;
  counts.dropped = 1;
  counts.left = 3;
  return counts;
}

TEST(ClosingLineTest, GivesEveryNumberItsName) {
  EXPECT_EQ("handed_over=10 delivered=6 failed_attempts=5 dropped=1 left=3", ClosingLine(Some()));
}

TEST(ExitCodeTest, IsZeroWhenAllWasDelivered) {
  Counts counts;
  EXPECT_EQ(0, ExitCodeFor(counts, false));
  counts.handed_over = counts.delivered = 2;
  counts.failed_attempts = 1;
  EXPECT_EQ(0, ExitCodeFor(counts, false));
}

TEST(ExitCodeTest, DroppedOutweighsUnreadableOutweighsLeft) {
  Counts counts = Some();
  EXPECT_EQ(69, ExitCodeFor(counts, true));
  EXPECT_EQ(69, ExitCodeFor(counts, false));
  counts.dropped = 0;
  EXPECT_EQ(65, ExitCodeFor(counts, true));
  EXPECT_EQ(75, ExitCodeFor(counts, false));
}

TEST(LeftLineTest, NamesWhatIsLeftAndHowManyMore) {
  EXPECT_EQ(
      "3 messages left undelivered (line 1, line 2 and 1 more); at the last failed send the server "
      "did not answer in time; hand them over again, or allow more time with --wait",
      LeftLine(Some(), {"line 1", "line 2"}, "the server did not answer in time"));
}

TEST(LeftLineTest, IsSilentAboutFailuresWhenThereWereNone) {
  Counts counts;
  counts.left = 1;
  EXPECT_EQ(
      "1 message left undelivered (a.txt); hand them over again, or allow more time with --wait",
      LeftLine(counts, {"a.txt"}, ""));
}

}  // namespace
}  // namespace quenor::cli
