// What a channel with the default cache asks of the system, and of the heap, once it is in its
// stride: a budget.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cstdio>
#include <map>
#include <string>

#include "tests/crash/admission_program.h"
#include "tests/crash/support/tracer.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

using Calls = std::map<std::string, int>;

const std::string kMark = "call-" + std::to_string(SYS_kill);  // The program stops itself.

class AdmissionSystemCallsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why_not = WhyNoTracing();
    if (!why_not.empty()) GTEST_SKIP() << why_not;
    const std::string files = folder_.File("quenor_report");
    ASSERT_EQ(0, mkdir(files.c_str(), 0700));
    trace_ = TraceProgram({QUENOR_ADMISSION_PROGRAM, folder_.path()}, files, kAdmissionPhases + 1,
                          Detail::kCalls);
    ASSERT_EQ("", trace_.error);
  }

  Calls CallsOf(AdmissionPhase phase) const {
    Calls calls;
    for (const KillPoint& point : trace_.points) {
      const bool is_entry = point.kind == KillPoint::Kind::kEntry;
      if (is_entry && point.phase == phase && point.call != kMark) ++calls[point.call];
    }
    return calls;
  }

  // Of the C library's lstat(), whatever it makes of it.
  static int Looks(const Calls& calls) {
    int looks = 0;
    for (const char* name : {"lstat", "fstatat"}) {
      const auto found = calls.find(name);
      if (found != calls.end()) looks += found->second;
    }
    return looks;
  }

  TempFolder folder_;
  Trace trace_;
};

// The look is the one that notices a deleted, renamed or cut file.
TEST_F(AdmissionSystemCallsTest, AdmissionLooksAtItsFileOnceAndCallsNothingElse) {
  const Calls calls = CallsOf(kAdmit);

  EXPECT_EQ(kAdmissions, Looks(calls)) << ::testing::PrintToString(calls);
  EXPECT_EQ(1u, calls.size()) << ::testing::PrintToString(calls);
}

TEST_F(AdmissionSystemCallsTest, ResponseThatRetiresAMessageLikewise) {
  const Calls calls = CallsOf(kAnswer);

  EXPECT_EQ(kAdmissions, Looks(calls)) << ::testing::PrintToString(calls);
  EXPECT_EQ(1u, calls.size()) << ::testing::PrintToString(calls);
}

// The channel's part of SendPacket(). That a queue wakes its thread is the queue's.
TEST_F(AdmissionSystemCallsTest, HandOverCallsNothing) { EXPECT_EQ(Calls{}, CallsOf(kHandOver)); }

TEST(AdmissionMemoryTest, AdmissionAsksForMemoryOnceForItsPlaceInTheList) {
  const TempFolder folder;
  FILE* const output =
      popen((QUENOR_ADMISSION_PROGRAM " " + folder.path() + " allocations").c_str(), "r");
  ASSERT_NE(nullptr, output);
  int allocations = -1;

  EXPECT_EQ(1, std::fscanf(output, "%d", &allocations));

  EXPECT_EQ(0, pclose(output));
  EXPECT_EQ(kAdmissions, allocations);
}

}  // namespace
}  // namespace quenor::test
