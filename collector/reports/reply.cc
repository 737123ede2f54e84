#include "collector/reports/reply.h"

#include "collector/reports/json.h"

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

std::string BuildRefusal(int status) {
  const char* reason = "bad request";
  if (status == 408) reason = "request not complete in time";
  if (status == 413) reason = "body too large";
  if (status == 414) reason = "target too long";
  if (status == 431) reason = "head too large";
  JsonObject refusal;
  refusal.Add("bytes_errinfo", reason);
  return refusal.Finish();
}

}  // namespace quenor::collector
