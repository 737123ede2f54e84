// The script of --misbehave: what is done to which request and to which connection.
// One line is "SELECTOR: ACTION ...". All lines that select a request apply to it; where two set
// the same thing the later one decides.
// Life: filled from the command line, then only read. Threads: after that, any.
// Page: docs/guide/collector.md.
#ifndef COLLECTOR_HTTP_MISBEHAVIOUR_H_
#define COLLECTOR_HTTP_MISBEHAVIOUR_H_

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quenor::collector {

constexpr uint64_t kUnlimited = std::numeric_limits<uint64_t>::max();

// How an exchange or a connection ends otherwise than HTTP wants it.
enum class EndKind {
  kNone,
  kClose,   // Farewell of TLS, then FIN.
  kCut,     // FIN without the farewell.
  kReset,   // RST.
  kHang,    // Nothing more is read or written; the connection stays open.
  kAlert,   // A fatal alert of TLS, then FIN.
  kRefuse,  // Connections only: a fatal alert in place of the server's hello.
};

// Where it ends.
enum class Place {
  kRequest,  // After `offset` bytes of the request's body, as they come over the wire.
  kAnswer,   // After `offset` bytes of the answer.
  kBody,     // After `offset` bytes of what follows the head of the answer.
  kEnd,      // After the answer.
  kNext,     // When the first bytes of the next request arrive.
};

struct Ending {
  EndKind kind = EndKind::kNone;
  Place place = Place::kAnswer;
  uint64_t offset = 0;
  int alert = 0;  // Of kRefuse.
};

// `bytes` at a time with a pause after each; 0 bytes: everything at once.
struct Drip {
  uint64_t bytes = 0;
  uint64_t pause_ms = 0;
};

enum class BodyKind {
  kReply,   // The usual reply.
  kText,    // Plan::text.
  kFiller,  // Plan::filler_bytes of noise; kUnlimited: endless.
  kRaw,     // Plan::text in place of the whole answer, head and all.
};

// What the head says about the length of the body.
enum class Length {
  kTrue,     // As it is. An endless body and statuses without a body announce none.
  kExact,    // Plan::length_bytes, whatever is sent.
  kMore,     // More by Plan::length_bytes than is sent.
  kLess,     // Less by Plan::length_bytes than is sent.
  kNone,     // Nothing; the end of the connection ends the body.
  kChunked,  // The body goes out in chunks.
};

// What is done to one request.
struct Plan {
  // The actions that take effect, as the script has them; empty: the request is served as usual.
  std::string words;
  int status = 200;
  uint64_t delay_ms = 0;
  Drip head_drip;
  Drip body_drip;
  int interim_status = 0;
  uint64_t interim_count = 0;
  std::vector<std::pair<std::string, std::string>> headers;
  uint64_t padding_bytes = 0;  // Of the head.
  BodyKind body = BodyKind::kReply;
  std::shared_ptr<const std::string> text;
  uint64_t filler_bytes = 0;
  Length length = Length::kTrue;
  uint64_t length_bytes = 0;
  Ending ending;
};

class Misbehaviour {
 public:
  // Adds the lines of `text`, which errors call `name`, or those of a file. Throw Fatal, naming the
  // line and what to write in its place.
  void AddText(std::string_view text, const std::string& name);
  void AddFile(const std::string& path);

  void set_seed(uint64_t seed) { seed_ = seed; }
  uint64_t seed() const { return seed_; }

  // The plan for the n-th request, the ending of the n-th connection; from 1. They depend on the
  // script, the seed and the number alone.
  Plan PlanFor(uint64_t number) const;
  Ending ConnectionEnding(uint64_t number) const;

  // "name:line" of the first line that only TLS can carry out; empty: none.
  const std::string& needs_tls() const { return needs_tls_; }

  // One action of one line. Of all settings of a slot the last decides.
  struct Setting {
    std::string slot;
    std::string word;
    std::function<void(Plan*)> apply;
    bool needs_tls = false;
  };

 private:
  struct Rule {
    bool of_connections = false;
    uint64_t first = 1;
    uint64_t last = kUnlimited;
    uint64_t period = 1;
    double chance = 1;
    uint64_t salt = 0;  // Tells the draws of one rule from those of another.
    std::vector<Setting> settings;
  };

  void AddLine(const std::string& line, const std::string& place);
  static bool ParseSelector(std::string_view text, Rule* rule);
  bool Selects(const Rule& rule, uint64_t number) const;
  Plan Merge(bool of_connections, uint64_t number) const;

  std::vector<Rule> rules_;
  uint64_t seed_ = 0;
  std::string needs_tls_;
};

// The number of the alert that TLS calls `name`, as in "unknown_ca"; -1: none.
int AlertNumber(const std::string& name);

// The status that stands on record for an answer by `plan`: 0 if it ends before a status is out.
// Whatever a sender may take for 200 is 200.
int StatusOnRecord(const Plan& plan);

}  // namespace quenor::collector

#endif  // COLLECTOR_HTTP_MISBEHAVIOUR_H_
