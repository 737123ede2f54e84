#include "collector/page/page.h"

#include <nats/nats.h>
#include <poll.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <utility>
#include <vector>

#include "collector/control_room/room.h"
#include "collector/fatal.h"
#include "collector/files.h"
#include "collector/page/guard.h"
#include "collector/page/html/pages.h"
#include "collector/page/html/tables.h"
#include "collector/page/look/ask.h"
#include "collector/page/look/gatherer.h"
#include "collector/page/look/overview.h"
#include "collector/page/server.h"
#include "collector/store/session.h"

namespace quenor::collector {
namespace {

int64_t UnixSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

Asking AskingOver(const PageOptions& options, StoreAsker* store) {
  const std::string& stream = options.store.stream;
  return {&AskCollector, [stream](const std::string& url) { return AskNode(url, stream); },
          [store] { return store->Ask(); }, &Now, &UnixSeconds};
}

std::vector<std::string> NamesOf(const PageOptions& options) {
  std::vector<std::string> names = options.names;
  names.push_back(options.host);
  return names;
}

void CheckNames(const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (name.find_first_of(":/@ ") == std::string::npos) continue;
    throw Fatal(kExitUsage, "no name of a host: \"" + name +
                                "\"; give --name without scheme and port, as in page.example; "
                                "addresses are served without it");
  }
}

// Each form has a connection of its own, as `quenor-collector control` has.
ControlAccess AccessTo(const StoreOptions& store) {
  return {[store] {
            const Session session = OpenSession(store);
            return ControlRoom(store, session).Read();
          },
          [store](const ControlSettings& settings, uint64_t revision) {
            const Session session = OpenSession(store);
            return ControlRoom(store, session).Write(settings, revision);
          }};
}

class Page {
 public:
  explicit Page(const PageOptions& options)
      : options_(options),
        store_(options),
        gatherer_(options.collectors, options.monitors, NodesText(options.store),
                  AskingOver(options, &store_)),
        access_(AccessTo(options.store)),
        guard_(NamesOf(options)),
        server_(options.host, options.port, guard_,
                {[this] { return Whole(); }, [this] { return Event(); },
                 [this](const Form& form) { return Answer(form); }}) {}

  const PageServer& server() const { return server_; }

 private:
  PageAnswer Answer(const Form& form) const {
    PageAnswer answer = AnswerForm(form, access_, guard_.token());
    nats_ReleaseThreadMemory();  // The thread ends with its connection.
    return answer;
  }

  Overview Look() const { return MakeOverview(gatherer_.Get(), Now()); }

  std::string Whole() const {
    const Overview overview = Look();
    const StoreLook& store = overview.store;
    const ControlFound& control = store.control;
    return MainPage(options_.store.stream, ClockText(UnixSeconds()), TablesOf(overview),
                    {control.revision, FieldsOf(control.settings), guard_.token(),
                     store.problem.empty() ? store.control_problem : "the store " + store.problem});
  }

  std::string Event() const { return ClockText(UnixSeconds()) + "\n" + TablesOf(Look()); }

  const PageOptions options_;
  StoreAsker store_;  // The gatherer's thread's.
  Gatherer gatherer_;
  const ControlAccess access_;
  const Guard guard_;
  PageServer server_;  // Last: it serves as soon as it is there.
};

}  // namespace

void RunPage(const PageOptions& options, int stop_fd,
             const std::function<void(const std::string& line)>& announce) {
  CheckNames(options.names);
  std::signal(SIGPIPE, SIG_IGN);
  const Page page(options);
  if (!options.port_file.empty()) {
    const int error =
        WriteFileWhole(options.port_file, std::to_string(page.server().port()) + "\n");
    if (error != 0) {
      throw Fatal(kExitCannotCreate, "cannot write port file " + options.port_file + ": " +
                                         ErrnoText(error) +
                                         "; give --port-file a path in a writable folder");
    }
  }
  announce("listening url=" + page.server().url());
  pollfd waiting{stop_fd, POLLIN, 0};
  while (::poll(&waiting, 1, -1) < 0 && errno == EINTR) {
  }
}

}  // namespace quenor::collector
