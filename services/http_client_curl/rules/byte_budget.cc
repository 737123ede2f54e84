#include "services/http_client_curl/rules/byte_budget.h"

#include <algorithm>

QUENOR_NAMESPACE_BEGIN
namespace {

constexpr int64_t kPerByte = 1000;                    // Of a bucket's units.
constexpr int64_t kMostElapsedMs = int64_t{1} << 31;  // Times the highest rate it is no overflow.

std::string Refusal(const char* field, uint64_t value, const std::string& why) {
  return std::string("http thrift: ") + field + " is " + std::to_string(value) + ", " + why;
}

}  // namespace

std::string ByteBudget::Problem(const HttpThrift& caps) {
  const uint64_t second = caps.bytes_per_second;
  const uint64_t day = caps.bytes_per_day;
  const auto at_most = [](uint64_t most) {
    return "which no network moves; give " + std::to_string(most) + " at most, or 0 for no cap";
  };
  if (second > kMostPerSecond) return Refusal("bytes_per_second", second, at_most(kMostPerSecond));
  if (day > kMostPerDay) return Refusal("bytes_per_day", day, at_most(kMostPerDay));
  if (day != 0 && day < kLeastPerDay) {
    return Refusal("bytes_per_day", day,
                   "too little for a connection and a few messages; give " +
                       std::to_string(kLeastPerDay) + " at least, or 0 for no cap");
  }
  if (day != 0 && day < second) {
    return Refusal("bytes_per_day", day, "less than bytes_per_second; give more, or 0 for no cap");
  }
  return std::string();
}

uint64_t ByteBudget::BurstOf(const HttpThrift& caps) {
  return std::max(caps.bytes_per_second * kBurstSeconds, kLeastBurst);
}

void ByteBudget::SetCaps(const HttpThrift& caps, int64_t now_ms) {
  Fill(now_ms);
  const int64_t full = static_cast<int64_t>(BurstOf(caps)) * kPerByte;
  const bool had_one = caps_.bytes_per_second != 0;
  caps_ = caps;
  tokens_ = had_one ? std::min(tokens_, full) : full;
}

ByteBudget::Cap ByteBudget::Take(uint64_t bytes, int64_t now_ms) {
  Turn(now_ms);
  Fill(now_ms);
  if (caps_.bytes_per_second != 0 && tokens_ <= 0) return Cap::kSecond;
  const bool fits = within_day_ == 0 || within_day_ + bytes <= caps_.bytes_per_day;
  if (caps_.bytes_per_day != 0 && !fits) return Cap::kDay;
  Settle(0, bytes, now_ms);
  return Cap::kNone;
}

void ByteBudget::Settle(uint64_t taken, uint64_t moved, int64_t now_ms) {
  Turn(now_ms);
  Fill(now_ms);
  if (caps_.bytes_per_second != 0) {
    tokens_ += (static_cast<int64_t>(taken) - static_cast<int64_t>(moved)) * kPerByte;
    tokens_ = std::min(tokens_, static_cast<int64_t>(BurstOf(caps_)) * kPerByte);
  }
  if (moved >= taken) {
    of_hour_[hour_ % kHours] += moved - taken;
    within_day_ += moved - taken;
    return;
  }
  // Out of the hours in which it may have been taken, the latest first.
  uint64_t back = taken - moved;
  for (int64_t i = 0; i < kHours && back > 0; ++i) {
    uint64_t& spent = of_hour_[(hour_ - i + kHours) % kHours];
    const uint64_t part = std::min(back, spent);
    spent -= part;
    within_day_ -= part;
    back -= part;
  }
}

uint64_t ByteBudget::WithinDay(int64_t now_ms) {
  Turn(now_ms);
  return within_day_;
}

void ByteBudget::Refill() {
  tokens_ = static_cast<int64_t>(BurstOf(caps_)) * kPerByte;
  std::fill(of_hour_, of_hour_ + kHours, 0);
  within_day_ = 0;
}

// Forgets the hours that do not count any more.
void ByteBudget::Turn(int64_t now_ms) {
  const int64_t hour = now_ms / kHourMs;
  for (int i = 0; i < kHours && hour_ < hour; ++i) {
    uint64_t& spent = of_hour_[++hour_ % kHours];
    within_day_ -= spent;
    spent = 0;
  }
  hour_ = std::max(hour_, hour);
}

void ByteBudget::Fill(int64_t now_ms) {
  const int64_t elapsed_ms = std::min(std::max<int64_t>(now_ms - filled_ms_, 0), kMostElapsedMs);
  filled_ms_ = std::max(filled_ms_, now_ms);
  if (caps_.bytes_per_second == 0) return;
  const int64_t full = static_cast<int64_t>(BurstOf(caps_)) * kPerByte;
  tokens_ = std::min(full, tokens_ + static_cast<int64_t>(caps_.bytes_per_second) * elapsed_ms);
}

QUENOR_NAMESPACE_END
