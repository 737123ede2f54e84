// What the collector answers, and when it misbehaves on request.
// Pure functions of the options and the sequence number of a request; any thread.
#ifndef COLLECTOR_REPLY_H_
#define COLLECTOR_REPLY_H_

#include <cstdint>
#include <optional>
#include <string>

namespace quenor::collector {

// The JSON object of an answer. A control field that is not set is left out of the object.
struct ReplyOptions {
  std::string errinfo = "success";
  std::optional<uint64_t> send_interval_ms;
  std::optional<uint64_t> max_resend_count;
  std::optional<uint64_t> report_duration_s;
};

std::string BuildReply(const ReplyOptions& options);

// Each `..._every` is a period in requests: N strikes requests N, 2N, 3N …; 0 never.
struct MisbehaviourOptions {
  uint64_t never_answer_every = 0;
  uint64_t close_every = 0;
  uint64_t fail_every = 0;
  uint64_t garbage_every = 0;
  int fail_status = 503;
  int status = 200;  // Of every answer that fail_every does not strike.
  uint64_t delay_ms = 0;
};

enum class Action {
  kAnswer,       // The reply object with MisbehaviourOptions::status.
  kNeverAnswer,  // Keep the connection open and silent until shutdown.
  kClose,        // Close the connection without an answer.
  kFail,         // Answer with MisbehaviourOptions::fail_status.
  kGarbage,      // Answer 200 with a body that is not JSON.
};

// What happens to request `seq` (from 1). Where several periods strike the same request, the first
// of never-answer, close, fail, garbage decides.
Action ActionFor(const MisbehaviourOptions& options, uint64_t seq);

// The HTTP status that `action` puts on the wire, 0 for none.
int StatusFor(const MisbehaviourOptions& options, Action action);

// True if a sender takes this status for an acknowledgement: exactly 200.
inline bool IsAccepted(int status) { return status == 200; }

}  // namespace quenor::collector

#endif  // COLLECTOR_REPLY_H_
