// Whose requests the page serves, and what its form brings.
#include "collector/page/guard.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>

#include "collector/page/form.h"

namespace quenor::collector {
namespace {

TEST(GuardTest, HostIsAnAddressOrANameThatItWasGiven) {
  const Guard guard({"Page.Internal"});
  for (const char* host : {"127.0.0.1:8390", "localhost", "LOCALHOST:1", "[::1]:8390", "[::1]",
                           "10.0.0.7", "page.internal", "PAGE.internal:443"}) {
    EXPECT_EQ(guard.RefusalOf({host, {}, {}}), "") << host;
  }
  for (const char* host : {"", "attacker.example", "attacker.example:8390", "page.internal.example",
                           "127.0.0.1.example", "::1", "[::1", "[page.internal]", "127.1"}) {
    EXPECT_NE(guard.RefusalOf({host, {}, {}}), "") << host;
  }
}

TEST(GuardTest, FormComesFromThisPageAlone) {
  const Guard guard({});
  struct Case {
    std::optional<std::string> origin;
    std::optional<std::string> site;
    bool is_taken;
  };
  const Case cases[] = {
      {{}, {}, true},
      {"http://127.0.0.1:8390", {}, true},
      {"https://127.0.0.1:8390", "same-origin", true},
      {{}, "same-origin", true},
      {"http://attacker.example", {}, false},
      {"http://127.0.0.1:8391", {}, false},
      {"http://localhost:8390", {}, false},
      {"null", {}, false},
      {"", {}, false},
      {{}, "cross-site", false},
      {{}, "same-site", false},
      {{}, "none", false},
      {"http://127.0.0.1:8390", "cross-site", false},
  };
  for (const Case& each : cases) {
    const Asked asked{"127.0.0.1:8390", each.origin, each.site};
    EXPECT_EQ(guard.RefusalOfForm(asked, guard.token()).empty(), each.is_taken)
        << each.origin.value_or("-") << " " << each.site.value_or("-");
  }
  EXPECT_NE(guard.RefusalOfForm({"attacker.example", {}, {}}, guard.token()), "");
}

TEST(GuardTest, EventsAreThisPagesAlone) {
  const Guard guard({});
  const auto is_served = [&](std::optional<std::string> site) {
    return guard.RefusalOfEvents({"127.0.0.1:8390", {}, std::move(site)}).empty();
  };

  EXPECT_TRUE(is_served({})) << "no browser says nothing";
  EXPECT_TRUE(is_served("same-origin"));
  for (const char* site : {"cross-site", "same-site", "none"}) {
    EXPECT_FALSE(is_served(site)) << site << ": it would take the few places that there are";
  }
}

TEST(GuardTest, TokenIsOfThisProcess) {
  const Guard guard({});
  const Guard another({});
  const Asked asked{"localhost", {}, {}};

  EXPECT_EQ(guard.token().size(), 32u);
  for (const std::string& token : {std::string(), another.token(), guard.token() + "0",
                                   guard.token().substr(1), std::string(32, '0')}) {
    EXPECT_NE(guard.RefusalOfForm(asked, token), "") << token;
  }
}

TEST(FormTest, IsReadAsBrowsersSendIt) {
  const Form form("a=1&b=two+words&c=%3Ch%C3%a4%3E&empty=&a=2&none&=x&d=100%&e=%zz&f=%4");

  EXPECT_EQ(form.Get("a"), "2");
  EXPECT_EQ(form.Get("b"), "two words");
  EXPECT_EQ(form.Get("c"), "<h\xC3\xA4>");
  EXPECT_EQ(form.Get("empty"), "");
  EXPECT_EQ(form.Get("d"), "100%");
  EXPECT_EQ(form.Get("e"), "%zz");
  EXPECT_EQ(form.Get("f"), "%4");
  EXPECT_EQ(form.Get("none"), "");
  EXPECT_EQ(Form("").Get("a"), "");
}

}  // namespace
}  // namespace quenor::collector
