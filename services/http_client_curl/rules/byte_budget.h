// How many bytes may still go: a bucket that fills by the second, and the hours of a day.
// Knows no clock: times are arguments, in milliseconds, and never go back.
// Internal to the HTTP client. Threads: one at a time; a lock of the caller's guards it.
#ifndef SERVICES_HTTP_CLIENT_CURL_RULES_BYTE_BUDGET_H_
#define SERVICES_HTTP_CLIENT_CURL_RULES_BYTE_BUDGET_H_

#include <cstdint>
#include <string>

#include "quenor_base/platform/http_thrift.h"

QUENOR_NAMESPACE_BEGIN

class ByteBudget {
 public:
  enum class Cap { kNone, kSecond, kDay };

  static constexpr uint64_t kBurstSeconds = 10;
  static constexpr uint64_t kLeastBurst = 16 << 10;
  static constexpr uint64_t kLeastPerDay = 16 << 10;
  static constexpr uint64_t kMostPerSecond = uint64_t{1} << 30;
  static constexpr uint64_t kMostPerDay = uint64_t{1} << 50;

  // Empty, or which value cannot be meant and what to do.
  static std::string Problem(const HttpThrift& caps);
  // What may go at once after a rest.
  static uint64_t BurstOf(const HttpThrift& caps);

  // What counts for the day goes on to count; a bucket that was there keeps what it has, as far as
  // the new one holds it.
  void SetCaps(const HttpThrift& caps, int64_t now_ms);
  const HttpThrift& caps() const { return caps_; }
  bool has_cap() const { return caps_.bytes_per_second != 0 || caps_.bytes_per_day != 0; }

  // Charges a request and answers kNone, or which cap holds it back. The bucket lets each go while
  // it is not empty, and a large one leaves a debt: waiting for more would let small ones of others
  // keep it back for ever. The day lets one go that is larger than it when nothing else counts.
  Cap Take(uint64_t bytes, int64_t now_ms);
  // In place of what was taken for a request, what it has moved; either may be 0.
  void Settle(uint64_t taken, uint64_t moved, int64_t now_ms);

  // What counts for the day.
  uint64_t WithinDay(int64_t now_ms);
  // Forgets what was spent.
  void Refill();

 private:
  static constexpr int64_t kHourMs = 60 * 60 * 1000;
  static constexpr int kHours = 25;  // The one that is going on, and those of the day before it.

  void Turn(int64_t now_ms);
  void Fill(int64_t now_ms);

  HttpThrift caps_;
  int64_t tokens_ = 0;  // Thousandths of a byte; below 0: a debt.
  int64_t filled_ms_ = 0;
  uint64_t of_hour_[kHours] = {};  // By the hour's number, modulo.
  int64_t hour_ = 0;               // The one that is going on.
  uint64_t within_day_ = 0;        // Their sum.
};

QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_RULES_BYTE_BUDGET_H_
