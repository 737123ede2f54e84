#include "fleet/scenario/words.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>
#include <sstream>

namespace quenor::fleet {
namespace {

// Ten years: what nobody runs, and far from the end of time.
constexpr double kMostSeconds = 3600.0 * 24 * 3653;

struct Unit {
  const char* name;
  double seconds;
};
constexpr Unit kTimes[] = {{"ms", 0.001}, {"s", 1}, {"min", 60}, {"h", 3600}};

// The number that `text` begins with, and what follows it; nothing when it begins with none.
std::optional<std::pair<double, std::string>> NumberAndUnit(const std::string& text) {
  double number = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
  if (error != std::errc() || !std::isfinite(number) || number < 0) return std::nullopt;
  return std::make_pair(number, text.substr(static_cast<size_t>(end - text.data())));
}

std::optional<int64_t> TimeOf(const std::string& text) {
  const auto parsed = NumberAndUnit(text);
  if (!parsed) return std::nullopt;
  for (const Unit& unit : kTimes) {
    if (parsed->second != unit.name) continue;
    const double seconds = parsed->first * unit.seconds;
    if (seconds > kMostSeconds) return std::nullopt;
    return static_cast<int64_t>(std::llround(seconds * 1e6));
  }
  return std::nullopt;
}

// Both sides of "..", or the whole twice.
std::pair<std::string, std::string> Sides(const std::string& text) {
  const size_t dots = text.find("..");
  if (dots == std::string::npos) return {text, text};
  return {text.substr(0, dots), text.substr(dots + 2)};
}

}  // namespace

Words::Words(std::string place, const std::string& line) : place_(std::move(place)) {
  std::istringstream in(line.substr(0, line.find('#')));
  for (std::string word; in >> word;) {
    const bool has_colon = word.size() > 1 && word.back() == ':';
    if (has_colon) word.pop_back();
    words_.push_back(word);
    if (has_colon) words_.push_back(":");
  }
}

std::string Words::Rest() const {
  std::string rest;
  for (size_t i = next_; i < words_.size(); ++i)
    rest += (rest.empty() || words_[i] == ":" ? "" : " ") + words_[i];
  return rest;
}

bool Words::Take(const char* word) {
  if (empty() || words_[next_] != word) return false;
  ++next_;
  return true;
}

std::string Words::Next(const char* expected) {
  if (empty()) {
    throw ScenarioError(place_ + ": the line ends; expected " + expected);
  }
  return words_[next_++];
}

void Words::Must(const char* word) {
  const std::string quoted = std::string("\"") + word + "\"";
  if (Next(quoted.c_str()) != word) Fail(quoted);
}

void Words::End() {
  if (empty()) return;
  ++next_;
  Fail("the end of the line");
}

void Words::Fail(const std::string& expected) const {
  throw ScenarioError(place_ + ": \"" + words_[next_ - 1] + "\": expected " + expected);
}

double Words::Number(const char* expected, double least, double most) {
  const auto parsed = NumberAndUnit(Next(expected));
  if (!parsed || !parsed->second.empty() || parsed->first < least || parsed->first > most) {
    Fail(expected);
  }
  return parsed->first;
}

uint32_t Words::Whole(const char* expected, double least, double most) {
  return WholeRange(expected, least, most).first;
}

double Words::Part(const char* expected) {
  const auto parsed = NumberAndUnit(Next(expected));
  if (!parsed || parsed->second != "%") Fail(expected);
  return parsed->first / 100;
}

int64_t Words::Time(const char* expected) {
  const auto time_us = TimeOf(Next(expected));
  if (!time_us) Fail(expected);
  return *time_us;
}

std::pair<int64_t, int64_t> Words::TimeRange(const char* expected) {
  const auto [low, high] = Sides(Next(expected));
  const auto low_us = TimeOf(low), high_us = TimeOf(high);
  if (!low_us || !high_us || *low_us > *high_us) Fail(expected);
  return {*low_us, *high_us};
}

std::pair<uint32_t, uint32_t> Words::WholeRange(const char* expected, double least, double most) {
  const auto [low, high] = Sides(Next(expected));
  const auto whole = [&](const std::string& text) {
    const auto parsed = NumberAndUnit(text);
    if (!parsed || !parsed->second.empty() || parsed->first < least || parsed->first > most ||
        parsed->first != std::floor(parsed->first)) {
      Fail(expected);
    }
    return static_cast<uint32_t>(parsed->first);
  };
  const uint32_t first = whole(low), last = whole(high);
  if (first > last) Fail(expected);
  return {first, last};
}

}  // namespace quenor::fleet
