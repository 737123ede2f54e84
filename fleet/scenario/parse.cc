#include "fleet/scenario/parse.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <tuple>

#include "fleet/model/body.h"
#include "fleet/scenario/measures.h"

namespace quenor::fleet {
namespace {

constexpr char kTime[] = "a time, as 100ms, 60s, 10min or 1h";
constexpr char kTimes[] = "a time or a range of times, as 30s or 30s..50s";
constexpr double kMost32 = 4294967295.0;

void ParseChannels(Words* words, Scenario* scenario) {
  Cohort cohort;
  cohort.channels = words->Whole("a number of channels, at most 10000000", 1, 10000000);
  while (!words->empty()) {
    if (words->Take("at")) {
      cohort.at_us = words->Time(kTime);
    } else if (words->Take("over")) {
      cohort.over_us = words->Time(kTime);
    } else {
      words->Next("");
      words->Fail("\"at TIME\" or \"over TIME\"");
    }
  }
  scenario->cohorts.push_back(cohort);
}

int64_t ParsePeriod(Words* words) {
  words->Must("every");
  const int64_t every_us = words->Time(kTime);
  if (every_us < 1000) words->Fail("at least 1ms");
  return every_us;
}

void ParseReport(Words* words, Scenario* scenario) {
  scenario->owner.report_every_us = ParsePeriod(words);
  if (!words->Take("phase")) return;
  const std::string phase = words->Next("\"spread\" or \"same\"");
  if (phase != "spread" && phase != "same") words->Fail("\"spread\" or \"same\"");
  scenario->owner.same_phase = phase == "same";
}

void ParseSize(Words* words, Scenario* scenario) {
  std::tie(scenario->owner.least_bytes, scenario->owner.most_bytes) =
      words->WholeRange("bytes from 16 to 1000000, as 500 or 200..2000", kLeastBodyBytes, 1000000);
}

void ParseOwner(Words* words, Scenario* scenario) {
  constexpr char kOwner[] =
      "\"limit N\", \"limit none\", \"interval TIME\", \"interval TIME..TIME\" or \"obeys\"";
  do {
    if (words->Take("limit")) {
      scenario->owner.resend_limit = words->Take("none")
                                         ? static_cast<uint32_t>(kMost32)
                                         : words->Whole("a number of sends, or none", 0, kMost32);
    } else if (words->Take("interval")) {
      const auto [low_us, high_us] = words->TimeRange(kTimes);
      if (high_us / 1000 > static_cast<int64_t>(kMost32)) words->Fail("at most 4294967s");
      scenario->owner.interval_ms.emplace(low_us / 1000, high_us / 1000);
    } else if (words->Take("obeys")) {
      scenario->owner.obeys = true;
    } else {
      words->Next(kOwner);
      words->Fail(kOwner);
    }
  } while (!words->empty());
}

void ParseRestart(Words* words, Scenario* scenario) {
  scenario->owner.restarts_per_hour = words->Part("a part of the channels, as 1%");
  words->Must("per");
  words->Must("hour");
  if (!words->Take("with")) return;
  words->Must("cache");
  scenario->owner.with_cache = true;
}

void ParseServer(Words* words, Scenario* scenario) {
  ServerSettings* const server = &scenario->server;
  constexpr char kReports[] = "the work of how many reports, as 0.3";
  constexpr char kServer[] =
      "\"capacity N\", \"queue TIME\", \"refusal N\", \"latency TIME\", \"sigma N\", \"connect N\" "
      "or "
      "\"tls N\"";
  do {
    if (words->Take("capacity")) {
      server->capacity = words->Number("reports a second, above 0", 0.001, 1e9);
    } else if (words->Take("queue")) {
      server->queue_us = words->Time(kTime);
    } else if (words->Take("refusal")) {
      server->refusal_cost = words->Number(kReports, 0, 1000);
    } else if (words->Take("latency")) {
      server->latency_us = words->Time(kTime);
    } else if (words->Take("sigma")) {
      server->sigma = words->Number("a number from 0 to 3", 0, 3);
    } else if (words->Take("connect")) {
      server->connect_cost = words->Number(kReports, 0, 1000);
    } else if (words->Take("tls")) {
      server->tls_cost = words->Number(kReports, 0, 1000);
    } else {
      words->Next(kServer);
      words->Fail(kServer);
    }
  } while (!words->empty());
}

void ParseClient(Words* words, Scenario* scenario) {
  constexpr char kClient[] = "\"timeout TIME\" or \"connect TIME\"";
  do {
    if (words->Take("timeout")) {
      scenario->client.timeout_us = words->Time(kTime);
    } else if (words->Take("connect")) {
      scenario->client.connect_timeout_us = words->Time(kTime);
    } else {
      words->Next(kClient);
      words->Fail(kClient);
    }
  } while (!words->empty());
}

void ParsePolicy(Words* words, Scenario* scenario) {
  control::Settings* const policy = &scenario->policy;
  constexpr char kPolicies[] = "none, fixed, brake, pace or steer";
  const auto kind = control::KindOf(words->Next(kPolicies));
  if (!kind) words->Fail(kPolicies);
  *policy = control::Settings();
  policy->kind = *kind;
  const auto in = [](int64_t us, int64_t unit_us) {
    return static_cast<uint32_t>(std::min<int64_t>(us / unit_us, UINT32_MAX));
  };
  while (!words->empty()) {
    if (words->Take("target")) {
      policy->target = words->Number("a number above 0, at most 1", 0.001, 1);
    } else if (words->Take("duration")) {
      const auto [low_us, high_us] = words->TimeRange(kTimes);
      policy->low_duration_s = in(low_us, kSecondUs);
      policy->high_duration_s = in(high_us, kSecondUs);
    } else {
      const auto [low_us, high_us] =
          words->TimeRange("a range of times, \"target N\" or \"duration TIME..TIME\"");
      policy->low_ms = in(low_us, 1000);
      policy->high_ms = in(high_us, 1000);
    }
  }
  const std::string problem = control::ProblemOf(*policy);
  if (!problem.empty()) throw ScenarioError(words->place() + ": " + problem);
}

void ParseIncident(Words* words, Scenario* scenario) {
  using Kind = Incident::Kind;
  constexpr char kWhat[] =
      "refuse, blackhole, \"status N\", \"capacity N\", \"latency TIME\" or \"report every TIME\"";
  Incident incident{Kind::kRefuse};
  incident.from_us = words->Time(kTime);
  if (words->Take("for")) incident.until_us = incident.from_us + words->Time(kTime);
  words->Must(":");
  const std::string what = words->Next(kWhat);
  if (what == "refuse") {
    incident.kind = Kind::kRefuse;
  } else if (what == "blackhole") {
    incident.kind = Kind::kBlackhole;
  } else if (what == "status") {
    incident.kind = Kind::kStatus;
    incident.value = words->Whole("a status from 100 to 599, but 200", 100, 599);
    if (incident.value == 200) words->Fail("a status that is no success");
  } else if (what == "capacity") {
    incident.kind = Kind::kCapacity;
    incident.value = words->Number("a part of the capacity, as 0.5", 0.001, 1000);
  } else if (what == "latency") {
    incident.kind = Kind::kLatency;
    incident.value = static_cast<double>(words->Time(kTime));
  } else if (what == "report") {
    incident.kind = Kind::kReport;
    incident.value = static_cast<double>(ParsePeriod(words));
  } else {
    words->Fail(kWhat);
  }
  scenario->incidents.push_back(incident);
}

using Parser = void (*)(Words*, Scenario*);
struct Statement {
  const char* word;
  Parser parse;
};
constexpr Statement kStatements[] = {
    {"title",
     [](Words* words, Scenario* s) {
       s->title = words->Rest();
       *words = Words("", "");
     }},
    {"length", [](Words* words, Scenario* s) { s->length_us = words->Time(kTime); }},
    {"scale",
     [](Words* words, Scenario* s) { s->scale = words->Number("a number, as 0.01", 1e-6, 1000); }},
    {"channels", ParseChannels},
    {"report", ParseReport},
    {"size", ParseSize},
    {"owner", ParseOwner},
    {"restart", ParseRestart},
    {"server", ParseServer},
    {"client", ParseClient},
    {"policy", ParsePolicy},
    {"from", ParseIncident},
    {"expect",
     [](Words* words, Scenario* s) { s->expectations.push_back(ParseExpectation(words)); }},
};

void ParseLine(const std::string& place, const std::string& line, Scenario* scenario) {
  Words words(place, line);
  if (words.empty()) return;
  const std::string first = words.Next("");
  for (const Statement& statement : kStatements) {
    if (first != statement.word) continue;
    statement.parse(&words, scenario);
    return words.End();
  }
  std::string all;
  for (const Statement& statement : kStatements) {
    all += (all.empty() ? "" : ", ") + std::string(statement.word);
  }
  words.Fail("one of " + all);
}

void Scale(Scenario* scenario) {
  for (Cohort& cohort : scenario->cohorts) {
    cohort.channels =
        std::max(1u, static_cast<uint32_t>(std::lround(cohort.channels * scenario->scale)));
  }
  scenario->server.capacity *= scenario->scale;
}

}  // namespace

Scenario ParseScenario(const std::string& name, const std::string& text,
                       const std::vector<std::string>& settings) {
  Scenario scenario;
  scenario.policy.kind = control::Kind::kNone;
  scenario.name = name;
  std::istringstream lines(text);
  int number = 0;
  for (std::string line; std::getline(lines, line);) {
    ParseLine(name + ":" + std::to_string(++number), line, &scenario);
  }
  bool keeps_channels = true;
  for (const std::string& setting : settings) {
    const size_t equals = setting.find('=');
    const std::string place = "--set " + setting;
    if (equals == std::string::npos) throw ScenarioError(place + ": expected KEY=VALUE");
    const std::string line = setting.substr(0, equals) + " " + setting.substr(equals + 1);
    if (keeps_channels && setting.compare(0, equals, "channels") == 0) {
      keeps_channels = false;
      scenario.cohorts.clear();
    }
    ParseLine(place, line, &scenario);
  }
  if (scenario.cohorts.empty()) {
    throw ScenarioError(name + ": no channels; expected a line as \"channels 1000\"");
  }
  Scale(&scenario);
  return scenario;
}

Scenario ReadScenario(const std::string& path, const std::vector<std::string>& settings) {
  std::ifstream file(path);
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  if (!file.is_open() || file.bad()) {
    throw ScenarioError("cannot read " + path + ": " + std::strerror(errno));
  }
  Scenario scenario = ParseScenario(path, text, settings);
  scenario.name = path.substr(path.rfind('/') + 1);
  scenario.name = scenario.name.substr(0, scenario.name.rfind('.'));
  return scenario;
}

}  // namespace quenor::fleet
