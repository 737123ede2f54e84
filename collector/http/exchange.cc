// What the server does inside httplib's process_request: looks at a request, takes its body, puts
// it on record and answers. Workers only.
#include "collector/http/exchange.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <utility>

#include "collector/clock.h"
#include "collector/files.h"
#include "collector/http/answer.h"
#include "collector/reports/metrics.h"

namespace quenor::collector {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char kJson[] = "application/json";

std::string LowerCase(std::string text) {
  for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return text;
}

// Calls `use` with each comma-separated token of all headers `name`, trimmed, in lower case.
template <typename Use>
void ForEachToken(const httplib::Headers& headers, const std::string& name, Use use) {
  const auto range = headers.equal_range(name);
  for (auto header = range.first; header != range.second; ++header) {
    const std::string value = LowerCase(header->second) + ",";
    size_t begin = 0;
    for (size_t comma = value.find(','); comma != std::string::npos;
         begin = comma + 1, comma = value.find(',', begin)) {
      const size_t first = value.find_first_not_of(" \t", begin);
      if (first >= comma) continue;
      const size_t last = value.find_last_not_of(" \t", comma - 1);
      use(value.substr(first, last - first + 1));
    }
  }
}

}  // namespace

// Looks at the head of the request before httplib acts on it. Sets what must not surprise us:
// how long the body is, whether the connection outlives it, and which headers httplib would take
// as an order to change the body or the reply.
void CollectorServer::Inspect(Exchange* exchange, httplib::Request* request) const {
  exchange->inspected = true;
  bool keep_alive = request->version != "HTTP/1.0";
  ForEachToken(request->headers, "Connection", [&](const std::string& token) {
    if (token == "close") exchange->close = true;
    if (token == "keep-alive") keep_alive = true;
  });
  exchange->close = exchange->close || !keep_alive;

  if (request->method == "POST") {
    exchange->seq = recorder_.NextSeq();
    exchange->plan = options_.misbehaviour.PlanFor(exchange->seq - recorder_.first_seq() + 1);
  }

  const size_t lengths = request->headers.count("Content-Length");
  const size_t codings = request->headers.count("Transfer-Encoding");
  if (request->method != "POST" && request->method != "GET" && request->method != "HEAD") {
    exchange->refusal = 405;
  } else if (lengths + codings > 1 || (codings == 1 && request->version == "HTTP/1.0")) {
    exchange->refusal = 400;
  } else if (codings == 1) {
    exchange->framing.chunked = true;
    if (LowerCase(request->get_header_value("Transfer-Encoding")) != "chunked") {
      exchange->refusal = 501;
    }
  } else if (lengths == 1 && !ParseDigits(request->get_header_value("Content-Length"), 10,
                                          &exchange->framing.length_bytes)) {
    exchange->refusal = 400;
  }
  const bool has_body = exchange->framing.chunked || exchange->framing.length_bytes > 0;
  if (exchange->refusal == 0 && request->method != "POST" && has_body) exchange->refusal = 400;
  // Who waits for a "100 Continue" is told before sending; from others the body is read away.
  if (exchange->refusal == 0 && exchange->framing.length_bytes > options_.max_body_bytes &&
      request->has_header("Expect")) {
    exchange->refusal = 413;
  }

  exchange->unread = exchange->refusal != 0;
  exchange->close = exchange->close || exchange->unread;
  if (exchange->close) {
    request->headers.erase("Connection");
    request->headers.emplace("Connection", "close");
  }
  request->headers.erase("Accept-Encoding");
  request->ranges.clear();
}

void CollectorServer::Handle(const httplib::Request& request, httplib::Response* response) {
  Exchange* const exchange = current_exchange_;
  if (exchange->refusal != 0) recorder_.CountRefused("head", exchange->refusal);
  try {
    if (exchange->refusal != 0 && request.method == "POST") {
      RefusePost(request, exchange->framing.length_bytes, exchange->refusal, response);
    } else if (exchange->refusal != 0) {
      response->status = exchange->refusal;
      if (exchange->refusal == 405) response->set_header("Allow", "POST, GET, HEAD");
    } else if (request.method == "POST") {
      HandlePost(request, response);
    } else {
      HandleGet(request, response);
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "quenor-collector: cannot serve a request of %s: %s; it is answered 500\n",
                 exchange->connection->peer().c_str(), error.what());
    exchange->close = exchange->unread = true;
    response->status = 500;
  }
}

void CollectorServer::HandleGet(const httplib::Request& request, httplib::Response* response) {
  response->status = 200;
  if (request.path == "/healthz") {
    response->set_content("ok", "text/plain");
  } else if (request.path == "/stats") {
    response->set_content(CountsJson(recorder_.GetCounts()), kJson);
  } else if (request.path == "/metrics") {
    response->set_content(Metrics(), kMetricsType);
  } else {
    response->status = 404;
    response->set_content("POST reports on any path; GET /healthz, /stats or /metrics\n",
                          "text/plain");
  }
}

std::string CollectorServer::Metrics() {
  Connections connections;
  // relaxed: a plain number.
  connections.accepted = connections_.load(std::memory_order_relaxed);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    connections.open = peers_.size();
  }
  const auto uptime = std::chrono::duration_cast<milliseconds>(Now() - started_);
  return MetricsText(recorder_.GetCounts(), connections, uptime);
}

void CollectorServer::HandlePost(const httplib::Request& request, httplib::Response* response) {
  Exchange* const exchange = current_exchange_;
  const Ending& ending = exchange->plan.ending;
  std::string body;
  uint64_t size_bytes = 0;
  if (ending.kind != EndKind::kNone && ending.place == Place::kRequest) {
    exchange->connection->LimitInput(ending.offset);
    (void)TakeBody(*exchange, &body, &size_bytes);
    exchange->end = ending.kind;
    exchange->connection->Flush();  // What httplib has said so far: "100 Continue".
    exchange->connection->Mute();
    size_bytes = ending.offset - exchange->connection->input_left();
    return RefusePost(request, size_bytes, StatusOnRecord(exchange->plan), response);
  }
  switch (TakeBody(*exchange, &body, &size_bytes)) {
    case BodyOutcome::kWhole:
      return AnswerPost(request, body, response);
    case BodyOutcome::kTooLarge:
      return RefuseBody(request, size_bytes, 413, response);
    case BodyOutcome::kFarTooLarge:
      exchange->close = exchange->unread = true;
      return RefuseBody(request, size_bytes, 413, response);
    case BodyOutcome::kMalformed:
      exchange->close = exchange->unread = true;
      return RefuseBody(request, size_bytes, 400, response);
    case BodyOutcome::kTrailersTooLarge:
      exchange->close = exchange->unread = true;
      return RefuseBody(request, size_bytes, 431, response);
    case BodyOutcome::kIncomplete:
      return GiveUpBody(response);
  }
}

// The body did not come whole: that is no request. Who is late is told so.
void CollectorServer::GiveUpBody(httplib::Response* response) {
  Exchange* const exchange = current_exchange_;
  recorder_.CountIncomplete();
  if (exchange->connection->is_late()) recorder_.CountRefused("body", 408);
  response->status = 408;
  response->set_content(BuildRefusal(408), kJson);
  exchange->close = exchange->unread = exchange->connection->is_late();
  exchange->drop = !exchange->close;
  if (exchange->drop) exchange->connection->Mute();
}

// What is to be put on record of the request, which is borrowed, but for body and misbehaviour.
Received CollectorServer::HeadOnRecord(const httplib::Request& request,
                                       const std::string& content_type, int status) {
  Received received;
  received.seq = current_exchange_->seq;
  received.time = UtcNow();
  received.peer = current_exchange_->connection->peer();
  received.path = request.target;
  received.content_type = content_type;
  received.status = status;
  return received;
}

void CollectorServer::AnswerPost(const httplib::Request& request, const std::string& body,
                                 httplib::Response* response) {
  Exchange* const exchange = current_exchange_;
  const std::string content_type = request.get_header_value("Content-Type");
  Received received = HeadOnRecord(request, content_type, StatusOnRecord(exchange->plan));
  received.body = body;
  received.misbehaviour = exchange->plan.words;

  // On record first: what is acknowledged must survive a kill that comes right after the reply.
  const bool recorded = recorder_.Record(received);
  if (!recorded && IsAccepted(received.status)) {
    response->status = kCannotRecordStatus;
    response->set_content(R"({"bytes_errinfo":"cannot record"})", kJson);
  } else if (!exchange->plan.words.empty()) {
    Misbehave(exchange->plan);
    response->status = 500;  // Seen by nobody: the answer has gone.
  } else {
    response->status = received.status;
    response->set_content(reply_, kJson);
  }
}

// Answers as the plan says and mutes what httplib would answer.
void CollectorServer::Misbehave(const Plan& plan) {
  Exchange* const exchange = current_exchange_;
  Pause(plan.delay_ms);
  AnswerContext context;
  context.reply = reply_;
  context.framing = exchange->close
                        ? "Connection: close\r\n"
                        : "Keep-Alive: timeout=" + std::to_string(options_.idle_timeout_s) + "\r\n";
  context.seed = options_.misbehaviour.seed();
  context.pause = [this](uint64_t pause_ms) { Pause(pause_ms); };
  exchange->drop = !WriteAnswer(plan, context, exchange->connection);
  exchange->connection->Mute();

  const Ending& ending = plan.ending;
  if (ending.kind == EndKind::kNone) {
    // Only the end of the connection tells the peer where such a body ends.
    if (plan.length == Length::kNone) exchange->end = EndKind::kClose;
  } else if (ending.place == Place::kNext) {
    exchange->end_at_input = ending.kind;
  } else {
    exchange->end = ending.kind;
  }
}

void CollectorServer::RefuseBody(const httplib::Request& request, uint64_t size_bytes, int status,
                                 httplib::Response* response) {
  recorder_.CountRefused("body", status);
  RefusePost(request, size_bytes, status, response);
}

void CollectorServer::RefusePost(const httplib::Request& request, uint64_t size_bytes, int status,
                                 httplib::Response* response) {
  Exchange* const exchange = current_exchange_;
  const std::string content_type = request.get_header_value("Content-Type");
  Received received = HeadOnRecord(request, content_type, status);
  if (exchange->end != EndKind::kNone) received.misbehaviour = exchange->plan.words;
  recorder_.RecordRefused(received, size_bytes);
  response->status = status != 0 ? status : 500;
  response->set_content(BuildRefusal(status), kJson);
}

// Waits for so long, or until the server stops.
void CollectorServer::Pause(uint64_t pause_ms) {
  if (pause_ms == 0) return;
  std::unique_lock<std::mutex> lock(mutex_);
  stop_cv_.wait_for(lock, milliseconds(pause_ms), [this] { return stopping_.load(); });
}

// Has the body read for as long as it may take.
BodyOutcome CollectorServer::TakeBody(const Exchange& exchange, std::string* body,
                                      uint64_t* size_bytes) const {
  exchange.connection->SetDeadline(Now() + seconds(options_.body_timeout_s));
  return ReadBody(exchange.connection, exchange.framing, options_.max_body_bytes, body, size_bytes);
}

}  // namespace quenor::collector
