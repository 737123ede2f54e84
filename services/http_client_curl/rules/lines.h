// Who waits for a connection. Over HTTP/1.1 each request needs one for itself, so the requests of
// one client to one server stand in a line: as many as there may be connections have a place, the
// others wait, the oldest first. libcurl gets only those with a place: it would look at each one
// that waits whenever it does anything.
// Knows no clock: times are arguments. Threads: one at a time; the engine's lock guards it.
// See docs/design/http-client.md.
#ifndef SERVICES_HTTP_CLIENT_CURL_RULES_LINES_H_
#define SERVICES_HTTP_CLIENT_CURL_RULES_LINES_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace http_lines {

constexpr int64_t kNever = INT64_MAX;

// One client's requests to one server.
struct Line {
  std::string server;   // The URL up to its path.
  uint32_t inside = 0;  // How many have a place.
};

// One client's. A line in which nobody is left goes, unless it is the client's only one.
using ClientLines = std::vector<std::unique_ptr<Line>>;

// What is to be known of a request.
struct Member {
  int64_t deadline_ms = 0;
  Line* line = nullptr;  // That it has a place in or waits for; null: none.
};

class Lines {
 public:
  // Has the request, which goes to `url`, stand in its line, and answers whether there was one of
  // `places` left for it. Else it is borrowed until Leave() or a Take...() answers it.
  bool Enter(const std::string& url, uint32_t places, ClientLines* client, Member* request);

  // Gives up the place of a request, if it has one, to the next of its line, which is answered;
  // null when there is none. `client` is that of Enter().
  Member* Leave(ClientLines* client, Member* request);

  // Appends those that wait to `taken`, if their deadline is not after `now_ms`. They stand in no
  // line any more.
  void TakeLate(int64_t now_ms, std::vector<Member*>* taken);
  // The same for those of which this is true.
  using IsDue = bool (*)(const Member&, int64_t now_ms);
  void Take(IsDue is_due, int64_t now_ms, std::vector<Member*>* taken);

  // None that waits has an earlier one; kNever when none waits.
  int64_t deadline_ms() const { return deadline_ms_; }

 private:
  std::vector<Member*> waiting_;  // In all lines; the oldest first.
  int64_t deadline_ms_ = kNever;
};

}  // namespace http_lines
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_RULES_LINES_H_
