// Asks collectors and the store over the network, for the gatherer.
#ifndef COLLECTOR_PAGE_LOOK_ASK_H_
#define COLLECTOR_PAGE_LOOK_ASK_H_

#include <optional>
#include <string>

#include "collector/page/look/gathered.h"
#include "collector/page/options.h"
#include "collector/store/session.h"

namespace quenor::collector {

// Any thread. Does not throw for what the collector does: that is its problem.
CollectorLook AskCollector(const std::string& url);

// Asks the store over one connection, which it makes when it has none. One thread.
class StoreAsker {
 public:
  explicit StoreAsker(const PageOptions& options) : options_(options) {}

  StoreLook Ask();

 private:
  void Connect();
  void AskStream(StoreLook* look) const;
  void AskReader(StoreLook* look) const;

  const PageOptions options_;
  std::optional<Session> session_;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_LOOK_ASK_H_
