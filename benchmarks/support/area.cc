#include "benchmarks/support/area.h"

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace quenor::bench {
namespace {

constexpr int kRounds = 11;
constexpr int kQuickRounds = 3;

struct Spread {
  double median = 0, min = 0, max = 0;
};

Spread SpreadOf(const std::vector<double>& values) {
  const auto range = std::minmax_element(values.begin(), values.end());
  return {Median(values), *range.first, *range.second};
}

struct Measured {
  std::string name;
  std::vector<double> rounds;
};

struct Judged {
  Target target;
  Spread ratio;
  bool met = false;
};

struct MeasuredRow {
  Row row;
  std::vector<Measured> contenders;
  std::vector<Judged> targets;
};

// The figure of `names` that is the hardest to beat in this round.
double Best(const MeasuredRow& measured, const std::vector<std::string>& names, size_t round) {
  double best = -1;
  for (const Measured& contender : measured.contenders) {
    if (std::find(names.begin(), names.end(), contender.name) == names.end()) continue;
    const double figure = contender.rounds[round];
    const bool better = measured.row.more_is_better ? figure > best : figure < best;
    if (best < 0 || better) best = figure;
  }
  if (best < 0) {
    std::fprintf(stderr, "bench: row \"%s\" has a target against nobody\n",
                 measured.row.name.c_str());
    std::exit(1);
  }
  return best;
}

Judged Judge(const MeasuredRow& measured, const Target& target) {
  std::vector<double> ratios;
  for (size_t i = 0; i < measured.contenders[0].rounds.size(); ++i) {
    ratios.push_back(measured.contenders[0].rounds[i] / Best(measured, target.against, i));
  }
  Judged judged{target, SpreadOf(ratios)};
  judged.met = target.kind == Target::Kind::kAtMost ? judged.ratio.median <= target.limit
                                                    : judged.ratio.median >= target.limit;
  return judged;
}

std::string Joined(const std::vector<std::string>& names) {
  std::string joined;
  for (const std::string& name : names) joined += (joined.empty() ? "" : ", ") + name;
  return names.size() > 1 ? "the best of " + joined : joined;
}

void Print(const MeasuredRow& measured) {
  std::printf("\n%s (%s)\n", measured.row.name.c_str(), measured.row.unit.c_str());
  for (const Measured& contender : measured.contenders) {
    const Spread spread = SpreadOf(contender.rounds);
    std::printf("  %-44s %12.5g  (%.5g to %.5g)\n", contender.name.c_str(), spread.median,
                spread.min, spread.max);
  }
  for (const Judged& judged : measured.targets) {
    std::printf("  ratio %.2f (%.2f to %.2f) to %s; target: at %s %.2f: %s\n", judged.ratio.median,
                judged.ratio.min, judged.ratio.max, Joined(judged.target.against).c_str(),
                judged.target.kind == Target::Kind::kAtMost ? "most" : "least", judged.target.limit,
                judged.met ? "met" : "MISSED");
  }
  std::fflush(stdout);
}

using Writer = rapidjson::PrettyWriter<rapidjson::StringBuffer>;

void Put(Writer* writer, const char* key, const std::string& text) {
  writer->Key(key);
  writer->String(text.c_str());
}
void Put(Writer* writer, const char* key, double value) {
  writer->Key(key);
  writer->Double(value);
}
void Put(Writer* writer, const char* key, bool value) {
  writer->Key(key);
  writer->Bool(value);
}
void Put(Writer* writer, const Spread& spread) {
  Put(writer, "median", spread.median);
  Put(writer, "min", spread.min);
  Put(writer, "max", spread.max);
}

void Put(Writer* writer, const Measured& contender) {
  writer->StartObject();
  Put(writer, "name", contender.name);
  Put(writer, SpreadOf(contender.rounds));
  writer->Key("rounds");
  writer->StartArray();
  for (const double figure : contender.rounds) writer->Double(figure);
  writer->EndArray();
  writer->EndObject();
}

void Put(Writer* writer, const Judged& judged) {
  writer->StartObject();
  writer->Key("against");
  writer->StartArray();
  for (const std::string& name : judged.target.against) writer->String(name.c_str());
  writer->EndArray();
  Put(writer, judged.target.kind == Target::Kind::kAtMost ? "at_most" : "at_least",
      judged.target.limit);
  Put(writer, judged.ratio);
  Put(writer, "met", judged.met);
  writer->EndObject();
}

void Put(Writer* writer, const MeasuredRow& measured) {
  writer->StartObject();
  Put(writer, "name", measured.row.name);
  Put(writer, "unit", measured.row.unit);
  Put(writer, "more_is_better", measured.row.more_is_better);
  Put(writer, "note", measured.row.note);
  writer->Key("contenders");
  writer->StartArray();
  for (const Measured& contender : measured.contenders) Put(writer, contender);
  writer->EndArray();
  writer->Key("targets");
  writer->StartArray();
  for (const Judged& judged : measured.targets) Put(writer, judged);
  writer->EndArray();
  writer->EndObject();
}

void Put(Writer* writer, const Fact& fact) {
  writer->StartObject();
  Put(writer, "name", fact.name);
  Put(writer, "unit", fact.unit);
  Put(writer, "value", fact.value);
  if (fact.limit >= 0) {
    Put(writer, "at_most", fact.limit);
    Put(writer, "met", fact.value <= fact.limit);
  }
  Put(writer, "note", fact.note);
  writer->EndObject();
}

void Put(Writer* writer, const Plot& plot) {
  writer->StartObject();
  Put(writer, "name", plot.name);
  Put(writer, "title", plot.title);
  Put(writer, "x", plot.x_label);
  Put(writer, "y", plot.y_label);
  Put(writer, "note", plot.note);
  writer->Key("lines");
  writer->StartArray();
  for (const Plot::Line& line : plot.lines) {
    writer->StartObject();
    Put(writer, "name", line.name);
    writer->Key("points");
    writer->StartArray();
    for (const auto& [x, y] : line.points) {
      writer->StartArray();
      writer->Double(x);
      writer->Double(y);
      writer->EndArray();
    }
    writer->EndArray();
    writer->EndObject();
  }
  writer->EndArray();
  writer->EndObject();
}

template <typename T>
void PutAll(Writer* writer, const char* key, const std::vector<T>& all) {
  writer->Key(key);
  writer->StartArray();
  for (const T& one : all) Put(writer, one);
  writer->EndArray();
}

}  // namespace

struct Area::Results {
  std::string name;
  std::string title;
  std::vector<MeasuredRow> rows;
  std::vector<Fact> facts;
  std::vector<Plot> plots;
  std::vector<std::string> texts;
};

Area::Area(int argc, char** argv, std::string name, std::string title) : results_(new Results) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) {
      quick_ = true;
    } else if (std::strcmp(argv[i], "--json") == 0 && i + 1 < argc) {
      json_path_ = argv[++i];
    } else if (std::strcmp(argv[i], "--row") == 0 && i + 1 < argc) {
      only_ = argv[++i];
    } else {
      std::fprintf(stderr, "usage: %s [--quick] [--json FILE] [--row TEXT]\n", argv[0]);
      std::exit(64);
    }
  }
  std::printf("== %s\n", title.c_str());
  results_->name = std::move(name);
  results_->title = std::move(title);
}

Area::~Area() { delete results_; }

bool Area::Wants(const std::string& row_name) const {
  return row_name.find(only_) != std::string::npos;
}

bool Area::Measure(const Row& row) {
  if (!Wants(row.name)) return false;
  MeasuredRow measured{row, {}, {}};
  for (const Contender& contender : row.contenders)
    measured.contenders.push_back({contender.name, {}});
  const size_t count = row.contenders.size();
  const int rounds = Scale(kRounds, kQuickRounds);
  for (int round = -1; round < rounds; ++round) {
    for (size_t turn = 0; turn < count; ++turn) {
      const size_t i = (turn + static_cast<size_t>(round + 1)) % count;
      const double figure = row.contenders[i].round();
      if (figure < 0) {
        std::fprintf(stderr, "bench: %s: a round of \"%s\" failed\n", row.name.c_str(),
                     row.contenders[i].name.c_str());
        std::exit(1);
      }
      if (round >= 0) measured.contenders[i].rounds.push_back(figure);
    }
  }
  for (const Target& target : row.targets) measured.targets.push_back(Judge(measured, target));
  Print(measured);
  results_->rows.push_back(std::move(measured));
  return true;
}

void Area::Tell(const Fact& fact) {
  std::printf("\n%s: %.6g %s", fact.name.c_str(), fact.value, fact.unit.c_str());
  if (fact.limit >= 0) {
    std::printf("; target: at most %.6g: %s", fact.limit,
                fact.value <= fact.limit ? "met" : "MISSED");
  }
  std::printf("\n");
  std::fflush(stdout);
  results_->facts.push_back(fact);
}

void Area::Draw(const Plot& plot) {
  std::printf("\n%s\n", plot.title.c_str());
  for (const Plot::Line& line : plot.lines) {
    std::printf("  %s:", line.name.c_str());
    for (const auto& [x, y] : line.points) std::printf(" %.6g:%.4g", x, y);
    std::printf("\n");
  }
  std::fflush(stdout);
  results_->plots.push_back(plot);
}

void Area::Say(const std::string& text) {
  std::printf("\n%s\n", text.c_str());
  results_->texts.push_back(text);
}

int Area::Finish() {
  if (json_path_.empty()) return 0;
  rapidjson::StringBuffer buffer;
  Writer writer(buffer);
  writer.StartObject();
  Put(&writer, "area", results_->name);
  Put(&writer, "title", results_->title);
  Put(&writer, "quick", quick_);
  PutAll(&writer, "rows", results_->rows);
  PutAll(&writer, "facts", results_->facts);
  PutAll(&writer, "plots", results_->plots);
  writer.Key("texts");
  writer.StartArray();
  for (const std::string& text : results_->texts) writer.String(text.c_str());
  writer.EndArray();
  writer.EndObject();
  std::FILE* file = std::fopen(json_path_.c_str(), "w");
  const bool written =
      file != nullptr && std::fwrite(buffer.GetString(), buffer.GetSize(), 1, file) == 1;
  if (file == nullptr || std::fclose(file) != 0 || !written) {
    std::perror(json_path_.c_str());
    return 1;
  }
  return 0;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t half = values.size() / 2;
  return values.size() % 2 == 1 ? values[half] : (values[half - 1] + values[half]) / 2;
}

double NowNs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

}  // namespace quenor::bench
