// What the collector answers when nothing else is asked of it. Any thread.
#ifndef COLLECTOR_REPORTS_REPLY_H_
#define COLLECTOR_REPORTS_REPLY_H_

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

// The JSON object that tells why a request was refused with `status`.
std::string BuildRefusal(int status);

// True if a sender takes this status for an acknowledgement: exactly 200.
inline bool IsAccepted(int status) { return status == 200; }

}  // namespace quenor::collector

#endif  // COLLECTOR_REPORTS_REPLY_H_
