#include "cli/options/suggest.h"

#include <gtest/gtest.h>

namespace quenor::cli {
namespace {

TEST(NearestTest, ForgivesOneSlipInThreeLetters) {
  const std::vector<std::string> known = {"send", "cache", "doctor", "--url", "--send-now"};

  for (const char* word : {"sent", "sed", "seend", "sned", "send"}) {
    EXPECT_EQ("send", Nearest(word, known)) << word;
  }
  EXPECT_EQ("doctor", Nearest("docotr", known));
  EXPECT_EQ("doctor", Nearest("dctr", known));
  EXPECT_EQ("--send-now", Nearest("--sendnow", known));
  EXPECT_EQ("--url", Nearest("-url", known));
}

TEST(NearestTest, IsSilentAboutWhatIsFarFromAll) {
  EXPECT_EQ("", Nearest("seXY", {"send"}));
  EXPECT_EQ("", Nearest("frobnicate", {"send", "cache", "doctor"}));
  EXPECT_EQ("", Nearest("", {"send"}));
  EXPECT_EQ("", Nearest("send", {}));
}

TEST(NearestTest, TakesTheNearestAndOfTwoTheFirst) {
  EXPECT_EQ("--capath", Nearest("--capth", {"--cacert", "--capath"}));
  EXPECT_EQ("ab1", Nearest("ab", {"ab1", "ab2"}));
}

}  // namespace
}  // namespace quenor::cli
