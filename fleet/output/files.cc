#include "fleet/output/files.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>

namespace quenor::fleet {
namespace {

// As many as a picture has room for.
constexpr size_t kMostPoints = 200;

struct Column {
  const char* name;
  uint64_t Row::*value;
};
constexpr Column kColumns[] = {
    {"requests", &Row::requests},     {"accepted", &Row::accepted},
    {"refused", &Row::refused},       {"capacity", &Row::capacity},
    {"waiting", &Row::waiting},       {"lost", &Row::lost},
    {"trimmed", &Row::trimmed},       {"age_p50_ms", &Row::age_p50_ms},
    {"age_p99_ms", &Row::age_p99_ms}, {"interval_ms", &Row::interval_ms},
};

struct Curve {
  const char* title;
  uint64_t Row::*value;
  double divisor;
  const char* style;
};
struct Panel {
  const char* title;
  std::vector<Curve> curves;
};

constexpr char kGrey[] = "lw 1 lc rgb '#404040' dt 2", kBlue[] = "lw 1.5 lc rgb '#1f5fa8'",
               kRed[] = "lw 1.5 lc rgb '#c8321e'", kAmber[] = "lw 1.5 lc rgb '#d08a00'";

const std::vector<Panel>& Panels() {
  static const auto* const panels = new std::vector<Panel>{
      {"requests a second",
       {{"requests", &Row::requests, 1, kBlue},
        {"of these refused", &Row::refused, 1, kRed},
        {"capacity", &Row::capacity, 1, kGrey}}},
      {"reports not yet acknowledged", {{"waiting", &Row::waiting, 1, kBlue}}},
      {"reports lost, so far",
       {{"at the resend limit", &Row::lost, 1, kRed}, {"trimmed", &Row::trimmed, 1, kAmber}}},
      {"age at arrival, seconds",
       {{"p99", &Row::age_p99_ms, 1000, kRed}, {"p50", &Row::age_p50_ms, 1000, kBlue}}},
      {"interval in force, seconds",
       {{"before its jitter; 0: none", &Row::interval_ms, 1000, kBlue}}},
  };
  return *panels;
}

std::string TextOf(const Incident& incident) {
  std::ostringstream text;
  switch (incident.kind) {
    case Incident::Kind::kRefuse:
      return "nobody listens";
    case Incident::Kind::kBlackhole:
      return "a black hole";
    case Incident::Kind::kStatus:
      text << "status " << incident.value;
      break;
    case Incident::Kind::kCapacity:
      text << "capacity " << incident.value;
      break;
    case Incident::Kind::kLatency:
      text << "latency " << incident.value / kSecondUs << " s";
      break;
    case Incident::Kind::kReport:
      text << "reports every " << incident.value / kSecondUs << " s";
      break;
  }
  return text.str();
}

// A curve's points: of each few seconds the most, and of equal ones in a row the ends.
void AppendPoints(const std::vector<Row>& rows, const Curve& curve, std::ostringstream* out) {
  const size_t step = (rows.size() + kMostPoints - 1) / kMostPoints;
  std::vector<uint64_t> most;
  for (size_t begin = 0; begin < rows.size(); begin += step) {
    most.push_back(0);
    for (size_t i = begin; i < std::min(begin + step, rows.size()); ++i) {
      most.back() = std::max(most.back(), rows[i].*curve.value);
    }
  }
  for (size_t i = 0; i < most.size(); ++i) {
    const bool is_within = i > 0 && i + 1 < most.size();
    if (is_within && most[i - 1] == most[i] && most[i] == most[i + 1]) continue;
    *out << i * step << ' ' << static_cast<double>(most[i]) / curve.divisor << '\n';
  }
  *out << "e\n";
}

std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? "''" : std::string(1, c);
  return quoted + "'";
}

// A little above the panel's curves.
double AxisEnd(const std::vector<Row>& rows, const Panel& panel) {
  double most = 0;
  for (const Curve& curve : panel.curves) {
    for (const Row& row : rows) {
      most = std::max(most, static_cast<double>(row.*curve.value) / curve.divisor);
    }
  }
  return most > 0 ? 1.15 * most : 1;
}

// 1, 2 or 5 times a power of ten, so that an axis to `most` has at most `count` tics.
double TicStep(double most, double count) {
  const double least = most / count;
  const double power = std::pow(10, std::floor(std::log10(least)));
  for (const double factor : {1, 2, 5}) {
    if (factor * power >= least) return factor * power;
  }
  return 10 * power;
}

// Shaded in every panel, named in the first.
void AppendIncidents(const Scenario& scenario, const std::vector<Row>& rows,
                     std::ostringstream* out) {
  for (const Incident& incident : scenario.incidents) {
    const double from = static_cast<double>(incident.from_us) / kSecondUs;
    const double until = std::min(static_cast<double>(incident.until_us) / kSecondUs,
                                  static_cast<double>(rows.size()));
    *out << "set object rectangle from " << from << ", graph 0 to " << until
         << ", graph 1 behind fillcolor rgb '#f6e3d3' fillstyle solid noborder\n"
         << "set label " << Quoted(TextOf(incident)) << " at " << from
         << ", graph 0.93 offset 0.5,0 front\n";
  }
}

[[noreturn]] void Fail(const std::string& path) {
  throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
}

// Throws std::runtime_error.
void Draw(const std::string& script) {
  std::FILE* const gnuplot = ::popen("gnuplot", "w");
  const bool written = gnuplot != nullptr && std::fputs(script.c_str(), gnuplot) >= 0;
  if (gnuplot == nullptr || ::pclose(gnuplot) != 0 || !written) {
    throw std::runtime_error(
        "gnuplot has drawn no picture; is it installed (gnuplot-nox)? The CSV file is written");
  }
}

}  // namespace

std::string Csv(const std::vector<Row>& rows) {
  std::ostringstream out;
  out << "second";
  for (const Column& column : kColumns) out << ',' << column.name;
  out << '\n';
  uint64_t second = 0;
  for (const Row& row : rows) {
    out << ++second;
    for (const Column& column : kColumns) out << ',' << row.*column.value;
    out << '\n';
  }
  return out.str();
}

std::string PlotScript(const Scenario& scenario, const std::vector<Row>& rows,
                       const std::string& svg) {
  std::ostringstream out;
  out << "set terminal svg size 800,1000 font 'sans-serif,12' background 'white' noenhanced\n"
      << "set output " << Quoted(svg) << "\n"
      << "set multiplot layout 5,1 margins 0.09,0.97,0.06,0.91 spacing 0,0.055 title "
      << Quoted(scenario.title.empty() ? scenario.name : scenario.title) << "\n"
      << "set key at graph 1,1.02 right bottom horizontal samplen 2\n"
      << "set grid lt 1 lc rgb '#e0e0e0'\nset border 3\nset tics scale 0 nomirror\n"
      << "set xtics " << TicStep(static_cast<double>(rows.size()), 7)
      << "\nset format x ''\nset xrange [0:" << rows.size() << "]\n";
  AppendIncidents(scenario, rows, &out);
  for (const Panel& panel : Panels()) {
    const double most = AxisEnd(rows, panel);
    if (&panel == &Panels().back())
      out << "set format x '%g'\nset xlabel 'virtual time, seconds' offset 0,0.5\n";
    out << "set label 99 " << Quoted(panel.title) << " at graph 0,1.07\n"
        << "set yrange [0:" << most << "]\nset ytics " << TicStep(most, 4) << "\nplot ";
    const char* between = "";
    for (const Curve& curve : panel.curves) {
      out << between << "'-' with lines " << curve.style << " title " << Quoted(curve.title);
      between = ", ";
    }
    out << '\n';
    for (const Curve& curve : panel.curves) AppendPoints(rows, curve, &out);
    out << "unset label\n";
  }
  out << "unset multiplot\n";
  return out.str();
}

void WriteFiles(const std::string& folder, const Scenario& scenario, const std::vector<Row>& rows) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) throw std::runtime_error("cannot make " + folder + ": " + error.message());
  const std::string csv = folder + "/" + scenario.name + ".csv";
  std::ofstream file(csv, std::ios::binary);
  file << Csv(rows) << std::flush;
  if (!file) Fail(csv);
  Draw(PlotScript(scenario, rows, folder + "/" + scenario.name + ".svg"));
}

}  // namespace quenor::fleet
