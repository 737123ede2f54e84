// Gatherer: asks every collector, every node and the store once a second, each on a thread of its
// own, so that one that does not answer holds up none of the others.
// Life: one per page. Its end waits for what is being asked, a few seconds at most.
#ifndef COLLECTOR_PAGE_LOOK_GATHERER_H_
#define COLLECTOR_PAGE_LOOK_GATHERER_H_

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "collector/clock.h"
#include "collector/page/look/gathered.h"
#include "collector/page/look/history.h"

namespace quenor::collector {

// Called on threads of the gatherer's; none of them throws.
struct Asking {
  std::function<CollectorLook(const std::string& url)> collector;
  std::function<NodeState(const std::string& url)> node;
  std::function<StoreLook()> store;
  std::function<Time()> now;
  std::function<int64_t()> unix_s;
};

class Gatherer {
 public:
  Gatherer(const std::vector<std::string>& collectors, const std::vector<std::string>& nodes,
           const std::string& store, Asking asking);
  ~Gatherer();
  Gatherer(const Gatherer&) = delete;
  Gatherer& operator=(const Gatherer&) = delete;

  // Any thread. In the order of the lists.
  Gathered Get() const;

 private:
  template <typename Look>
  void Follow(History<Look>* history, const std::function<Look()>& ask);

  const Asking asking_;
  mutable std::mutex mutex_;  // Guards the histories and the end.
  std::condition_variable end_cv_;
  bool ends_ = false;
  std::list<History<CollectorLook>> collectors_;
  std::list<History<NodeState>> nodes_;
  History<StoreLook> store_;
  std::vector<std::thread> threads_;  // Last: everything above is there when they begin.
};

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_LOOK_GATHERER_H_
