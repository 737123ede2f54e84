#include "services/http_client_curl/rules/lines.h"

#include <algorithm>

QUENOR_NAMESPACE_BEGIN
namespace http_lines {
namespace {

// The line of the client for the server of `url`.
Line* FindLine(ClientLines* client, const std::string& url) {
  const size_t path = url.find('/', url.find("://") + 3);
  const size_t length = std::min(path, url.size());
  for (const std::unique_ptr<Line>& line : *client) {
    if (line->server.size() == length && url.compare(0, length, line->server) == 0) {
      return line.get();
    }
  }
  client->push_back(std::make_unique<Line>());
  client->back()->server = url.substr(0, length);
  return client->back().get();
}

bool IsLate(const Member& request, int64_t now_ms) { return request.deadline_ms <= now_ms; }

}  // namespace

bool Lines::Enter(const std::string& url, uint32_t places, ClientLines* client, Member* request) {
  request->line = FindLine(client, url);
  if (request->line->inside < places) {
    ++request->line->inside;
    return true;
  }
  waiting_.push_back(request);
  deadline_ms_ = std::min(deadline_ms_, request->deadline_ms);
  return false;
}

Member* Lines::Leave(ClientLines* client, Member* request) {
  Line* const line = request->line;
  if (line == nullptr) return nullptr;
  request->line = nullptr;
  const auto next = std::find_if(waiting_.begin(), waiting_.end(),
                                 [line](const Member* other) { return other->line == line; });
  if (next != waiting_.end()) {
    Member* const heir = *next;
    waiting_.erase(next);
    if (waiting_.empty()) deadline_ms_ = kNever;
    return heir;
  }
  if (--line->inside > 0 || client->size() == 1) return nullptr;
  client->erase(std::find_if(client->begin(), client->end(),
                             [line](const auto& other) { return other.get() == line; }));
  return nullptr;
}

void Lines::TakeLate(int64_t now_ms, std::vector<Member*>* taken) {
  if (now_ms >= deadline_ms_) Take(&IsLate, now_ms, taken);
}

void Lines::Take(IsDue is_due, int64_t now_ms, std::vector<Member*>* taken) {
  deadline_ms_ = kNever;
  size_t left = 0;
  for (Member* const request : waiting_) {
    if (is_due(*request, now_ms)) {
      request->line = nullptr;
      taken->push_back(request);
      continue;
    }
    waiting_[left++] = request;
    deadline_ms_ = std::min(deadline_ms_, request->deadline_ms);
  }
  waiting_.resize(left);
}

}  // namespace http_lines
QUENOR_NAMESPACE_END
