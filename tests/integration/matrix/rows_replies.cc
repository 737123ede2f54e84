// Whole replies, of every status and every kind of body; each row goes over both protocols.
#include <initializer_list>
#include <utility>

#include "tests/integration/matrix/row.h"

namespace quenor::test {

std::string Hex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  for (unsigned char c : bytes) {
    text += kDigits[c >> 4];
    text += kDigits[c & 15];
  }
  return text;
}

namespace {

using Headers = std::vector<std::pair<std::string, std::string>>;

Row Reply(const std::string& name, int status, const std::string& body, const Headers& headers = {},
          bool announce = true) {
  Row row;
  row.name = name;
  row.expected = status == 200 ? Expected::Delivered() : Expected::Status(status);
  std::string text = "HTTP/1.1 " + std::to_string(status) + " Scripted\r\n";
  row.peer = "reply:" + std::to_string(status) + ":" + Hex(body);
  for (const auto& [header, value] : headers) {
    text += header + ": " + value + "\r\n";
    row.peer += ":" + Hex(header) + ":" + Hex(value);
  }
  if (announce) text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  text += "\r\n" + body;
  row.http1 = [text](ScriptedServer::Connection& connection) { return connection.Write(text); };
  return row;
}

Row Json(const std::string& name, const std::string& body, Settings settings = {},
         const Headers& headers = {}) {
  Row row = Reply("200 with " + name, 200, body, headers);
  row.checks_settings = true;
  row.settings = settings;
  return row;
}

// An accepted report with these members beside the verdict.
std::string Success(const std::string& members) {
  return "{\"bytes_errinfo\":\"success\"" + (members.empty() ? "" : "," + members) + "}";
}

Settings MaxResend(uint32_t count) {
  Settings settings;
  settings.max_resend_count = count;
  return settings;
}

Rows StatusRows() {
  Rows rows;
  for (int status : {201, 202, 203, 206, 400, 402, 403, 404, 405, 406, 407, 408, 409, 410,
                     411, 412, 413, 414, 415, 416, 417, 418, 421, 422, 423, 425, 426, 428,
                     431, 451, 499, 500, 501, 502, 504, 505, 507, 511, 599, 600, 700, 999}) {
    rows.push_back(Reply("status " + std::to_string(status), status, "{}"));
  }
  for (int status : {300, 301, 302, 303, 307, 308}) {
    rows.push_back(Reply("status " + std::to_string(status) + " with a Location", status, "",
                         {{"location", "/elsewhere"}}));
  }
  rows.push_back(Reply("status 302 with a Location on another host", 302, "",
                       {{"location", "https://localhost:1/"}}));
  rows.push_back(Reply("status 302 with a Location that is no URL", 302, "",
                       {{"location", "http://[::::]:99999/\\"}}));
  rows.push_back(Reply("status 204", 204, "", {}, false));
  rows.push_back(Reply("status 205", 205, ""));
  rows.push_back(Reply("status 304", 304, "", {}, false));
  rows.push_back(
      Reply("status 401 with a challenge", 401, "", {{"www-authenticate", "Basic realm=\"x\""}}));
  rows.push_back(Reply("status 429 with Retry-After", 429, "", {{"retry-after", "86400"}}));
  rows.push_back(Reply("status 503 with Retry-After", 503, "", {{"retry-after", "-1"}}));
  rows.push_back(
      Reply("status 500 with control fields", 500, Success("\"uint32_max_resend_count\":1")));
  return rows;
}

Rows NumberRows() {
  const std::string seven = "\"uint32_max_resend_count\":7";
  Settings longest;
  longest.send_interval_ms = 2147483647;
  Settings wrapped;
  wrapped.report_interval_ms = 704;
  return {
      Json("every control field",
           Success("\"uint32_send_interval\":3000,\"uint32_report_duration\":30," + seven),
           {3000, 7, 30000}),
      Json("an interval beyond 32 bits", Success("\"uint32_send_interval\":99999999999," + seven),
           MaxResend(7)),
      Json("an interval of 2^31", Success("\"uint32_send_interval\":2147483648," + seven),
           MaxResend(7)),
      Json("an interval of 2^31 - 1", Success("\"uint32_send_interval\":2147483647"), longest),
      Json("a number of 1,000 digits",
           Success("\"uint32_send_interval\":" + std::string(1000, '9') + "," + seven),
           MaxResend(7)),
      Json("an exponent that overflows", Success("\"uint32_send_interval\":1e400," + seven),
           MaxResend(7)),
      Json("an exponent in place of an integer", Success("\"uint32_send_interval\":3e3," + seven),
           MaxResend(7)),
      Json("a fraction in place of an integer", Success("\"uint32_send_interval\":1.5," + seven),
           MaxResend(7)),
      Json("a duration that wraps", Success("\"uint32_report_duration\":4294968"), wrapped),
      Json("zeros and negative numbers",
           Success("\"uint32_send_interval\":0,\"uint32_max_resend_count\":-3,"
                   "\"uint32_report_duration\":-2147483648")),
      Json("strings in place of integers",
           Success("\"uint32_send_interval\":\"3000\",\"uint32_max_resend_count\":\"7\"")),
      Json("null, lists and objects in place of integers",
           Success("\"uint32_send_interval\":null,\"uint32_max_resend_count\":[7],"
                   "\"uint32_report_duration\":{\"a\":1}")),
      Json("booleans in place of integers",
           Success("\"uint32_send_interval\":true,\"uint32_max_resend_count\":false")),
      Json("a number with a leading zero", Success("\"uint32_max_resend_count\":07")),
      Json("a number with a plus", Success("\"uint32_max_resend_count\":+7")),
      Json("NaN", Success("\"uint32_send_interval\":NaN," + seven)),
      Json("duplicate keys", Success("\"uint32_max_resend_count\":5,\"uint32_max_resend_count\":7"),
           MaxResend(7)),
      Json("a duplicate verdict", Success("\"bytes_errinfo\":\"no\"," + seven)),
  };
}

Rows TextRows() {
  const std::string seven = "\"uint32_max_resend_count\":7";
  const std::string good = Success(seven);
  Rows rows = {
      Json("an empty body", ""),
      Json("an empty object", "{}"),
      Json("an empty list", "[]"),
      Json("a list of good objects", "[" + good + "]"),
      Json("null", "null"),
      Json("a number", "200"),
      Json("a string", "\"success\""),
      Json("blanks only", " \r\n\t "),
      Json("HTML", "<html><body>Sign in to this network</body></html>"),
      Json("half an object", good.substr(0, good.size() / 2)),
      Json("verdict Success", "{\"bytes_errinfo\":\"Success\"," + seven + "}"),
      Json("verdict 'success '", "{\"bytes_errinfo\":\"success \"," + seven + "}"),
      Json("an empty verdict", "{\"bytes_errinfo\":\"\"," + seven + "}"),
      Json("verdict with an escaped NUL", "{\"bytes_errinfo\":\"success\\u0000\"," + seven + "}"),
      Json("verdict 1", "{\"bytes_errinfo\":1," + seven + "}"),
      Json("no verdict", "{" + seven + "}"),
      Json("a NUL after the object", good + std::string(1, '\0')),
      Json("a NUL before the object", std::string(1, '\0') + good),
      Json("a NUL inside a string", Success("\"x\":\"" + std::string(1, '\0') + "\"," + seven)),
      Json("bad UTF-8", Success("\"x\":\"\xff\xfe\"," + seven)),
      Json("a lone surrogate", Success("\"x\":\"\\ud800\"," + seven)),
      Json("trailing bytes", good + "x"),
      Json("two objects", good + good),
      Json("trailing blanks", good + "\r\n\r\n  ", MaxResend(7)),
      Json("a trailing comma", Success(seven + ",")),
      Json("a comment", "/* */" + good),
      Json("single quotes", "{'bytes_errinfo':'success'}"),
      Json("UTF-16", std::string("\xff\xfe{\0}\0", 6)),
      Json("rubbish that is called gzip", "\x1f\x8b\x08\xff rubbish", {},
           {{"content-encoding", "gzip"}}),
      Json("JSON that is called gzip", good, MaxResend(7), {{"content-encoding", "gzip"}}),
      Json("JSON that is called br, deflate, gzip", good, MaxResend(7),
           {{"content-encoding", "br, deflate, gzip"}}),
      Json("JSON that is called an image", good, MaxResend(7), {{"content-type", "image/png"}}),
      Json("lists nested 150 deep",
           Success("\"x\":" + std::string(150, '[') + std::string(150, ']') + "," + seven),
           MaxResend(7)),
      Json("lists nested 250 deep",
           Success("\"x\":" + std::string(250, '[') + std::string(250, ']') + "," + seven)),
      Json("half a million opening brackets", std::string(500000, '[')),
      Json("half a million opening braces", Success("\"x\":" + std::string(500000, '{'))),
      Json("a string of 900,000 bytes",
           Success("\"x\":\"" + std::string(900000, 'y') + "\"," + seven), MaxResend(7)),
      Json("cookies and HSTS", good, MaxResend(7),
           {{"set-cookie", "a=b"}, {"strict-transport-security", "max-age=1"}}),
      Json("another server announced", good, MaxResend(7), {{"alt-svc", "h2=\"localhost:1\""}}),
  };
  return rows;
}

}  // namespace

Rows ReplyRows() {
  Rows rows = StatusRows();
  for (const Rows& more : {NumberRows(), TextRows()}) {
    rows.insert(rows.end(), more.begin(), more.end());
  }
  rows.push_back(Json("exactly as many bytes as allowed", std::string(1 << 20, ' ')));
  Row large = Reply("200 with one byte more than allowed", 200, std::string((1 << 20) + 1, ' '));
  large.expected = Expected::TooLarge();
  rows.push_back(large);
  return rows;
}

}  // namespace quenor::test
