// What only HTTP/2 can get wrong, by support/h2_peer.py. Error codes are those of RFC 9113.
#include <initializer_list>
#include <utility>

#include "tests/integration/matrix/row.h"

namespace quenor::test {

namespace {

using Headers = std::vector<std::pair<std::string, std::string>>;

constexpr int kErrorCodes = 14;  // 0 to 13.
constexpr int kHttp1Required = 13;
constexpr int kUnknownError = 4096;

Row Make(const std::string& name, const std::string& peer, Expected expected = Expected::Fails()) {
  Row row;
  row.name = name;
  row.peer = peer;
  row.expected = expected;
  row.is_slow = expected.state == HttpClient::State::kTimedOut;
  return row;
}

Row Delivered(const std::string& name, const std::string& peer) {
  return Make(name, peer, Expected::Delivered());
}

Row Hangs(const std::string& name, const std::string& peer) {
  return Make(name, peer, Expected::TimesOut());
}

Row ClosesBehind(Row row) {
  row.closes_behind = true;
  return row;
}

Row Big(Row row) {
  row.is_big = true;
  return row;
}

std::string With(const std::string& script, const Headers& headers) {
  std::string text = script;
  for (const auto& [name, value] : headers) text += ":" + Hex(name) + ":" + Hex(value);
  return text;
}

// One frame with its header.
std::string Frame(int type, int flags, uint32_t stream, const std::string& payload) {
  std::string text;
  const uint32_t size = static_cast<uint32_t>(payload.size());
  for (int shift : {16, 8, 0}) text += static_cast<char>(size >> shift);
  text += static_cast<char>(type);
  text += static_cast<char>(flags);
  for (int shift : {24, 16, 8, 0}) text += static_cast<char>(stream >> shift);
  return text + payload;
}
std::string HexFrame(int type, int flags, uint32_t stream, const std::string& payload) {
  return Hex(Frame(type, flags, stream, payload));
}

constexpr int kPriority = 2;
constexpr int kRst = 3;
constexpr int kSettings = 4;
constexpr int kPing = 6;
constexpr int kGoaway = 7;
constexpr int kWindow = 8;
constexpr int kAltSvc = 10;
constexpr int kOrigin = 12;

Rows StreamEndRows() {
  Rows rows;
  for (int code = 0; code <= kErrorCodes; ++code) {
    const std::string error = std::to_string(code < kErrorCodes ? code : kUnknownError);
    // The client asks again at once where it is told to use HTTP/1.1, and is served.
    const Expected ends = code == kHttp1Required ? Expected::Delivered() : Expected::Fails();
    const std::string rst = "RST_STREAM " + error;
    rows.push_back(Make(rst + " before the answer", "rst_before:" + error, ends));
    rows.push_back(Make(rst + " between headers and body", "rst_mid:" + error, ends));
    rows.push_back(Make(rst + " in the body", "rst_in_body:" + error, ends));
    rows.push_back(Make(rst + " in an announced body", "rst_in_announced_body:" + error, ends));
    rows.push_back(Delivered("RST_STREAM " + error + " after the answer", "rst_after:" + error));
  }
  for (const char* code : {"0", "2", "7", "8", "11", "13"}) {
    const std::string error = code;
    rows.push_back(Make("GOAWAY " + error + " before any request", "opening_goaway:" + error));
    rows.push_back(Make("GOAWAY " + error + " before the answer", "goaway_before:" + error));
    rows.push_back(Make("GOAWAY " + error + " in the answer, then closed", "goaway_mid:" + error));
    rows.push_back(Delivered("GOAWAY " + error + " in an answer that is finished",
                             "goaway_mid_whole:" + error));
    rows.push_back(Delivered("GOAWAY " + error + " after the answer", "goaway_after:" + error));
    rows.push_back(
        Big(Make("GOAWAY " + error + " in the middle of the upload", "mid_goaway:" + error)));
    rows.push_back(
        Big(Make("RST_STREAM " + error + " in the middle of the upload", "mid_rst:" + error,
                 error == "13" ? Expected::Delivered() : Expected::Fails())));
  }
  const Rows more = {
      Make("GOAWAY before any request, held open", "opening_goaway_hold:0"),
      Make("GOAWAY with 16,000 bytes of debug data", "goaway_debug:16000"),
      Make("GOAWAY 2,000 times", "goaway_flood"),
      Make("RST_STREAM 2,000 times", "rst_flood"),
      Make("RST_STREAM of a stream that was never opened", "rst_idle_stream"),
      Make("RST_STREAM of stream zero", "rst_stream_zero"),
      // libcurl gives the upload up before it shows an answer that came together with the reset.
      Big(Make("answered and reset in the middle of the upload", "mid_answer_rst:0",
               Expected::Either())),
      Make("every stream refused", "refused_then_served:1000"),
  };
  rows.insert(rows.end(), more.begin(), more.end());
  Row half = Delivered("half an answer, then HTTP/1.1 asked for",
                       "http1_required_in_body:" + Hex("{\"bytes_errinfo\":\"success\","
                                                       "\"uint32_max_resend_count\":7}"));
  half.checks_settings = true;
  half.settings.max_resend_count = 7;
  rows.push_back(half);
  return rows;
}

Rows CloseRows() {
  Rows rows = {
      Make("closed before the settings", "opening_close"),
      Make("reset before the settings", "opening_reset"),
      Make("closed before the answer", "close_before"),
      Make("reset before the answer", "reset_before"),
      Make("closed after the answer's headers", "close_after_headers"),
      Make("reset after the answer's headers", "reset_after_headers"),
      Make("closed in a body of no announced length", "close_in_unannounced_body"),
      Make("close_notify in a body of no announced length", "goodbye_in_body"),
      Big(Make("closed in the middle of the upload", "mid_close")),
      Big(Make("reset in the middle of the upload", "mid_reset")),
      ClosesBehind(Delivered("closed after the answer", "answer_then_close")),
      Make("closed after an interim answer", "interim_only:100"),
  };
  for (int size : {1, 8, 9, 10, 14}) {
    const std::string at = std::to_string(size);
    rows.push_back(
        Make("closed in the HEADERS frame, after " + at + " bytes", "close_in_headers:" + at));
  }
  for (int size : {1, 9, 10}) {
    const std::string at = std::to_string(size);
    rows.push_back(Make("closed in the DATA frame, after " + at + " bytes", "close_in_body:" + at));
  }
  return rows;
}

Rows SettingsRows() {
  const std::string empty = Frame(kSettings, 0, 0, "");
  const auto opening = [](const std::string& bytes) { return "opening_bytes:" + Hex(bytes); };
  return {
      Hangs("no settings at all", "opening_hold"),
      Hangs("settings, and then nothing", "opening_settings_hold"),
      Make("SETTINGS of five bytes", opening(Frame(kSettings, 0, 0, "12345"))),
      Make("SETTINGS on a stream", opening(Frame(kSettings, 0, 1, ""))),
      Make("SETTINGS acknowledgement with content",
           opening(empty + Frame(kSettings, 1, 0, "123456"))),
      Make("SETTINGS acknowledged twice", opening(empty + Frame(kSettings, 1, 0, ""))),
      Make("ENABLE_PUSH 2", "opening_settings:2:2"),
      Make("ENABLE_PUSH 1 from a server", "opening_settings:2:1"),
      Make("INITIAL_WINDOW_SIZE 2^31", "opening_settings:4:2147483648"),
      Make("MAX_FRAME_SIZE 1", "opening_settings:5:1"),
      Make("MAX_FRAME_SIZE 2^24", "opening_settings:5:16777216"),
      Delivered("HEADER_TABLE_SIZE 0", "opening_settings:1:0"),
      Delivered("HEADER_TABLE_SIZE 2^32 - 1", "opening_settings:1:4294967295"),
      Delivered("settings that nobody knows", "opening_settings:61680:1:65535:4294967295"),
      Hangs("INITIAL_WINDOW_SIZE 0, held", "opening_settings_hold:4:0"),
      Hangs("MAX_CONCURRENT_STREAMS 0, held", "opening_settings_hold:3:0"),
      Delivered("MAX_HEADER_LIST_SIZE 1", "opening_settings:6:1"),
      Make("SETTINGS 20,000 times", "opening_settings_flood", Expected::Either()),
      Make("PING 20,000 times", "opening_ping_flood", Expected::Either()),
      Make("first frame is no SETTINGS", opening(Frame(kPing, 0, 0, "12345678"))),
      Make("HTTP/1.1 where HTTP/2 was agreed on", "tls_http2_then_http1"),
      Make("HTTP/2 where HTTP/1.1 was agreed on", "tls_http1_then_http2"),
      Delivered("HTTP/1.1 agreed on", "tls_only_http1"),
      Make("an answer before the request", "opening_headers_before_request", Expected::Either()),
      Delivered("INITIAL_WINDOW_SIZE changed in the answer", "settings_mid:4:100"),
      Delivered("bad setting in the answer", "settings_mid:4:2147483648"),
      Big(Hangs("upload whose window stays shut", "mid_hold")),
  };
}

Rows HeaderRows() {
  const auto more = [](const Headers& headers) { return With("headers_more", headers); };
  const std::pair<std::string, std::string> ok{":status", "200"};
  return {
      Hangs("HEADERS without an end, held open", "headers_without_end"),
      Make("HEADERS without an end, closed", "headers_without_end_close"),
      Make("DATA inside the header block", "headers_without_end_data"),
      Make("CONTINUATION flood", "continuation_flood"),
      Make("empty CONTINUATION flood", "empty_continuation_flood"),
      Make("CONTINUATION alone", "continuation_alone"),
      Make("drip of CONTINUATION frames", "header_drip"),
      Make("header table entry named ten thousand times", "header_bomb"),
      Make("70 headers of 1,000 bytes", "headers_many:70:1000", Expected::TooLarge()),
      Make("10,000 headers of 1,000 bytes", "headers_many:10000:1000"),
      Make("index beyond the header table", "hpack:ff8001"),
      Make("header index zero", "hpack:80"),
      Make("header block that ends in a string", "hpack:8800017f"),
      Make("bad Huffman code", "hpack:8800016182ffff"),
      Make("header table set beyond its limit", "hpack:3fffff7f88"),
      Make("no status", more({{"server", "x"}})),
      Make("no headers at all", "hpack:"),
      Make("status twice", more({ok, ok})),
      Make("status after another header", more({{"server", "x"}, ok})),
      Make("request's pseudo header", more({ok, {":path", "/"}})),
      Make("pseudo header that nobody knows", more({ok, {":x", "y"}})),
      Make("empty status", "reply_status_hex:"),
      Make("status in words", "reply_status_hex:" + Hex("two")),
      Make("status of four digits", "reply_status_hex:" + Hex("2000")),
      Make("status of two digits", "reply_status_hex:" + Hex("20")),
      Make("status 000", "reply_status_hex:" + Hex("000")),
      Make("status 101", "reply_status_hex:" + Hex("101")),
      Make("header name in capitals", more({ok, {"Server", "x"}})),
      Make("connection header", more({ok, {"connection", "close"}})),
      Make("transfer-encoding header", more({ok, {"transfer-encoding", "chunked"}})),
      Make("header with a line feed", more({ok, {"x", "a\nb: c"}})),
      Make("header with a NUL", more({ok, {"x", std::string("a\0b", 3)}})),
      Make("empty header name", more({ok, {"", "x"}})),
      Delivered("headers padded", "headers_padded:10:10"),
      Make("headers with more padding than frame", "headers_padded:10:200"),
      Make("two header blocks", "headers_twice"),
      Delivered("trailers", With("trailers", {{"x", "y"}})),
      Make("trailers with a status", With("trailers", {{":status", "500"}})),
      Make("trailers that do not end the stream", "trailers_without_end"),
      Delivered("headers only", "headers_end_stream:200"),
      Make("interim answer that ends the stream", "headers_end_stream:100"),
      Delivered("100 before the answer", "interim:100:1"),
      Delivered("103 before the answer, 50 times", "interim:103:50"),
  };
}

// Of what breaks HTTP/2 after a status of 200 and before the end of a body whose length was not
// announced, libcurl says that all is well. It was a 200: the report has arrived.
Rows BodyRows() {
  const auto announced = [](const std::string& length) {
    return "reply:200:" + Hex("{}") + ":" + Hex("content-length") + ":" + Hex(length);
  };
  return {
      Make("length announced too short", announced("1")),
      Make("length announced too long", announced("20")),
      Make("negative length", announced("-1")),
      Make("length beyond 64 bits", announced("99999999999999999999999")),
      Make("length in words", announced("two")),
      Make("two lengths", announced("2") + ":" + Hex("content-length") + ":" + Hex("2")),
      Make("length of 2^63 - 1", announced("9223372036854775807")),
      Hangs("announced bytes there, the stream's end not", "reply_without_end:7b7d"),
      Make("DATA before the headers", "data_first"),
      Delivered("DATA on stream zero", "data_stream:0"),
      Delivered("DATA on a stream that was never opened", "data_stream:101"),
      Delivered("DATA after the end of the stream", "data_after_end"),
      Delivered("HEADERS after the end of the stream", "headers_after_end"),
      Delivered("DATA padded", "data_padded:200:200"),
      Delivered("DATA with more padding than frame", "data_padded:10:200"),
      Delivered("1,000 empty DATA frames", "empty_data:1000"),
      Make("body beyond every window", "over_window", Expected::TooLarge()),
      Make("body without an end", "endless_body", Expected::TooLarge()),
      Make("body of 1 GiB", "endless_body:1073741824", Expected::TooLarge()),
      Make("drip of body bytes", "body_drip", Expected::TimesOut()),
      Hangs("no answer at all", "hold"),
      Make("random bytes", "random_bytes"),
  };
}

Rows FrameRows() {
  const auto before = [](const std::string& frame) { return "before_answer:" + frame; };
  const auto inside = [](const std::string& frame) { return "inside_answer:" + frame; };
  const std::string eight = "12345678";
  return {
      Make("frame longer than allowed", before(HexFrame(0, 0, 1, std::string(16385, 'x')))),
      Delivered("frame of an unknown type", before(HexFrame(200, 255, 1, "abc"))),
      Delivered("frame of an unknown type inside the answer", inside(HexFrame(200, 0, 77, "abc"))),
      Make("PING of seven bytes", before(HexFrame(kPing, 0, 0, "1234567"))),
      Make("PING on a stream", before(HexFrame(kPing, 0, 1, eight))),
      Delivered("PING acknowledged that was never sent", before(HexFrame(kPing, 1, 0, eight))),
      Delivered("50 PINGs before the answer", "many_pings:50"),
      Delivered("PING inside the answer", inside(HexFrame(kPing, 0, 0, eight))),
      Make("GOAWAY of seven bytes", before(HexFrame(kGoaway, 0, 0, "1234567"))),
      Make("GOAWAY on a stream", before(HexFrame(kGoaway, 0, 1, eight))),
      Make("RST_STREAM of three bytes", before(HexFrame(kRst, 0, 1, "123"))),
      Delivered("PRIORITY", before(HexFrame(kPriority, 0, 3, std::string("\0\0\0\0\1", 5)))),
      Make("PRIORITY of four bytes", before(HexFrame(kPriority, 0, 1, "1234"))),
      Make("WINDOW_UPDATE of three bytes", before(HexFrame(kWindow, 0, 0, "123"))),
      Make("WINDOW_UPDATE of zero on the connection", "window_bytes:0:0"),
      Make("WINDOW_UPDATE of zero on the stream", "window_bytes:1:0"),
      Make("WINDOW_UPDATE that overflows the connection", "window_bytes:0:2147483647"),
      Make("WINDOW_UPDATE that overflows the stream", "window_bytes:1:2147483647"),
      Make("PUSH_PROMISE, which was forbidden", "push_promise:2"),
      Make("PUSH_PROMISE of an odd stream", "push_promise:3"),
      Make("PUSH_PROMISE of stream zero", "push_promise:0"),
      Delivered("ALTSVC",
                before(HexFrame(kAltSvc, 0, 0, std::string("\0\4abcd", 6) + "h2=\":1\""))),
      Delivered("ORIGIN", before(HexFrame(kOrigin, 0, 0, std::string("\0\4abcd", 6)))),
  };
}

}  // namespace

Rows Http2Rows() {
  Rows rows;
  for (const Rows& more :
       {StreamEndRows(), CloseRows(), SettingsRows(), HeaderRows(), BodyRows(), FrameRows()}) {
    rows.insert(rows.end(), more.begin(), more.end());
  }
  return rows;
}

}  // namespace quenor::test
