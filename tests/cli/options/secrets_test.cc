#include "cli/options/secrets.h"

#include <gtest/gtest.h>

#include <string>

#include "cli/fatal.h"
#include "tests/support/temp_folder.h"

namespace quenor::cli {
namespace {

class ProxyPasswordTest : public ::testing::Test {
 protected:
  std::string FileOf(const std::string& content) const {
    EXPECT_TRUE(test::WriteWholeFile(folder_.File("password"), content));
    return folder_.File("password");
  }

  // The password, or the objection.
  static std::string Filled(const std::string& file, const char* variable,
                            ProxyAddress proxy = {"h", 1, "me", ""}) {
    try {
      FillProxyPassword(file, variable, &proxy);
      return proxy.password;
    } catch (const Fatal& fatal) {
      EXPECT_EQ(kExitUsage, fatal.exit_code());
      return fatal.what();
    }
  }

  const test::TempFolder folder_;
};

TEST_F(ProxyPasswordTest, IsTheFirstLineOfTheFileAsItIs) {
  EXPECT_EQ("s3cret", Filled(FileOf("s3cret\nof the proxy\n"), nullptr));
  EXPECT_EQ("s3cret", Filled(FileOf("s3cret\r\n"), nullptr));
  EXPECT_EQ(" p%41@:\xff", Filled(FileOf(" p%41@:\xff"), "variable"));
}

TEST_F(ProxyPasswordTest, ComesFromTheEnvironmentWhereNoneIsGiven) {
  EXPECT_EQ("p%41", Filled("", "p%41"));
  EXPECT_EQ("", Filled("", nullptr));
  EXPECT_EQ("own", Filled("", "p", {"h", 1, "me", "own"}));
  EXPECT_EQ("", Filled("", "p", {"h", 1, "", ""}));
}

TEST_F(ProxyPasswordTest, HasAsManyBytesAsTheProtocolCarries) {
  const std::string longest(255, 'x');

  EXPECT_EQ(longest, Filled(FileOf(longest + "\n"), nullptr));
  EXPECT_EQ(longest, Filled(FileOf(longest + "\r\n"), nullptr));
  EXPECT_EQ(longest, Filled("", longest.c_str()));
  EXPECT_NE(std::string::npos, Filled(FileOf(longest + "x\n"), nullptr).find("255 bytes"));
  EXPECT_NE(std::string::npos, Filled("", (longest + "x").c_str()).find("255 bytes"));
}

TEST_F(ProxyPasswordTest, WhatCannotBeUsedIsNamedAndNeverShown) {
  const struct {
    std::string file;
    ProxyAddress proxy;
    std::string named;
  } cases[] = {
      {"/none/such", {"h", 1, "me", ""}, "/none/such: No such file or directory"},
      {"/", {"h", 1, "me", ""}, "Is a directory"},
      {"/dev/null", {"h", 1, "me", ""}, "first line is empty"},
      {FileOf("secret"), {"h", 1, "", ""}, "names no user"},
      {FileOf("secret"), {"h", 1, "me", "secret"}, "has one, too"},
  };
  for (const auto& test : cases) {
    const std::string line = Filled(test.file, nullptr, test.proxy);
    EXPECT_NE(std::string::npos, line.find(test.named)) << line;
    EXPECT_EQ(std::string::npos, line.find("secret")) << line;
  }
  const std::string nul = Filled(FileOf(std::string("se\0cret", 7)), nullptr);
  EXPECT_NE(std::string::npos, nul.find("NUL")) << nul;
}

using SecretsTest = ProxyPasswordTest;

TEST_F(SecretsTest, HeadersAreReadFromFiles) {
  const std::string file = FileOf("Authorization: Bearer s3cret\r\n\nX-A:b:c\n");

  EXPECT_EQ((std::map<std::string, std::string>{
                {"Authorization", "Bearer s3cret"}, {"X-A", "b:c"}, {"X-B", "d"}}),
            Headers({"X-B: d", "@" + file}));
}

TEST_F(SecretsTest, AHeaderThatIsNoneIsNamedByItsFileAndNeverShown) {
  for (const std::string& content : {std::string("s3cret"), std::string("A: s3cret\nA: s3cret\n"),
                                     std::string(70000, 's') + "3cret"}) {
    try {
      Headers({"@" + FileOf(content)});
      ADD_FAILURE() << content.size();
    } catch (const Fatal& fatal) {
      const std::string line = fatal.what();
      EXPECT_NE(std::string::npos, line.find(folder_.File("password"))) << line;
      EXPECT_EQ(std::string::npos, line.find("s3cret")) << line;
    }
  }
}

TEST_F(SecretsTest, APassphraseIsTheFirstLineOfItsFile) {
  EXPECT_EQ("open it", KeyPassphrase(FileOf("open it\nnot this")));
  for (const std::string& content : {std::string(), std::string(1025, 'x')}) {
    EXPECT_THROW(KeyPassphrase(FileOf(content)), Fatal);
  }
}

}  // namespace
}  // namespace quenor::cli
