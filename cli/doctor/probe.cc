#include "cli/doctor/probe.h"

#include <condition_variable>
#include <memory>
#include <mutex>

#include "cli/text.h"
#include "quenor_base/platform/base/json_reader.h"
#include "quenor_base/platform/http_client.h"
#include "quenor_base/platform/local_log.h"

namespace quenor::cli {
namespace {

constexpr int kMaxJsonDepth = 200;  // As the channel.
constexpr int kErrorLevel = 2;
constexpr size_t kMaxShownBytes = 200;

// The last error that the library logged. Lives for the process: its threads may log until the end.
class CaughtLog {
 public:
  static CaughtLog* Get() {
    static CaughtLog* const caught = new CaughtLog;
    return caught;
  }
  static void Sink(void* caught, int level, const char*, int, const char* text, size_t size) {
    if (level != kErrorLevel) return;
    auto* const log = static_cast<CaughtLog*>(caught);
    std::lock_guard<std::mutex> hold(log->mutex_);
    log->line_.assign(text, size);
  }
  std::string line() {
    std::lock_guard<std::mutex> hold(mutex_);
    return line_;
  }

 private:
  std::mutex mutex_;
  std::string line_;  // Guarded by `mutex_`.
};

// Where the client's thread leaves its answer.
struct Answer {
  std::mutex mutex;
  std::condition_variable arrived;
  // Guarded by `mutex`.
  bool done = false;
  HttpClient::State state = HttpClient::State::kFailed;
  HttpReason reason = HttpReason::kOther;
  std::unique_ptr<HttpClient::Response> response;
};

std::string AdviceOn(int status, bool is_tls) {
  if (status == 400) {
    return is_tls ? "the server does not understand the request, or wants a client certificate "
                    "(--client-cert); its log says more"
                  : "the server does not understand the request; if its port speaks TLS, the URL "
                    "begins with https://";
  }
  if (status == 401 || status == 403 || status == 407) {
    return "the server wants a proof of identity: a client certificate (--client-cert), a header "
           "(--header), or user and password in the URL";
  }
  if (status == 404 || status == 405 || status == 410) {
    return "correct the path of --url: nothing takes POSTs there";
  }
  if (status == 413) return "let the server take larger bodies; even this small one was too large";
  if (status == 429) return "the server limits the rate; raise its limit or set --interval";
  if (status >= 500) return "the server, or what it hands requests to, fails; its log says more";
  if (status >= 300 && status < 400) {
    return "redirects are not followed: give --url the address that the server names";
  }
  return "only the status 200 counts as delivered: let the server answer that";
}

// The control field `name` of the reply, when the channel would obey it.
void AddControl(const base::Value& reply, const char* name, const char* meaning, Step* step) {
  const int value = reply.FindIntKey(name).value_or(0);
  if (value > 0) step->Add(name, std::to_string(value) + " (obeyed: " + meaning + ")");
}

void JudgeReply(const std::string& body, Step* step) {
  const auto reply = base::JSONReader::Read(body, 0, kMaxJsonDepth);
  if (!reply.has_value() || !reply->is_dict()) {
    step->Add("reply", "not a JSON object: the channel obeys nothing in it");
    return;
  }
  const std::string* const error_info = reply->FindStringKey("bytes_errinfo");
  if (error_info == nullptr || *error_info != "success") {
    step->Add("reply",
              "a JSON object whose \"bytes_errinfo\" is not \"success\": the channel obeys "
              "nothing in it");
    return;
  }
  step->Add("reply", "a JSON object that the channel obeys");
  AddControl(*reply, "uint32_send_interval", "milliseconds between messages", step);
  AddControl(*reply, "uint32_max_resend_count", "sends of a message before it is dropped", step);
  AddControl(*reply, "uint32_report_duration", "seconds between lines of statistics", step);
}

void FailUnanswered(HttpClient::State state, const std::string& log, Step* step) {
  if (!log.empty()) step->Add("client", log);
  if (state == HttpClient::State::kTimedOut) {
    step->Fail(
        "timeout", "no whole answer in time",
        "check that the server answers POSTs at this path, and is not overloaded; a slow one "
        "needs a larger --timeout");
  } else if (state == HttpClient::State::kTooLarge) {
    step->Fail("too_large", "the answer is too large",
               "check what answers at this path: an answer is a short JSON object");
  } else {
    step->Fail("no_answer", "the exchange failed before an answer was whole",
               "the line above says why; the server's log may say more");
  }
}

}  // namespace

void JudgeAnswer(int status, const std::map<std::string, std::string>& headers,
                 const std::string& body, bool is_tls, Step* step) {
  step->Add("status", std::to_string(status));
  step->Add("response", CountOf(body.size(), "byte"));
  if (status == 200) {
    step->summary = "answered 200: the report was delivered";
    JudgeReply(body, step);
    return;
  }
  const auto location = headers.find("location");
  if (location != headers.end()) step->Add("location", location->second);
  if (!body.empty()) step->Add("body", body.substr(0, kMaxShownBytes));
  step->Fail("http_status",
             "answered " + std::to_string(status) +
                 ", not 200: the channel would "
                 "keep the report and try again",
             AdviceOn(status, is_tls));
  step->reason = HttpReason::kHttpStatus;
}

Step Probe(const std::string& url, bool is_tls, const Connection& connection, uint32_t timeout_ms) {
  Step step("probe");
  SetLogSink(&CaughtLog::Sink, CaughtLog::Get());
  const std::unique_ptr<HttpClient> client = HttpClientFactory::Create(ClientConfig(connection));
  HttpClient::Request request;
  request.url = url;
  request.method = "POST";
  request.body = CopyOnWriteBuffer(reinterpret_cast<const uint8_t*>(kProbeBody),
                                   static_cast<uint32_t>(sizeof(kProbeBody) - 1));
  request.timeout_ms = timeout_ms;
  const auto answer = std::make_shared<Answer>();
  const auto on_done = [answer](HttpClient::State state, const HttpClient::Request& sent,
                                std::unique_ptr<HttpClient::Response> response) {
    std::lock_guard<std::mutex> hold(answer->mutex);
    answer->done = true;
    answer->state = state;
    answer->reason = sent.reason;
    answer->response = std::move(response);
    answer->arrived.notify_all();
  };
  if (client == nullptr || client->SendRequest(request, on_done) < 1) {
    FailUnanswered(HttpClient::State::kFailed, CaughtLog::Get()->line(), &step);
    step.reason = HttpReason::kOther;
    return step;
  }
  std::unique_lock<std::mutex> hold(answer->mutex);
  answer->arrived.wait(hold, [&] { return answer->done; });
  if (answer->state != HttpClient::State::kCompleted || answer->response == nullptr) {
    FailUnanswered(answer->state, CaughtLog::Get()->line(), &step);
    step.reason = answer->reason;
    return step;
  }
  const HttpClient::Response& response = *answer->response;
  const char* const bytes = response.body.cdata<char>();
  const std::string body(bytes == nullptr ? "" : bytes, response.body.size());
  JudgeAnswer(response.status_code, response.headers, body, is_tls, &step);
  return step;
}

}  // namespace quenor::cli
