#include "fleet/model/server.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <iterator>
#include <string_view>

namespace quenor::fleet {
namespace {

constexpr int kOk = 200;
constexpr int kUnavailable = 503;
constexpr char kPlainReply[] = "{\"bytes_errinfo\":\"success\"}";

CopyOnWriteBuffer Text(const char* text) {
  return CopyOnWriteBuffer(text, static_cast<uint32_t>(std::strlen(text)));
}

}  // namespace

Server::Server(const Scenario& scenario, uint64_t seed, Books* books)
    : scenario_(scenario),
      books_(books),
      latency_random_(seed ^ 0x1a7e),
      reply_random_(seed ^ 0x9e91),
      policy_(scenario.policy),
      plain_reply_(Text(kPlainReply)) {
  books_->SetInterval(policy_.interval_ms());
  Clock::Current().Post(this, static_cast<int64_t>(control::kTickSeconds * kSecondUs));
}

const Incident* Server::Now(Incident::Kind kind) const {
  const int64_t now_us = Clock::Current().now_us();
  for (const Incident& incident : scenario_.incidents) {
    if (incident.kind == kind && incident.Holds(now_us)) return &incident;
  }
  return nullptr;
}

double Server::CapacityNow() const {
  const Incident* const less = Now(Incident::Kind::kCapacity);
  return scenario_.server.capacity * (less != nullptr ? less->value : 1);
}

int64_t Server::DrawLatencyUs() {
  const Incident* const other = Now(Incident::Kind::kLatency);
  const double median_us =
      other != nullptr ? other->value : static_cast<double>(scenario_.server.latency_us);
  if (scenario_.server.sigma == 0) return static_cast<int64_t>(median_us);
  return static_cast<int64_t>(median_us *
                              std::exp(scenario_.server.sigma * latency_random_.Normal()));
}

int Server::ConnectRoundTrips() const {
  return (scenario_.server.connect_cost > 0 ? 1 : 0) + (scenario_.server.tls_cost > 0 ? 1 : 0);
}

void Server::Work(double reports) {
  asked_ += reports;
  const double now_us = static_cast<double>(Clock::Current().now_us());
  const double work_us = reports * kSecondUs / CapacityNow();
  const double most_us = now_us + static_cast<double>(scenario_.server.queue_us);
  free_at_us_ = std::max(free_at_us_, now_us) + work_us;
  // Beyond a full queue nothing more is kept.
  free_at_us_ = std::min(free_at_us_, std::max(most_us, now_us + work_us));
}

Answer Server::Refuse(int status) {
  Work(scenario_.server.refusal_cost);
  books_->Refused();
  Answer answer;
  answer.status = status;
  return answer;
}

Answer Server::Arrive(const CopyOnWriteBuffer& body, bool is_new_connection) {
  books_->Arrived();
  Answer answer;
  if (Now(Incident::Kind::kRefuse) != nullptr) {
    answer.kind = Answer::Kind::kUnreachable;
    return answer;
  }
  if (Now(Incident::Kind::kBlackhole) != nullptr) {
    answer.kind = Answer::Kind::kVanished;
    return answer;
  }
  ++load_.arrived;
  if (is_new_connection) Work(scenario_.server.connect_cost + scenario_.server.tls_cost);
  if (const Incident* const status = Now(Incident::Kind::kStatus)) {
    return Refuse(static_cast<int>(status->value));
  }
  const double now_us = static_cast<double>(Clock::Current().now_us());
  const double done_us = std::max(free_at_us_, now_us) + kSecondUs / CapacityNow();
  // A queue of less than one report still takes one when it is free.
  const double most_us =
      std::max(static_cast<double>(scenario_.server.queue_us), kSecondUs / CapacityNow());
  if (done_us - now_us > most_us) return Refuse(kUnavailable);
  Work(1);
  answer.status = kOk;
  answer.body = Reply();
  answer.after_us = static_cast<int64_t>(done_us - now_us);
  books_->Accepted(body);
  return answer;
}

CopyOnWriteBuffer Server::Reply() {
  const control::Fields fields = policy_.Reply(reply_random_.Unit());
  if (fields.max_resend_count == 0) return plain_reply_;
  char text[200];
  char* end = text;
  const auto add = [&](std::string_view words) {
    end = std::copy(words.begin(), words.end(), end);
  };
  const auto add_field = [&](std::string_view name, uint32_t value) {
    if (value == 0) return;
    add(name);
    end = std::to_chars(end, std::end(text), value).ptr;
  };
  add("{\"bytes_errinfo\":\"success\"");
  add_field(",\"uint32_send_interval\":", fields.send_interval_ms);
  add_field(",\"uint32_max_resend_count\":", fields.max_resend_count);
  add_field(",\"uint32_report_duration\":", fields.report_duration_s);
  add("}");
  return CopyOnWriteBuffer(text, static_cast<uint32_t>(end - text));
}

void Server::OnDue() {
  load_.use = asked_ / (CapacityNow() * control::kTickSeconds);
  policy_.Tick(load_);
  load_ = control::Load();
  asked_ = 0;
  books_->SetInterval(policy_.interval_ms());
  Clock::Current().Post(this, static_cast<int64_t>(control::kTickSeconds * kSecondUs));
}

}  // namespace quenor::fleet
