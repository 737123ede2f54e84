#include "cli/send/progress.h"

#include <cstdio>
#include <utility>

namespace quenor::cli {
namespace {

std::string CountsText(const Counts& counts) {
  return "delivered " + std::to_string(counts.delivered) + ", in flight " +
         std::to_string(counts.in_flight) + ", queued " +
         std::to_string(counts.left - counts.in_flight) + ", retries " +
         std::to_string(counts.retries);
}

}  // namespace

double Progress::Rate(Time now, uint64_t delivered) {
  samples_.push_back({now, delivered});
  // One sample from before the window stays: the window's start lies behind it.
  while (samples_.size() > 2 && samples_[1].at <= now - kRateWindow) samples_.pop_front();
  const std::chrono::duration<double> span = now - samples_.front().at;
  if (span.count() <= 0) return 0;
  return static_cast<double>(delivered - samples_.front().delivered) / span.count();
}

std::string Progress::Line(Time now, const Counts& counts) {
  char rate[32];
  std::snprintf(rate, sizeof(rate), ", %.1f/s", Rate(now, counts.delivered));
  return CountsText(counts) + rate;
}

std::optional<std::string> Progress::Update(Time now, const Counts& counts) {
  if (now < due_) return std::nullopt;
  std::string text = CountsText(counts);
  if (text == shown_) return std::nullopt;
  shown_ = std::move(text);
  due_ = now + kPeriod;
  return Line(now, counts);
}

}  // namespace quenor::cli
