// The way of the page's form: a question first, then the change, and never over another's.
#include "collector/page/control_pages.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "collector/fatal.h"

namespace quenor::collector {
namespace {

class ControlPagesTest : public ::testing::Test {
 protected:
  ControlPagesTest() {
    set_.revision = 4;
    set_.settings.report_duration_s = 60;
  }

  PageAnswer Send(const std::string& body) {
    const ControlAccess access = {[this] { return read_fails_ ? throw *read_fails_ : set_; },
                                  [this](const ControlSettings& settings, uint64_t revision) {
                                    if (before_write_) before_write_();
                                    if (revision != set_.revision)
                                      throw Fatal(kExitUnavailable, "cannot set it");
                                    ++writes_;
                                    set_ = {revision + 1, settings};
                                    if (after_write_) after_write_();
                                    return set_.revision;
                                  }};
    return AnswerForm(Form(body), access, "the-token");
  }

  static bool Has(const PageAnswer& answer, const std::string& part) {
    return answer.html.find(part) != std::string::npos;
  }

  ControlFound set_;
  int writes_ = 0;
  std::optional<Fatal> read_fails_;
  std::function<void()> before_write_;
  std::function<void()> after_write_;
};

TEST_F(ControlPagesTest, AsksFirst) {
  const PageAnswer answer = Send("revision=4&report_duration_s=300&policy=none");

  EXPECT_EQ(answer.status, 200);
  EXPECT_TRUE(Has(answer, "<td data-head=\"old\">60</td><td data-head=\"new\">300</td>"));
  EXPECT_TRUE(Has(answer, "name=\"confirmed\" value=\"yes\""));
  EXPECT_TRUE(Has(answer, "name=\"report_duration_s\" value=\"300\""));
  EXPECT_TRUE(Has(answer, "name=\"token\" value=\"the-token\""));
  EXPECT_EQ(writes_, 0);
}

TEST_F(ControlPagesTest, ChangesWhenItIsConfirmed) {
  const PageAnswer answer = Send("revision=4&report_duration_s=300&confirmed=yes");

  EXPECT_EQ(answer.status, 200);
  EXPECT_TRUE(Has(answer, "Revision 5 is set."));
  EXPECT_EQ(set_.settings.report_duration_s, 300u);
  EXPECT_EQ(set_.settings.max_resend_count, control::kMostResendCount) << "as it was";
}

TEST_F(ControlPagesTest, WhatWasChangedMeanwhileIsShownAndStays) {
  const PageAnswer answer = Send("revision=3&report_duration_s=300&confirmed=yes");

  EXPECT_EQ(answer.status, 409);
  EXPECT_TRUE(Has(answer, "Revision 4 has been set meanwhile."));
  EXPECT_TRUE(Has(answer, "name=\"report_duration_s\" inputmode=\"numeric\" value=\"60\""));
  EXPECT_TRUE(Has(answer, "name=\"revision\" value=\"4\""));
  EXPECT_EQ(writes_, 0);
}

TEST_F(ControlPagesTest, AlsoBetweenReadingAndWriting) {
  before_write_ = [this] {
    set_.revision = 9;
    set_.settings.report_duration_s = 77;
  };

  const PageAnswer answer = Send("revision=4&report_duration_s=300&confirmed=yes");

  EXPECT_EQ(answer.status, 409);
  EXPECT_TRUE(Has(answer, "Revision 9 has been set meanwhile."));
  EXPECT_EQ(set_.settings.report_duration_s, 77u);
}

TEST_F(ControlPagesTest, OnesOwnChangeIsNobodyElses) {
  const std::string twice = "revision=4&report_duration_s=300&confirmed=yes";
  EXPECT_TRUE(Has(Send(twice), "Revision 5 is set."));
  const PageAnswer again = Send(twice);
  EXPECT_EQ(again.status, 200);
  EXPECT_TRUE(Has(again, "Revision 5 is set.")) << "a double click, or a reload";
  EXPECT_EQ(writes_, 1);

  before_write_ = [this] { set_.revision = 6, set_.settings.report_duration_s = 400; };
  const PageAnswer between = Send("revision=5&report_duration_s=400&confirmed=yes");
  EXPECT_EQ(between.status, 200);
  EXPECT_TRUE(Has(between, "Revision 6 is set.")) << "the first click has come between";
  EXPECT_TRUE(Has(between, "<td data-head=\"old\">300</td><td data-head=\"new\">400</td>"));
}

TEST_F(ControlPagesTest, LostAcknowledgementIsNoFailure) {
  after_write_ = [] { throw Fatal(kExitUnavailable, "cannot set it: Timeout"); };
  const PageAnswer answer = Send("revision=4&report_duration_s=300&confirmed=yes");
  EXPECT_EQ(answer.status, 200);
  EXPECT_TRUE(Has(answer, "Revision 5 is set."));

  after_write_ = [this] {
    read_fails_ = Fatal(kExitUnavailable, "cannot connect");
    throw Fatal(kExitUnavailable, "cannot set it: Timeout");
  };
  const PageAnswer unknown = Send("revision=5&report_duration_s=400&confirmed=yes");
  EXPECT_EQ(unknown.status, 503);
  EXPECT_TRUE(Has(unknown, "cannot set it: Timeout; it may still be set"));
}

TEST_F(ControlPagesTest, FormOfBeforeIsNotCorrectedOverWhatWasSetMeanwhile) {
  EXPECT_EQ(Send("revision=3&report_duration_s=soon").status, 409);
}

TEST_F(ControlPagesTest, WarnsWhereThereWasNoIntervalAndMayBeOne) {
  const auto warns = [this](const std::string& change) {
    const PageAnswer answer = Send("revision=4&" + change);
    EXPECT_TRUE(Has(answer, "Change this?")) << change;
    return Has(answer, "An interval is for ever");
  };
  EXPECT_TRUE(warns("send_interval_ms=15000"));
  EXPECT_TRUE(warns("policy=brake")) << "once it is overrun";
  EXPECT_FALSE(warns("report_duration_s=300"));

  set_.settings.send_interval_ms = 20'000;
  EXPECT_FALSE(warns("send_interval_ms=15000"));
  EXPECT_FALSE(warns("policy=steer")) << "they have one already";

  set_.settings.send_interval_ms = 0;
  set_.settings.policy.kind = control::Kind::kSteer;
  EXPECT_FALSE(warns("send_interval_ms=15000")) << "the policy decides, as before";
  EXPECT_FALSE(warns("policy=none&send_interval_ms=15000"));
}

TEST_F(ControlPagesTest, StoreThatFailsMayHaveSetItAllTheSame) {
  before_write_ = [] { throw Fatal(kExitUnavailable, "cannot set it: no majority"); };
  const PageAnswer written = Send("revision=4&report_duration_s=300&confirmed=yes");
  EXPECT_EQ(written.status, 503);
  EXPECT_TRUE(Has(written, "no majority; it may still be set"));

  read_fails_ = Fatal(kExitUnavailable, "cannot connect");
  EXPECT_EQ(Send("revision=4").status, 503);
  read_fails_ = Fatal(kExitMismatch, "was not set by this program");
  EXPECT_EQ(Send("revision=4").status, 409);
}

TEST_F(ControlPagesTest, WhatCannotBeMeantComesBackAsTyped) {
  struct Case {
    const char* typed;
    const char* why;
  };
  const Case cases[] = {
      {"send_interval_ms=14999", "give at least 15000"},
      {"max_resend_count=2147483648", "give at most 2147483647"},
      {"report_duration_s=4294968", "give at most 4294967"},
      {"report_duration_s=soon", "not a whole number from 0 to 4294967295"},
      {"report_duration_s=-1", "not a whole number"},
      {"report_duration_s=99999999999999999999", "not a whole number"},
      {"policy=flood", "none, fixed, brake, pace or steer"},
  };
  for (const Case& each : cases) {
    const PageAnswer answer = Send(std::string("revision=4&confirmed=yes&") + each.typed);
    EXPECT_EQ(answer.status, 400) << each.typed;
    EXPECT_TRUE(Has(answer, each.why)) << answer.html;
  }
  EXPECT_TRUE(
      Has(Send("revision=4&capacity=0"), "name=\"capacity\" inputmode=\"numeric\" value=\"0\""));
  EXPECT_EQ(writes_, 0);
}

TEST_F(ControlPagesTest, NothingNewIsNoRevision) {
  const PageAnswer answer = Send("revision=4&report_duration_s=60&policy=&confirmed=yes");

  EXPECT_TRUE(Has(answer, "Nothing to change"));
  EXPECT_EQ(writes_, 0);
}

TEST_F(ControlPagesTest, EveryFieldCanBeChanged) {
  set_.settings.send_interval_ms = 40'000;
  set_.settings.policy.low_ms = 40'000;
  set_.settings.policy.high_ms = 100'000;
  set_.settings.policy.low_duration_s = 40;
  set_.settings.policy.high_duration_s = 100;
  for (const auto& [name, value] : FieldsOf(set_.settings)) {
    const std::string other = name == "policy" ? "fixed" : std::to_string(std::stoul(value) / 2);
    const PageAnswer answer = Send("revision=" + std::to_string(set_.revision) + "&" + name + "=" +
                                   other + "&confirmed=yes");
    EXPECT_TRUE(Has(answer, "is set.")) << name << answer.html;
  }
  EXPECT_EQ(writes_, 10);
}

}  // namespace
}  // namespace quenor::collector
