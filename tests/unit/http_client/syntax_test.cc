#include "services/http_client_curl/rules/syntax.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <string>

QUENOR_NAMESPACE_BEGIN
namespace http_syntax {
namespace {

TEST(SyntaxTest, TakesEachByteThatHttpAllowsAndNoOther) {
  for (int i = 0; i < 256; ++i) {
    const std::string text(1, static_cast<char>(i));
    const bool is_mark = text.find_first_of("!#$%&'*+-.^_`|~") == 0;
    EXPECT_EQ(IsToken(text), i < 128 && (std::isalnum(i) != 0 || is_mark)) << i;
    EXPECT_EQ(IsFieldValue(text), i == '\t' || (i >= ' ' && i != 127)) << i;
  }
  EXPECT_FALSE(IsToken(""));
}

TEST(SyntaxTest, ComparesWholeNames) {
  EXPECT_TRUE(EqualsNoCase("aZ-09", "Az-09"));
  for (const char* other : {"", "az-0", "az-099", "az_09"}) {
    EXPECT_FALSE(EqualsNoCase("az-09", other)) << other;
  }
}

TEST(SyntaxTest, SaysWhyARequestCannotBeSentAndWhatToDo) {
  const struct {
    std::string method, name, value;
    const char* body;
    const char* problem;  // As far as it begins.
  } cases[] = {
      {"POST", "A", "x\ty", "b", ""},
      {"HEAD", "A", "", "", ""},
      {"", "A", "x", "", "the method is none"},
      {"GET / HTTP/1.1\r\nX: y", "A", "x", "", "the method is none"},
      {"CONNECT", "A", "x", "", "the method is none"},
      {"HEAD", "A", "x", "b", "HEAD has no body; leave it empty"},
      {"POST", "", "x", "", "headers: a name holds"},
      {"POST", "A:", "x", "", "headers: a name holds"},
      {"POST", "A", "x\r\nB: y", "", "headers: the value of A holds"},
      {"POST", "A", std::string("\0", 1), "", "headers: the value of A holds"},
      {"POST", "Content-Length", "7", "", "headers: Content-Length is the client's own; take it"},
      {"POST", "transfer-ENCODING", "", "", "headers: transfer-ENCODING is the client's own"},
  };
  for (const auto& test : cases) {
    HttpClient::Request request;
    request.method = test.method;
    request.headers[test.name] = test.value;
    request.body = CopyOnWriteBuffer(test.body, std::strlen(test.body));

    const std::string problem = RequestProblem(request);

    const size_t length = std::strlen(test.problem);
    EXPECT_EQ(problem.substr(0, length), test.problem) << test.method << ", " << test.name;
    EXPECT_EQ(problem.empty(), length == 0) << problem;
  }
}

}  // namespace
}  // namespace http_syntax
QUENOR_NAMESPACE_END
