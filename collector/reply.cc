#include "collector/reply.h"

#include "collector/json.h"

namespace quenor::collector {

std::string BuildReply(const ReplyOptions& options) {
  JsonObject reply;
  reply.Add("bytes_errinfo", options.errinfo);
  if (options.send_interval_ms) {
    reply.AddNumber("uint32_send_interval", *options.send_interval_ms);
  }
  if (options.max_resend_count) {
    reply.AddNumber("uint32_max_resend_count", *options.max_resend_count);
  }
  if (options.report_duration_s) {
    reply.AddNumber("uint32_report_duration", *options.report_duration_s);
  }
  return reply.Finish();
}

}  // namespace quenor::collector
