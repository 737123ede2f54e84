// The server's reply: what is read from it, what is applied, and what is logged.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "tests/support/channel_test_fixture.h"

namespace quenor::test {
namespace {

class ChannelControlTest : public ChannelTest {
 protected:
  void SetUp() override { Start(); }

  // Handles `body` as the reply to a message.
  void Handle(const std::string& body) {
    OnQueue([&body](Peer peer) {
      const std::map<std::string, std::string> headers;
      peer.HandleResponse(body.data(), static_cast<uint32_t>(body.size()), &headers);
    });
  }
  // As Handle(), with members behind the verdict "success".
  void HandleFields(const std::string& fields) {
    Handle("{\"bytes_errinfo\":\"success\"," + fields + "}");
  }
  void ExpectUnchanged() {
    EXPECT_EQ(peer().resend_interval_ms(), 0u);
    EXPECT_EQ(peer().current_interval_ms(), 0u);
    EXPECT_EQ(peer().max_resend_count(), 5u);
    EXPECT_EQ(channel_->GetReportInterval(), 10000u);
    EXPECT_EQ(SendPeriod(), -1);
  }
  void ExpectUnchangedAndSilent() {
    ExpectUnchanged();
    EXPECT_TRUE(RecordingLog::Lines().empty());
  }
};

constexpr char kAllFields[] =
    "\"uint32_send_interval\":3000,\"uint32_max_resend_count\":2,\"uint32_report_duration\":30";

// --- Bodies from which nothing is applied ---

TEST_F(ChannelControlTest, NullBodyLogsThatItIsEmpty) {
  OnQueue([](Peer peer) { peer.HandleResponse(nullptr, 0, nullptr); });
  OnQueue([](Peer peer) { peer.HandleResponse(nullptr, 10, nullptr); });

  ExpectUnchanged();
  const auto lines = RecordingLog::Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].level, 2);
  EXPECT_EQ(lines[0].file, kSourcePath);
  EXPECT_EQ(lines[0].text, "body is empty");
  EXPECT_EQ(lines[1].text, "body is empty");
}

TEST_F(ChannelControlTest, BodyOfZeroBytesLogsThatItIsEmpty) {
  Handle("");

  ExpectUnchanged();
  EXPECT_EQ(RecordingLog::Texts(2), Texts{"body is empty"});
}

TEST_F(ChannelControlTest, EmptyBodyLineIsNotThrottled) {
  for (int i = 0; i < 3; ++i) Handle("");

  EXPECT_EQ(RecordingLog::Lines().size(), 3u);
}

class ChannelSilentBodyTest : public ChannelControlTest,
                              public ::testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(
    NotJson, ChannelSilentBodyTest,
    ::testing::Values("not json", "{", "{\"bytes_errinfo\":\"success\"", "<html></html>", " ",
                      "{\"bytes_errinfo\":\"success\",\"uint32_send_interval\":3000,}",
                      "{'bytes_errinfo':'success'}", "{bytes_errinfo:\"success\"}",
                      "/**/{\"bytes_errinfo\":\"success\"}",
                      "{\"bytes_errinfo\":\"success\"} {\"bytes_errinfo\":\"success\"}"));
INSTANTIATE_TEST_SUITE_P(NoObject, ChannelSilentBodyTest,
                         ::testing::Values("[]", "[{\"bytes_errinfo\":\"success\"}]", "\"success\"",
                                           "200", "true", "null"));

TEST_P(ChannelSilentBodyTest, ChangesAndLogsNothing) {
  Handle(GetParam());

  ExpectUnchangedAndSilent();
}

TEST_F(ChannelControlTest, NestingOfTwoHundredLevelsIsReadAndOneMoreIsNot) {
  const auto nested = [](int levels) {  // Arrays inside the object, which is a level itself.
    return "{\"bytes_errinfo\":\"success\",\"uint32_report_duration\":30,\"x\":" +
           std::string(static_cast<size_t>(levels - 1), '[') +
           std::string(static_cast<size_t>(levels - 1), ']') + "}";
  };
  Handle(nested(201));
  ExpectUnchangedAndSilent();

  Handle(nested(200));

  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
}

// --- The verdict ---

class ChannelVerdictTest : public ChannelControlTest,
                           public ::testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(NotSuccess, ChannelVerdictTest,
                         ::testing::Values("\"Success\"", "\"SUCCESS\"", "\"success \"",
                                           "\" success\"", "\"\"", "\"succes\"",
                                           "\"success\\u0000\"", "\"failed\"", "1", "true", "null",
                                           "[\"success\"]", "{\"success\":1}"));

TEST_P(ChannelVerdictTest, LogsTheWholeBodyAndAppliesNothing) {
  const std::string body = "{\"bytes_errinfo\":" + std::string(GetParam()) + "," + kAllFields + "}";

  Handle(body);

  ExpectUnchanged();
  const auto lines = RecordingLog::Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, 2);
  EXPECT_EQ(lines[0].file, kSourcePath);
  EXPECT_EQ(lines[0].text, "response_errinfo is not success, response_msg:" + body);
}

TEST_F(ChannelControlTest, MissingVerdictLogsTheBodyAndAppliesNothing) {
  const std::string body = std::string("{") + kAllFields + "}";

  Handle(body);

  ExpectUnchanged();
  EXPECT_EQ(RecordingLog::Texts(2), Texts{"response_errinfo is not success, response_msg:" + body});
}

TEST_F(ChannelControlTest, VerdictEscapedInJsonIsTheSameVerdict) {
  Handle("{\"bytes_errinfo\":\"\\u0073uccess\",\"uint32_report_duration\":30}");

  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
}

TEST_F(ChannelControlTest, VerdictNeedNotComeFirst) {
  Handle("{\"uint32_report_duration\":30,\"bytes_errinfo\":\"success\"}");

  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
}

TEST_F(ChannelControlTest, LongBodyIsLoggedWhole) {
  const std::string body = "{\"bytes_errinfo\":\"" + std::string(20000, 'x') + "\"}";

  Handle(body);

  EXPECT_EQ(RecordingLog::Texts(2), Texts{"response_errinfo is not success, response_msg:" + body});
}

TEST_F(ChannelControlTest, PercentSignsInTheBodyAreNotFormatted) {
  Handle("{\"bytes_errinfo\":\"%s%n%d\"}");

  EXPECT_EQ(RecordingLog::Texts(2),
            Texts{"response_errinfo is not success, response_msg:{\"bytes_errinfo\":\"%s%n%d\"}"});
}

TEST_F(ChannelControlTest, SuccessAloneChangesAndLogsNothing) {
  Handle(kSuccess);

  ExpectUnchangedAndSilent();
}

TEST_F(ChannelControlTest, BodyIsReadByItsSizeAndNotToATerminator) {
  const std::string body = std::string(kSuccess) + "trailing";
  OnQueue([&body](Peer peer) {
    peer.HandleResponse(body.data(), static_cast<uint32_t>(sizeof(kSuccess) - 1), nullptr);
  });

  ExpectUnchangedAndSilent();
}

TEST_F(ChannelControlTest, HeadersHaveNoInfluenceNotEvenWhenNull) {
  const std::string body = "{\"bytes_errinfo\":\"success\",\"uint32_report_duration\":30}";
  OnQueue([&body](Peer peer) {
    peer.HandleResponse(body.data(), static_cast<uint32_t>(body.size()), nullptr);
  });
  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
  const std::map<std::string, std::string> headers = {
      {"content-type", "text/html"}, {"bytes_errinfo", "failed"}, {"uint32_report_duration", "1"}};

  OnQueue([&](Peer peer) {
    peer.HandleResponse(body.data(), static_cast<uint32_t>(body.size()), &headers);
  });

  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

// --- The fields ---

TEST_F(ChannelControlTest, AllThreeFieldsAreApplied) {
  HandleFields(kAllFields);

  EXPECT_EQ(peer().resend_interval_ms(), 3000u);
  EXPECT_EQ(peer().current_interval_ms(), 3000u);
  EXPECT_EQ(SendPeriod(), 3000);
  EXPECT_EQ(peer().max_resend_count(), 2u);
  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
  EXPECT_TRUE(RecordingLog::Lines().empty());
}

TEST_F(ChannelControlTest, OtherMembersAreIgnored) {
  HandleFields("\"send_interval\":1,\"x\":{\"uint32_send_interval\":4},\"y\":[1,2]");

  ExpectUnchangedAndSilent();
}

TEST_F(ChannelControlTest, SecondIdenticalIntervalDoesNotRestartTheTimer) {
  Send("one");
  HandleFields("\"uint32_send_interval\":3000");
  Advance(2000);

  HandleFields("\"uint32_send_interval\":3000");

  EXPECT_EQ(SendPeriod(), 3000);
  Advance(1000);
  EXPECT_EQ(http_.RequestCount(), 1u);
}

TEST_F(ChannelControlTest, IntervalOfFiftyIsStoredAndRunsAtTheFloor) {
  HandleFields("\"uint32_send_interval\":50");

  EXPECT_EQ(peer().resend_interval_ms(), 50u);
  EXPECT_EQ(peer().current_interval_ms(), 50u);
  EXPECT_EQ(SendPeriod(), 100);
}

TEST_F(ChannelControlTest, IntervalFromTheServerTurnsSendNowIntoQueueing) {
  HandleFields("\"uint32_send_interval\":3000");

  Send("now", false, true);

  EXPECT_EQ(http_.RequestCount(), 0u);
  EXPECT_EQ(PendingBodies(), Texts{"now"});
}

TEST_F(ChannelControlTest, LimitOfOneDropsEveryLaterFailure) {
  HandleFields("\"uint32_max_resend_count\":1");
  Send("one", false, true);

  Fail(0);

  EXPECT_EQ(peer().dropping(), 1u);
  EXPECT_TRUE(peer().pending().empty());
}

TEST_F(ChannelControlTest, DurationIsSecondsAndTheIntervalMilliseconds) {
  HandleFields("\"uint32_report_duration\":30");

  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
  EXPECT_EQ(SendPeriod(), -1);
}

TEST_F(ChannelControlTest, LargestDurationBeforeTheWrapIsKeptAndTheNextOneWraps) {
  HandleFields("\"uint32_report_duration\":4294967");
  EXPECT_EQ(channel_->GetReportInterval(), 4294967000u);

  HandleFields("\"uint32_report_duration\":4294968");

  EXPECT_EQ(channel_->GetReportInterval(), 704u);
}

TEST_F(ChannelControlTest, LargestIntegersAreApplied) {
  HandleFields(
      "\"uint32_send_interval\":2147483647,\"uint32_max_resend_count\":2147483647,"
      "\"uint32_report_duration\":2147483647");

  EXPECT_EQ(peer().resend_interval_ms(), 2147483647u);
  EXPECT_EQ(SendPeriod(), 2147483647);
  EXPECT_EQ(peer().max_resend_count(), 2147483647u);
  EXPECT_EQ(channel_->GetReportInterval(), 2147483647u * 1000u);
}

class ChannelIgnoredValueTest : public ChannelControlTest,
                                public ::testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(All, ChannelIgnoredValueTest,
                         ::testing::Values("0", "-0", "-1", "-3", "-2147483648", "2147483648",
                                           "4294967295", "4294967296", "99999999999999999999",
                                           "1.5", "3000.0", "3e3", "\"3000\"", "true", "false",
                                           "null", "[3000]", "{\"a\":3000}"));

TEST_P(ChannelIgnoredValueTest, LeavesTheSettingAlone) {
  const std::string value = GetParam();

  HandleFields("\"uint32_send_interval\":" + value + ",\"uint32_max_resend_count\":" + value +
               ",\"uint32_report_duration\":" + value);

  ExpectUnchangedAndSilent();
}

TEST_P(ChannelIgnoredValueTest, DoesNotKeepTheOtherFieldsFromBeingApplied) {
  const std::string value = GetParam();

  HandleFields("\"uint32_send_interval\":" + value +
               ",\"uint32_max_resend_count\":7,\"uint32_report_duration\":30");
  EXPECT_EQ(peer().resend_interval_ms(), 0u);
  EXPECT_EQ(peer().max_resend_count(), 7u);
  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
  HandleFields("\"uint32_send_interval\":200,\"uint32_max_resend_count\":" + value +
               ",\"uint32_report_duration\":" + value);

  EXPECT_EQ(peer().resend_interval_ms(), 200u);
  EXPECT_EQ(peer().max_resend_count(), 7u);
  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
}

TEST_P(ChannelIgnoredValueTest, DoesNotSwitchAConfiguredSettingOff) {
  HandleFields(kAllFields);
  const std::string value = GetParam();

  HandleFields("\"uint32_send_interval\":" + value + ",\"uint32_max_resend_count\":" + value +
               ",\"uint32_report_duration\":" + value);

  EXPECT_EQ(peer().resend_interval_ms(), 3000u);
  EXPECT_EQ(peer().current_interval_ms(), 3000u);
  EXPECT_EQ(SendPeriod(), 3000);
  EXPECT_EQ(peer().max_resend_count(), 2u);
  EXPECT_EQ(channel_->GetReportInterval(), 30000u);
}

// --- Through a response ---

TEST_F(ChannelControlTest, ReplyOfA200RetunesTheChannel) {
  Send("one", false, true);

  Answer(0, 200, std::string("{\"bytes_errinfo\":\"success\",") + kAllFields + "}");

  EXPECT_EQ(peer().resend_interval_ms(), 3000u);
  EXPECT_EQ(peer().current_interval_ms(), 3000u);
  EXPECT_EQ(SendPeriod(), 3000);
  EXPECT_EQ(peer().max_resend_count(), 2u);
}

TEST_F(ChannelControlTest, RetuningIsToldWithTheValuesNowInForce) {
  Send("one", false, true);

  Answer(0, 200, "{\"bytes_errinfo\":\"success\",\"uint32_max_resend_count\":2}");

  const auto told = events_.OfKind(Kind::kRetuned);
  ASSERT_EQ(told.size(), 1u);
  EXPECT_EQ(told[0].send_interval_ms, 0u);
  EXPECT_EQ(told[0].max_resend_count, 2u);
  EXPECT_EQ(told[0].report_interval_ms, 10000u);
}

TEST_F(ChannelControlTest, ReplyWithoutControlFieldsIsNotToldAsRetuning) {
  Send("one", false, true);

  Answer(0, 200, kSuccess);

  EXPECT_EQ(events_.Count(Kind::kRetuned), 0u);
}

}  // namespace
}  // namespace quenor::test
