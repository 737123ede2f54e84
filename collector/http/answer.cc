#include "collector/http/answer.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string_view>
#include <utility>

#include "collector/reports/reply.h"

namespace quenor::collector {
namespace {

constexpr size_t kBlockBytes = 64 * 1024;
constexpr size_t kPaddingLineBytes = 1024;

const char* Reason(int status) {
  static constexpr std::pair<int, const char*> kReasons[] = {
      {100, "Continue"},
      {101, "Switching Protocols"},
      {102, "Processing"},
      {103, "Early Hints"},
      {200, "OK"},
      {201, "Created"},
      {202, "Accepted"},
      {204, "No Content"},
      {301, "Moved Permanently"},
      {302, "Found"},
      {303, "See Other"},
      {304, "Not Modified"},
      {307, "Temporary Redirect"},
      {308, "Permanent Redirect"},
      {400, "Bad Request"},
      {401, "Unauthorized"},
      {403, "Forbidden"},
      {404, "Not Found"},
      {408, "Request Timeout"},
      {413, "Payload Too Large"},
      {414, "URI Too Long"},
      {429, "Too Many Requests"},
      {431, "Request Header Fields Too Large"},
      {500, "Internal Server Error"},
      {502, "Bad Gateway"},
      {503, "Service Unavailable"},
      {504, "Gateway Timeout"}};
  for (const auto& [known, reason] : kReasons) {
    if (known == status) return reason;
  }
  return "Scripted";
}

// Where the answer goes: counts what has gone, drips, and lets nothing past the plan's ending.
class Outlet {
 public:
  Outlet(const Plan& plan, const AnswerContext& context, Connection* connection)
      : plan_(plan), context_(context), connection_(connection), drip_(plan.head_drip) {
    if (plan.ending.kind != EndKind::kNone && plan.ending.place == Place::kAnswer) {
      left_bytes_ = plan.ending.offset;
    }
  }

  void BeginBody() {
    drip_ = plan_.body_drip;
    dripped_ = 0;
    if (plan_.ending.kind != EndKind::kNone && plan_.ending.place == Place::kBody) {
      left_bytes_ = plan_.ending.offset;
    }
  }

  // False: nothing more can go, for the ending is reached or the peer is gone.
  bool Put(std::string_view bytes) {
    const bool fits = bytes.size() <= left_bytes_;
    bytes = bytes.substr(0, fits ? bytes.size() : static_cast<size_t>(left_bytes_));
    left_bytes_ -= left_bytes_ == kUnlimited ? 0 : bytes.size();
    while (!bytes.empty()) {
      size_t piece_bytes = bytes.size();
      if (drip_.bytes != 0) piece_bytes = std::min<uint64_t>(piece_bytes, drip_.bytes - dripped_);
      if (connection_->write(bytes.data(), piece_bytes) < 0) return false;
      bytes.remove_prefix(piece_bytes);
      dripped_ += piece_bytes;
      if (drip_.bytes == 0 || dripped_ < drip_.bytes) continue;
      dripped_ = 0;
      if (!connection_->Flush()) return false;
      context_.pause(drip_.pause_ms);
    }
    return fits;
  }

 private:
  const Plan& plan_;
  const AnswerContext& context_;
  Connection* const connection_;
  Drip drip_;
  uint64_t dripped_ = 0;  // Of the present drip.
  uint64_t left_bytes_ = kUnlimited;
};

// Calls `put` with `size_bytes` of noise, a block at a time, until it returns false. The same seed
// makes the same noise.
template <typename Put>
bool Generate(uint64_t seed, uint64_t size_bytes, const Put& put) {
  std::mt19937_64 random(seed);
  std::string block(std::min<uint64_t>(size_bytes, kBlockBytes), '\0');
  for (char& byte : block) byte = static_cast<char>(random());
  for (uint64_t left = size_bytes; left > 0;) {
    const uint64_t step_bytes = std::min<uint64_t>(left, block.size());
    if (!put(std::string_view(block).substr(0, step_bytes))) return false;
    left -= left == kUnlimited ? 0 : step_bytes;
  }
  return true;
}

// What the head says about the body's length, with its CRLF.
std::string LengthLine(const Plan& plan, bool has_body, uint64_t body_bytes) {
  uint64_t announced = body_bytes;
  switch (plan.length) {
    case Length::kChunked:
      return "Transfer-Encoding: chunked\r\n";
    case Length::kNone:
      return "";
    case Length::kTrue:
      if (!has_body || body_bytes == kUnlimited) return "";
      break;
    case Length::kExact:
      announced = plan.length_bytes;
      break;
    case Length::kMore:
      announced = body_bytes + plan.length_bytes;
      break;
    case Length::kLess:
      announced = body_bytes - std::min(body_bytes, plan.length_bytes);
      break;
  }
  return "Content-Length: " + std::to_string(announced) + "\r\n";
}

bool PutHead(const Plan& plan, const AnswerContext& context, const std::string& length_line,
             bool has_body, Outlet* out) {
  const std::string interim = StatusLine(plan.interim_status) + "\r\n";
  for (uint64_t i = 0; i < plan.interim_count; ++i) {
    if (!out->Put(interim)) return false;
  }
  std::string head = StatusLine(plan.status) + context.framing + length_line;
  bool has_type = false;
  for (const auto& [name, value] : plan.headers) {
    has_type = has_type || ::strcasecmp(name.c_str(), "Content-Type") == 0;
    head += name + ": " + value + "\r\n";
  }
  if (has_body && !has_type) head += "Content-Type: application/json\r\n";
  if (!out->Put(head)) return false;
  const std::string line = "X-Padding: " + std::string(kPaddingLineBytes - 13, 'p') + "\r\n";
  for (uint64_t padded = 0; padded < plan.padding_bytes; padded += line.size()) {
    if (!out->Put(line)) return false;
  }
  return out->Put("\r\n");
}

bool PutAll(const Plan& plan, const AnswerContext& context, Outlet* out) {
  if (plan.body == BodyKind::kRaw) {
    out->BeginBody();
    return out->Put(*plan.text);
  }
  const bool is_filler = plan.body == BodyKind::kFiller;
  const bool may_have_body = plan.status != 204 && plan.status != 304;
  const bool has_body = plan.body != BodyKind::kReply || may_have_body;
  const std::string none;
  const std::string& text =
      plan.body == BodyKind::kText ? *plan.text : (has_body ? context.reply : none);
  const uint64_t body_bytes = is_filler ? plan.filler_bytes : text.size();
  if (!PutHead(plan, context, LengthLine(plan, has_body, body_bytes), has_body, out)) return false;

  out->BeginBody();
  const bool chunked = plan.length == Length::kChunked;
  const auto put = [&](std::string_view block) {
    if (!chunked) return out->Put(block);
    char size[24];
    std::snprintf(size, sizeof(size), "%zx\r\n", block.size());
    return out->Put(size) && out->Put(block) && out->Put("\r\n");
  };
  const bool done = is_filler ? Generate(context.seed, body_bytes, put) : text.empty() || put(text);
  return done && (!chunked || out->Put("0\r\n\r\n"));
}

}  // namespace

bool WriteAnswer(const Plan& plan, const AnswerContext& context, Connection* connection) {
  Outlet out(plan, context, connection);
  (void)PutAll(plan, context, &out);  // Stopped at the ending or by the peer: the flush tells.
  return connection->Flush();
}

std::string StatusLine(int status) {
  return "HTTP/1.1 " + std::to_string(status) + " " + Reason(status) + "\r\n";
}

std::string RefusalText(int status) {
  const std::string reason = BuildRefusal(status);
  return StatusLine(status) + "Connection: close\r\nContent-Type: application/json\r\n" +
         "Content-Length: " + std::to_string(reason.size()) + "\r\n\r\n" + reason;
}

}  // namespace quenor::collector
