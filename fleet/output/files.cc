#include "fleet/output/files.h"

#include <algorithm>
#include <cerrno>
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
constexpr size_t kMostPoints = 300;

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
};
struct Panel {
  const char* title;
  std::vector<Curve> curves;
};

const std::vector<Panel>& Panels() {
  static const auto* const panels = new std::vector<Panel>{
      {"requests a second",
       {{"capacity", &Row::capacity, 1},
        {"requests", &Row::requests, 1},
        {"refused", &Row::refused, 1}}},
      {"reports not yet acknowledged", {{"waiting", &Row::waiting, 1}}},
      {"reports lost", {{"lost", &Row::lost, 1}, {"trimmed", &Row::trimmed, 1}}},
      {"age at arrival, seconds",
       {{"p50", &Row::age_p50_ms, 1000}, {"p99", &Row::age_p99_ms, 1000}}},
      {"interval in force, seconds", {{"interval", &Row::interval_ms, 1000}}},
  };
  return *panels;
}

// A curve's points: of each few seconds the most.
void AppendPoints(const std::vector<Row>& rows, const Curve& curve, std::ostringstream* out) {
  const size_t step = (rows.size() + kMostPoints - 1) / kMostPoints;
  for (size_t begin = 0; begin < rows.size(); begin += step) {
    uint64_t most = 0;
    for (size_t i = begin; i < std::min(begin + step, rows.size()); ++i) {
      most = std::max(most, rows[i].*curve.value);
    }
    *out << begin << ' ' << static_cast<double>(most) / curve.divisor << '\n';
  }
  *out << "e\n";
}

[[noreturn]] void Fail(const std::string& path) {
  throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
}

std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? "''" : std::string(1, c);
  return quoted + "'";
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
  out << "set terminal svg size 900,1250 font 'sans-serif,12' background 'white'\n"
      << "set output " << Quoted(svg) << "\n"
      << "set multiplot layout 5,1 title "
      << Quoted(scenario.title.empty() ? scenario.name : scenario.title) << " noenhanced\n"
      << "set key left top\nset grid\nset lmargin 10\nset xrange [0:" << rows.size() << "]\n";
  for (const Panel& panel : Panels()) {
    out << "set ylabel " << Quoted(panel.title) << "\nset yrange [0:*]\nplot ";
    const char* between = "";
    for (const Curve& curve : panel.curves) {
      out << between << "'-' with steps lw 1.5 title " << Quoted(curve.title);
      between = ", ";
    }
    out << '\n';
    for (const Curve& curve : panel.curves) AppendPoints(rows, curve, &out);
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
