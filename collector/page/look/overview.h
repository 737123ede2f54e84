// Overview: what was gathered, made into what an operator wants to know: the page's figures, and
// which of them are bad. No clock, thread or network.
#ifndef COLLECTOR_PAGE_LOOK_OVERVIEW_H_
#define COLLECTOR_PAGE_LOOK_OVERVIEW_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "collector/page/look/gathered.h"

namespace quenor::collector {

// What a collector has answered between the two looks, or all of them together.
struct Traffic {
  double per_second = 0;
  std::optional<Quantile> p50;
  std::optional<Quantile> p99;
  uint64_t in_flight = 0;
  uint64_t in_flight_bytes = 0;
};

struct Answers {
  double per_second = 0;
  uint64_t total = 0;  // Since each collector began.
};

struct CollectorRow {
  std::string url;
  std::string problem;  // Empty: it answers; otherwise nothing below counts.
  std::string state;
  Traffic traffic;
  uint64_t connections = 0;
  uint64_t control_revision = 0;
  bool is_ready = false;
  bool has_other_control = false;  // Than the store has, for seconds.
};

struct NodeRow {
  NodeState node;
  std::string problem;  // Empty: it is a copy as the others are.
  bool answers = false;
  uint64_t lag = 0;  // Messages that another has and it has not, at the latest look.
};

struct Overview {
  // One line each, the page's first; empty: all is well.
  std::vector<std::string> problems;
  Traffic traffic;
  std::map<int, Answers> answers;  // By status.
  std::vector<CollectorRow> collectors;
  std::vector<NodeRow> nodes;
  StoreLook store;
  double fill = 0;  // Of the stream, from 0 to 1.
  bool is_nearly_full = false;
  uint64_t reader_lag = 0;  // Messages that are not safe with the reader yet.
};

// `now`: when it is shown. Who has not been heard of for seconds then has a problem.
Overview MakeOverview(Gathered gathered, Time now);

// "2024-05-01 12:34:56 UTC" of seconds since 1970.
std::string ClockText(int64_t unix_s);

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_LOOK_OVERVIEW_H_
