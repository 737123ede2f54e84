// Which proxies are refused when they are set, by which field, and what the environment comes to.
#include "services/http_client_curl/rules/proxy.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

QUENOR_NAMESPACE_BEGIN
namespace http_proxy {
namespace {

HttpProxy Make(const std::string& url, const std::string& user = "",
               const std::string& password = "", const std::vector<std::string>& except = {}) {
  HttpProxy proxy;
  proxy.url = url;
  proxy.user = user;
  proxy.password = password;
  proxy.except = except;
  return proxy;
}

TEST(ProxyCheckTest, WhatCanBeMeantIsTaken) {
  for (const char* url : {"", "http://proxy.example:3128", "https://10.0.0.1:443",
                          "socks5h://[::1]:1080", "http://a-b_c.d:65535", "http://h:1"}) {
    EXPECT_EQ(Problem(Make(url)), "") << url;
  }
  EXPECT_EQ(Problem(Make("http://h:1", "u", "p:@/%41")), "");
  EXPECT_EQ(Problem(Make("socks5h://h:1", "u:v", std::string(255, 'p'))), "");
  EXPECT_EQ(Problem(Make("http://h:1", "", "", {"a.b", "10.0.0.0/8", "[::1]", "fd00::/8", "*"})),
            "");
}

TEST(ProxyCheckTest, WhatCannotIsRefusedByItsFieldAndNeverShown) {
  struct Case {
    HttpProxy proxy;
    std::string field;
  };
  std::vector<Case> cases;
  for (const std::string url : {"proxy:3128",           "http://s3cret",      "http://s3cret:0",
                                "http://s3cret:65536",  "http://s3cret:1x",   "http://s3cret:1/",
                                "http://s3cret:1/path", "http://s3cret:1?q",  "http://s3cret:1#f",
                                "http://u:s3cret@h:1",  "http://:1",          "http://s3 cret:1",
                                "http://::1:80",        "http://[::1:80",     "http://[s3cret]:80",
                                "socks5://s3cret:1",    "ftp://s3cret:1",     "HTTP://s3cret:1",
                                "http://s3cret:1\r\nx", "http://s3cret%41:1", "http://[::1]x:80",
                                "http://s3cret: 1"}) {
    cases.push_back({Make(url), "proxy.url"});
  }
  cases.push_back({Make(std::string("http://s3cret\0:1", 16)), "proxy.url"});
  cases.push_back({Make("http://h:1", "", "s3cret"), "proxy.password"});
  cases.push_back({Make("http://h:1", "u:s3cret"), "proxy.user"});
  cases.push_back({Make("http://h:1", "s3cret\n"), "proxy.user"});
  cases.push_back({Make("http://h:1", "u", std::string("s3cret\0", 7)), "proxy.password"});
  cases.push_back({Make("socks5h://h:1", std::string(256, 'u')), "proxy.user"});
  cases.push_back({Make("socks5h://h:1", "u", std::string(256, 'u')), "proxy.password"});
  for (const char* text : {"", "s3cret,b", "s3cret b", "s3cret\n", "s3cret/8", "10.0.0.0/33",
                           "10.0.0.0/", "10.0.0.0/8/8", "fd00::/129", "fd00::/-1", "/8"}) {
    cases.push_back({Make("http://h:1", "", "", {"fine", text}), "proxy.except"});
  }
  for (const Case& one : cases) {
    const std::string problem = Problem(one.proxy);
    EXPECT_EQ(problem.find(one.field + " "), 0u) << one.proxy.url << ": " << problem;
    EXPECT_NE(problem.find("; "), std::string::npos) << problem;
    EXPECT_EQ(problem.find("s3cret"), std::string::npos) << problem;
    EXPECT_EQ(problem.find('\n'), std::string::npos) << problem;
  }
}

TEST(ProxyCheckTest, UrlAndExceptionsAreGivenToLibcurlAsItReadsThem) {
  EXPECT_EQ(AsciiUrl(Make("http://b\xc3\xbc"
                          "cher.example:1")),
            "http://xn--bcher-kva.example:1");
  EXPECT_EQ(AsciiUrl(Make("https://[FE80::1%25eth0]:1")), "https://[fe80::1%eth0]:1");
  EXPECT_EQ(AsciiUrl(Make("")), "");
  EXPECT_EQ(Exceptions(Make("http://h:1", "", "", {"a", "[::1]"})), "a,::1");
}

TEST(ProxyCheckTest, AStarAmongExceptionsIsEverything) {
  EXPECT_EQ(Exceptions(Make("http://h:1", "", "", {"a", "10.0.0.0/8"})), "a,10.0.0.0/8");
  EXPECT_EQ(Exceptions(Make("http://h:1", "", "", {"a", "*", "b"})), "*");
}

TEST(ProxyCheckTest, AnIpv6AddressIsExceptedByWhatItIsNotByHowItIsWritten) {
  const struct {
    std::string except, url;
    bool is_excepted;
  } cases[] = {
      {"fd00::/8", "https://[fd12:3456::1]:8443/r", true},
      {"fd00::/8", "https://[fe12::1]/r", false},
      {"[fd00::/8]", "https://[FD12:0::1]/r", true},
      {"2001:db8::/33", "http://[2001:db8:7fff::1]", true},
      {"2001:db8::/33", "http://[2001:db8:8000::1]", false},
      {"::/0", "https://[::1]:1/", true},
      {"::1", "https://[0:0:0:0:0:0:0:1]/r", true},
      {"::1/128", "https://[::2]/r", false},
      {"fe80::/10", "https://[fe80::1%25eth0]/r", true},
      {"fd00::/8", "https://user:pass@[fd00::1]:1/r", true},
      {"fd00::/8", "https://host/[fd00::1]", false},
      {"0.0.0.0/0", "https://[::1]/r", false},
      {"fd00::/8", "https://fd00.example/r", false},
  };
  for (const auto& one : cases) {
    const HttpProxy proxy = Make("http://h:1", "", "", {"other.example", one.except});
    EXPECT_EQ(Problem(proxy), "") << one.except;
    EXPECT_EQ(ExceptionsFor(one.url, proxy, "rest"), one.is_excepted ? "*" : "rest")
        << one.except << ' ' << one.url;
  }
  EXPECT_EQ(ExceptionsFor("https://[::1]/r", Make("http://h:1"), ""), "");
}

// ---- The environment ----------------------------------------------------------------------------

std::map<std::string, std::string> g_environment;
const char* Lookup(const char* name) {
  const auto found = g_environment.find(name);
  return found == g_environment.end() ? nullptr : found->second.c_str();
}

// "URL USER PASSWORD EXCEPT ..."
std::string Text(const HttpProxy& proxy) {
  std::string text = proxy.url;
  if (!proxy.user.empty()) text += " " + proxy.user + " " + proxy.password;
  for (const std::string& except : proxy.except) text += " -" + except;
  return text;
}

TEST(ProxyEnvironmentTest, IsReadAsOtherToolsReadIt) {
  const struct {
    std::map<std::string, std::string> environment;
    std::string https, http;
  } cases[] = {
      {{}, "", ""},
      {{{"https_proxy", ""}, {"all_proxy", ""}}, "", ""},
      {{{"https_proxy", "http://h:1"}}, "http://h:1", ""},
      {{{"http_proxy", "http://h:1"}}, "", "http://h:1"},
      {{{"HTTPS_PROXY", "h:1"}, {"HTTP_PROXY", "h:2"}}, "http://h:1", ""},
      {{{"https_proxy", "h:1"}, {"HTTPS_PROXY", "h:2"}}, "http://h:1", ""},
      {{{"all_proxy", "h:1"}, {"http_proxy", "h:2"}}, "http://h:1", "http://h:2"},
      {{{"ALL_PROXY", "SOCKS5://h"}}, "socks5h://h:1080", "socks5h://h:1080"},
      {{{"https_proxy", "https://[::1]/"}}, "https://[::1]:443", ""},
      {{{"https_proxy", "http://u%40:p%3a%zz%@h:1/"}}, "http://h:1 u@ p:%zz%", ""},
      {{{"https_proxy", "h:1"}, {"no_proxy", "a, .b,,\t10.0.0.0/8 "}},
       "http://h:1 -a -.b -10.0.0.0/8",
       ""},
      {{{"https_proxy", "h:1"}, {"NO_PROXY", "*"}}, "http://h:1 -*", ""},
      {{{"no_proxy", "a\nb"}}, "", ""},
  };
  for (const auto& one : cases) {
    g_environment = one.environment;
    OfEnvironment found;
    EXPECT_EQ(ReadEnvironment(&Lookup, &found), "");
    EXPECT_EQ(Text(found.https), one.https);
    EXPECT_EQ(Text(found.http), one.http);
    EXPECT_EQ(&found.For(true), &found.https);
    EXPECT_EQ(&found.For(false), &found.http);
  }
}

TEST(ProxyEnvironmentTest, WhatIsNoProxyIsRefusedByItsVariable) {
  for (const char* text : {"ftp://s3cret:1", "http://u:s3cret@h:1/path", "http://:s3cret@h:1",
                           "http://s3cret:port", "http://u:s3cret%00@h:1"}) {
    g_environment = {{"ALL_PROXY", text}};
    OfEnvironment found;
    const std::string problem = ReadEnvironment(&Lookup, &found);
    EXPECT_NE(problem.find("ALL_PROXY"), std::string::npos) << text << ": " << problem;
    EXPECT_EQ(problem.find("s3cret"), std::string::npos) << problem;
  }
}

TEST(ProxyEnvironmentTest, AnotherOneIsNotEqual) {
  OfEnvironment one, other;
  EXPECT_TRUE(one == other);
  other.http.except = {"a"};
  EXPECT_FALSE(one == other);
  other.http.except.clear();
  other.https.password = "p";
  EXPECT_FALSE(one == other);
}

}  // namespace
}  // namespace http_proxy
QUENOR_NAMESPACE_END
