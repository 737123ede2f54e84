#include "cli/send/summary.h"

#include <gtest/gtest.h>

#include <utility>

namespace quenor::cli {
namespace {

Counts Some() {
  Counts counts;
  counts.handed_over = 10;
  counts.delivered = 6;
  counts.failed_attempts = 5;
  counts.dropped = 1;
  counts.left = 3;
  counts.loaded = 4;
  counts.kept = 2;
  return counts;
}

TEST(ClosingLineTest, GivesEveryNumberItsName) {
  EXPECT_EQ("handed_over=10 delivered=6 failed_attempts=5 dropped=1 left=3 loaded=4 kept=2",
            ClosingLine(Some()));
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

TEST(ExitCodeTest, TellsWhatOnlyAPersonCanMendFromWhatMayPass) {
  Counts counts;
  counts.left = 1;
  for (const auto& [reason, code] : {std::pair(HttpReason::kTlsUntrusted, 77),
                                     {HttpReason::kTlsExpired, 77},
                                     {HttpReason::kProxyCredentials, 77},
                                     {HttpReason::kTlsOther, 75},
                                     {HttpReason::kNameNotFound, 75},
                                     {HttpReason::kNone, 75}}) {
    counts.only_reason = reason;
    EXPECT_EQ(code, ExitCodeFor(counts, false)) << HttpReasonName(reason);
  }

  counts.only_reason = HttpReason::kTlsPin;
  counts.delivered = 1;
  EXPECT_EQ(75, ExitCodeFor(counts, false));
  counts.delivered = 0;
  counts.dropped = 1;
  EXPECT_EQ(69, ExitCodeFor(counts, false));
}

TEST(LeftLineTest, NamesWhatIsNotKeptAndHowManyMore) {
  EXPECT_EQ(
      "3 messages left undelivered (line 1, line 2 and 1 more) and not kept on disk; at the last "
      "failed send the server did not answer in time; hand them over again, or allow more time "
      "with --wait",
      LeftLine(3, {"line 1", "line 2"}, "", "the server did not answer in time"));
}

TEST(LeftLineTest, SaysWhereTheRestIsKept) {
  EXPECT_EQ(
      "2 messages left undelivered (line 1, line 2), kept in /x/a.mmap for the next run; at the "
      "last failed send the server did not answer in time; do not hand them over again: a run of "
      "the same channel delivers them",
      LeftLine(2, {"line 1", "line 2"}, "/x/a.mmap", "the server did not answer in time"));
}

TEST(LeftLineTest, IsSilentAboutFailuresWhenThereWereNone) {
  EXPECT_EQ(
      "1 message left undelivered (a.txt) and not kept on disk; hand it over again, or allow more "
      "time with --wait",
      LeftLine(1, {"a.txt"}, "", ""));
}

}  // namespace
}  // namespace quenor::cli
