#include "collector/page/look/exposition.h"

#include <cmath>
#include <cstdlib>

namespace quenor::collector {
namespace {

// Up to here a double counts exactly. A collector says nothing greater, and nothing below 0.
constexpr double kGreatest = 9e15;

// Takes what comes before one of `ends` off *text.
std::string_view Until(std::string_view ends, std::string_view* text) {
  const std::string_view taken = text->substr(0, text->find_first_of(ends));
  text->remove_prefix(taken.size());
  return taken;
}

bool Take(char wanted, std::string_view* text) {
  if (text->empty() || text->front() != wanted) return false;
  text->remove_prefix(1);
  return true;
}

bool TakeQuoted(std::string_view* text, std::string* value) {
  if (!Take('"', text)) return false;
  while (!text->empty() && text->front() != '"') {
    if (Take('\\', text)) {
      if (text->empty()) return false;
      value->push_back(text->front() == 'n' ? '\n' : text->front());
    } else {
      value->push_back(text->front());
    }
    text->remove_prefix(1);
  }
  return Take('"', text);
}

bool TakeLabels(std::string_view* text, std::map<std::string, std::string>* labels) {
  while (!Take('}', text)) {
    const std::string name(Until("=}", text));
    if (!Take('=', text) || !TakeQuoted(text, &(*labels)[name])) return false;
    Take(',', text);
  }
  return true;
}

std::optional<double> Number(const std::string& text) {
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || std::isnan(number)) return std::nullopt;
  return number;
}

std::optional<Sample> ReadLine(std::string_view line) {
  Sample sample;
  sample.name = Until("{ ", &line);
  if (sample.name.empty() || sample.name.front() == '#') return std::nullopt;
  if (Take('{', &line) && !TakeLabels(&line, &sample.labels)) return std::nullopt;
  if (!Take(' ', &line)) return std::nullopt;
  const std::optional<double> value = Number(std::string(Until(" ", &line)));
  if (!value || *value < 0 || *value > kGreatest) return std::nullopt;
  sample.value = *value;
  return sample;
}

}  // namespace

Samples::Samples(std::string_view text) {
  while (!text.empty()) {
    const std::string_view line = Until("\n", &text);
    Take('\n', &text);
    if (std::optional<Sample> sample = ReadLine(line)) samples_.push_back(std::move(*sample));
  }
}

std::optional<double> Samples::Value(const std::string& name) const {
  for (const Sample& sample : samples_) {
    if (sample.name == name && sample.labels.empty()) return sample.value;
  }
  return std::nullopt;
}

std::map<std::string, double> Samples::By(const std::string& name, const std::string& label) const {
  std::map<std::string, double> found;
  for (const Sample& sample : samples_) {
    const auto has = sample.labels.find(label);
    if (sample.name == name && has != sample.labels.end()) found[has->second] += sample.value;
  }
  return found;
}

double Rise(double before, double now) { return now < before ? now : now - before; }

Buckets BucketsOf(const Samples& samples, const std::string& histogram) {
  Buckets buckets;
  for (const auto& [bound, count] : samples.By(histogram + "_bucket", "le")) {
    if (const std::optional<double> seconds = Number(bound)) buckets[*seconds] = count;
  }
  return buckets;
}

Buckets RiseOf(const Buckets& before, const Buckets& now) {
  const bool began_anew =
      before.empty() || now.empty() || now.rbegin()->second < before.rbegin()->second;
  if (began_anew) return now;
  Buckets rise;
  for (const auto& [bound, count] : now) {
    const auto then = before.find(bound);
    rise[bound] = count - (then == before.end() ? 0 : then->second);
  }
  return rise;
}

void AddTo(const Buckets& more, Buckets* sum) {
  for (const auto& [bound, count] : more) (*sum)[bound] += count;
}

std::optional<Quantile> QuantileOf(const Buckets& buckets, double part) {
  if (buckets.empty() || buckets.rbegin()->second <= 0) return std::nullopt;
  const double rank = part * buckets.rbegin()->second;
  double low = 0;
  double below = 0;
  for (const auto& [bound, count] : buckets) {
    if (count >= rank && count > below) {
      if (std::isinf(bound)) return Quantile{low, true};
      return Quantile{low + (bound - low) * (rank - below) / (count - below), false};
    }
    low = bound;
    below = count;
  }
  return std::nullopt;
}

}  // namespace quenor::collector
