// History: the looks at one that is asked again and again, as far back as they are of use.
// No clock of its own. Threads: one at a time.
#ifndef COLLECTOR_PAGE_LOOK_HISTORY_H_
#define COLLECTOR_PAGE_LOOK_HISTORY_H_

#include <chrono>
#include <deque>
#include <string>
#include <utility>

#include "collector/page/look/gathered.h"

namespace quenor::collector {

// What rates and quantiles are taken over: long enough to be calm, short enough to be now.
constexpr std::chrono::seconds kWindow{10};

template <typename Look>
class History {
 public:
  explicit History(std::string url) : url_(std::move(url)) {}

  void Add(Look look, Time at, int64_t unix_s) {
    const bool has_turned =
        looks_.empty() || WhatIsWrong(looks_.back().look.problem) != WhatIsWrong(look.problem);
    if (has_turned) {
      // What it said before it went silent is no measure for what it says now.
      looks_.clear();
      since_unix_s_ = unix_s;
    }
    looks_.push_back({std::move(look), at});
    unix_s_ = unix_s;
    while (looks_.size() > 1 && looks_[1].at <= at - kWindow) looks_.pop_front();
  }

  Looks<Look> Get() const {
    Looks<Look> looks;
    looks.url = url_;
    if (looks_.empty()) return looks;
    looks.before = looks_.front().look;
    looks.before_at = looks_.front().at;
    looks.now = looks_.back().look;
    looks.now_at = looks_.back().at;
    looks.since_unix_s = since_unix_s_;
    looks.now_unix_s = unix_s_;
    return looks;
  }

 private:
  struct Kept {
    Look look;
    Time at;
  };

  // Without the particulars in brackets, which may be others each time.
  static std::string WhatIsWrong(const std::string& problem) {
    return problem.substr(0, problem.find(" ("));
  }

  const std::string url_;
  std::deque<Kept> looks_;
  int64_t since_unix_s_ = 0;
  int64_t unix_s_ = 0;  // Of the latest look.
};

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_LOOK_HISTORY_H_
