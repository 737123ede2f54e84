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

Action ActionFor(const MisbehaviourOptions& options, uint64_t seq) {
  const auto strikes = [seq](uint64_t period) { return period != 0 && seq % period == 0; };
  if (strikes(options.never_answer_every)) return Action::kNeverAnswer;
  if (strikes(options.close_every)) return Action::kClose;
  if (strikes(options.fail_every)) return Action::kFail;
  if (strikes(options.garbage_every)) return Action::kGarbage;
  return Action::kAnswer;
}

int StatusFor(const MisbehaviourOptions& options, Action action) {
  switch (action) {
    case Action::kNeverAnswer:
    case Action::kClose:
      return 0;
    case Action::kFail:
      return options.fail_status;
    case Action::kGarbage:
      return 200;
    case Action::kAnswer:
      break;
  }
  return options.status;
}

}  // namespace quenor::collector
