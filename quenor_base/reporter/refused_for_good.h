// RefusedForGood: which resend limit lets a message go that the server refuses for good, and none
// other. A failed message goes back to the front of its channel's list; without a limit one that
// the server will never take is sent for ever and slows down all others. So the limit is lowered
// for as long as it takes to go, but stays above what any other message may have reached by its
// next failure.
// Threads: one at a time; the channel's queue thread, inside its events. Decides only: its caller
// sets the limit.
#ifndef QUENOR_BASE_REPORTER_REFUSED_FOR_GOOD_H_
#define QUENOR_BASE_REPORTER_REFUSED_FOR_GOOD_H_

#include <cstdint>
#include <map>

#include "quenor_base/platform/report_events.h"

QUENOR_NAMESPACE_BEGIN

class RefusedForGood {
 public:
  // As often running a message is refused before it counts as refused for good.
  static constexpr uint32_t kRefusals = 5;

  // `limit`: the channel's resend limit, as its owner has set it.
  explicit RefusedForGood(uint32_t limit) : limit_(limit), in_force_(limit) {}

  // Every event of the channel. The limit that is to be set now, in `*limit`, if the answer is
  // true.
  bool OnEvent(const ReportEvent& event, uint32_t* limit);

  // As the owner or the server has set it, whatever is in force for a moment.
  uint32_t limit() const { return limit_; }

  // Before OnEvent() is told of its end: whether the drop of this message is its rejection.
  bool IsRejection(const ReportEvent& event) const;

 private:
  struct Message {
    uint32_t sends = 0;
    uint32_t refusals = 0;  // Running.
    bool is_condemned() const { return refusals >= kRefusals; }
  };
  uint32_t Wanted() const;

  std::map<uint64_t, Message> messages_;  // In the channel's store.
  size_t condemned_ = 0;
  uint32_t limit_;     // Set by the owner or the server.
  uint32_t in_force_;  // That, or lower.
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_REPORTER_REFUSED_FOR_GOOD_H_
