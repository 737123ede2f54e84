// Who waits for a connection, and how often a log hears of the same: in virtual time.
#include "services/http_client_curl/rules/lines.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "services/http_client_curl/rules/log_pauses.h"

QUENOR_NAMESPACE_BEGIN
namespace http_lines {
namespace {

constexpr char kServer[] = "https://one.example/reports";

class LinesTest : public ::testing::Test {
 protected:
  static constexpr uint32_t kPlaces = 2;

  bool Enter(Member* request, const std::string& url = kServer) {
    return lines_.Enter(url, kPlaces, &client_, request);
  }
  Member* Leave(Member* request) { return lines_.Leave(&client_, request); }
  std::vector<Member*> Late(int64_t now_ms) {
    std::vector<Member*> taken;
    lines_.TakeLate(now_ms, &taken);
    return taken;
  }

  ClientLines client_;
  Lines lines_;
  Member first_{100, nullptr}, second_{200, nullptr}, third_{400, nullptr}, fourth_{300, nullptr};
};

TEST_F(LinesTest, PlacesGoToTheOldestThatWaitsAndThenBecomeFree) {
  EXPECT_TRUE(Enter(&first_));
  EXPECT_TRUE(Enter(&second_));
  EXPECT_FALSE(Enter(&third_));
  EXPECT_FALSE(Enter(&fourth_));

  EXPECT_EQ(&third_, Leave(&first_));
  EXPECT_EQ(nullptr, Leave(&first_));  // It has none any more.
  EXPECT_EQ(&fourth_, Leave(&third_));
  EXPECT_EQ(kNever, lines_.deadline_ms());
  EXPECT_EQ(nullptr, Leave(&second_));
  EXPECT_TRUE(Enter(&first_));
  EXPECT_FALSE(Enter(&second_));
}

TEST_F(LinesTest, EachServerAndEachClientHasALineOfItsOwn) {
  ClientLines other_client;
  EXPECT_TRUE(Enter(&first_));
  EXPECT_TRUE(Enter(&second_, "https://one.example"));  // The path does not count.
  EXPECT_FALSE(Enter(&third_, "https://one.example/x/y"));
  EXPECT_TRUE(Enter(&fourth_, "https://one.example:444/reports"));
  Member another{500, nullptr};
  EXPECT_TRUE(lines_.Enter(kServer, kPlaces, &other_client, &another));

  EXPECT_EQ(nullptr, Leave(&fourth_));
  EXPECT_EQ(1u, client_.size());  // The line to the other server has gone.
  EXPECT_EQ(nullptr, lines_.Leave(&other_client, &another));
  EXPECT_EQ(1u, other_client.size());  // A client's only one stays.
  EXPECT_EQ(&third_, Leave(&second_));
}

TEST_F(LinesTest, WhoWaitsIsLateAtItsDeadlineWhateverItsPlace) {
  EXPECT_TRUE(Enter(&first_));
  EXPECT_TRUE(Enter(&second_));
  EXPECT_EQ(kNever, lines_.deadline_ms());  // Of those that have a place others take care.
  EXPECT_FALSE(Enter(&third_));
  EXPECT_FALSE(Enter(&fourth_));
  EXPECT_EQ(300, lines_.deadline_ms());

  EXPECT_EQ(std::vector<Member*>{}, Late(299));
  EXPECT_EQ(std::vector<Member*>{&fourth_}, Late(300));
  EXPECT_EQ(nullptr, fourth_.line);
  EXPECT_EQ(400, lines_.deadline_ms());
  EXPECT_EQ(nullptr, Leave(&fourth_));  // It had no place to give up.
  EXPECT_EQ(&third_, Leave(&first_));
  EXPECT_EQ(std::vector<Member*>{}, Late(kNever));
}

TEST_F(LinesTest, ThoseOfWhomSomethingIsTrueAreTakenInTheirOrder) {
  Member fifth{500, nullptr};
  for (Member* request : {&first_, &second_, &third_, &fourth_, &fifth}) Enter(request);
  std::vector<Member*> taken;

  lines_.Take([](const Member& one, int64_t now) { return one.deadline_ms != now; }, 300, &taken);

  EXPECT_EQ((std::vector<Member*>{&third_, &fifth}), taken);
  EXPECT_EQ(300, lines_.deadline_ms());
  EXPECT_EQ(&fourth_, Leave(&first_));
}

TEST(LogPausesTest, EachCauseIsLoggedOnceAMinuteAndTheOldestOfManyIsForgotten) {
  LogPauses pauses;
  EXPECT_TRUE(pauses.MayLog("a", 1000));
  EXPECT_FALSE(pauses.MayLog("a", 60999));
  EXPECT_TRUE(pauses.MayLog("a", 61000));
  EXPECT_FALSE(pauses.MayLog("a", 120999));

  for (int i = 0; i < 64; ++i) EXPECT_TRUE(pauses.MayLog(std::to_string(i), 61001 + i)) << i;

  EXPECT_FALSE(pauses.MayLog("0", 62000));
  EXPECT_FALSE(pauses.MayLog("63", 62000));
  EXPECT_TRUE(pauses.MayLog("a", 62000));
  EXPECT_TRUE(pauses.MayLog("0", 62001));
}

}  // namespace
}  // namespace http_lines
QUENOR_NAMESPACE_END
