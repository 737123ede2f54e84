// The C interface on a transport of the test's own, which answers at once: no socket, no server.
// Transport and shared settings are the process's, so that each test needs one of its own.
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "c/quenor/transport.h"
#include "tests/conformance/http_client_conformance.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

template <typename T>
T Fresh() {
  T structure;
  QUENOR_INIT(&structure);
  return structure;
}

struct Arrived {
  uint64_t id;
  std::string method, url, body;
  uint32_t timeout_ms;
  std::string proxy_host;
};

class CInterfaceTest : public ::testing::Test {
 protected:
  CInterfaceTest() {
    auto transport = Fresh<quenor_transport>();
    transport.start = [](void* test, const quenor_request* request) {
      return static_cast<CInterfaceTest*>(test)->Start(*request);
    };
    transport.cancel = [](void* test, uint64_t id) {
      static_cast<CInterfaceTest*>(test)->Cancelled(id);
    };
    transport.context = this;
    EXPECT_EQ(quenor_set_transport(&transport), QUENOR_OK);
    quenor_set_log([](void*, int, const char*, int, const char*, size_t) {}, nullptr);
    options_.name = "c";
    options_.url = "https://collector.example/reports";
    options_.folder = folder_.path().c_str();
  }
  ~CInterfaceTest() override {
    quenor_destroy(reporter_);
    quenor_set_transport(nullptr);  // In vain, where a reporter was made: the process ends here.
    quenor_set_log(nullptr, nullptr);
  }

  void Create() {
    ASSERT_EQ(quenor_create(&options_, &reporter_), QUENOR_OK) << quenor_last_error();
  }

  int Start(const quenor_request& request) {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      const char* const body = static_cast<const char*>(request.body);
      arrived_.push_back({request.id, request.method, request.url,
                          std::string(body, body + request.body_size), request.timeout_ms,
                          request.proxy_host != nullptr ? request.proxy_host : ""});
    }
    if (status_ == 0) return 0;
    auto response = Fresh<quenor_response>();
    response.status_code = reason_ == nullptr ? status_.load() : 0;
    response.reason = reason_;
    response.body = reply_.data();
    response.body_size = reply_.size();
    return quenor_answer(request.id, &response);
  }
  void Cancelled(uint64_t id) {
    std::lock_guard<std::mutex> hold(mutex_);
    cancelled_.push_back(id);
  }
  std::vector<Arrived> ArrivedSoFar() {
    std::lock_guard<std::mutex> hold(mutex_);
    return arrived_;
  }

  // A client as the channel makes it, and one request that ends somehow.
  HttpClient::State StateOfOne(uint32_t timeout_ms) {
    struct : conformance::HttpClientPeer {
      std::string Origin() const override { return ""; }
    } peer;
    conformance::Answers answers;
    const auto client = HttpClientFactory::Create(HttpClient::Config());
    HttpClient::Request request;
    request.url = options_.url;
    request.method = "POST";
    request.timeout_ms = timeout_ms;
    EXPECT_GE(client->SendRequest(request, answers.Note()), 1);
    EXPECT_TRUE(answers.WaitFor(1, &peer));
    return answers.all()[0].state;
  }

  const TempFolder folder_;
  std::atomic<int> status_{200};  // 0: never answered.
  const char* reason_ = nullptr;
  std::string reply_;
  quenor_options options_ = Fresh<quenor_options>();
  quenor_reporter* reporter_ = nullptr;
  std::vector<uint64_t> cancelled_;  // Guarded by `mutex_`, as is the next.

 private:
  std::mutex mutex_;
  std::vector<Arrived> arrived_;
};

TEST_F(CInterfaceTest, DeliversThroughTheHostsTransport) {
  Create();
  uint64_t id = 0;
  ASSERT_EQ(quenor_send(reporter_, "started", 7, nullptr, &id), QUENOR_OK);
  auto outcome = Fresh<quenor_outcome>();
  ASSERT_EQ(quenor_stop(reporter_, 60000, &outcome), QUENOR_OK);

  EXPECT_GE(id, 1u);
  EXPECT_EQ(outcome.acknowledged, 1u);
  EXPECT_EQ(outcome.kept + outcome.out + outcome.dropped + outcome.rejected, 0u);
  const std::vector<Arrived> arrived = ArrivedSoFar();
  ASSERT_EQ(arrived.size(), 1u);
  EXPECT_EQ(arrived[0].method, "POST");
  EXPECT_EQ(arrived[0].url, options_.url);
  EXPECT_EQ(arrived[0].body, "started");
  EXPECT_EQ(arrived[0].timeout_ms, 50000u);
  EXPECT_EQ(quenor_send(reporter_, "late", 4, nullptr, nullptr), QUENOR_STOPPED);
}

TEST_F(CInterfaceTest, WhatIsNotAnsweredIsKept) {
  status_ = 0;
  Create();
  ASSERT_EQ(quenor_send(reporter_, "started", 7, nullptr, nullptr), QUENOR_OK);
  auto outcome = Fresh<quenor_outcome>();
  ASSERT_EQ(quenor_stop(reporter_, 0, nullptr), QUENOR_OK);
  ASSERT_EQ(quenor_flush(reporter_, 600000, &outcome), QUENOR_OK);  // Until it has stopped.

  EXPECT_EQ(outcome.kept, 1u);
  EXPECT_EQ(outcome.acknowledged + outcome.out, 0u);
}

TEST_F(CInterfaceTest, UpdateNamesTheReasonThatTheTransportGave) {
  std::vector<std::string> told;  // On the reporter's thread, until flush() returns.
  options_.on_update = [](void* reasons, const quenor_update* update) {
    if (update->state == QUENOR_FAILED) {
      static_cast<std::vector<std::string>*>(reasons)->push_back(update->reason);
    } else {
      EXPECT_STREQ(update->reason, "none");
    }
  };
  options_.context = &told;
  options_.send_limit = 1;
  Create();
  const auto fail = [&](const char* reason, int status) {
    reason_ = reason;
    status_ = status;
    auto at_once = Fresh<quenor_send_options>();
    at_once.now = 1;
    ASSERT_EQ(quenor_send(reporter_, "x", 1, &at_once, nullptr), QUENOR_OK);
    ASSERT_EQ(quenor_flush(reporter_, 60000, nullptr), QUENOR_OK);
  };

  fail("tls_expired", 200);
  fail("no such word", 200);
  fail("http_status", 200);
  fail(nullptr, 503);
  fail(nullptr, 200);

  EXPECT_EQ(told, (std::vector<std::string>{"tls_expired", "other", "other", "http_status"}));
}

TEST_F(CInterfaceTest, TheProxyIsNamedToTheTransport) {
  options_.proxy_host = "proxy.example";
  options_.proxy_port = 1080;
  Create();
  ASSERT_EQ(quenor_send(reporter_, "started", 7, nullptr, nullptr), QUENOR_OK);
  ASSERT_EQ(quenor_flush(reporter_, 60000, nullptr), QUENOR_OK);

  ASSERT_EQ(ArrivedSoFar().size(), 1u);
  EXPECT_EQ(ArrivedSoFar()[0].proxy_host, "proxy.example");
}

TEST_F(CInterfaceTest, OptionsThatCannotBeAreNamed) {
  const struct {
    std::function<void(quenor_options*)> change;
    const char* named;
  } kRows[] = {
      {[](quenor_options* o) { o->name = nullptr; }, "name"},
      {[](quenor_options* o) { o->name = "../c"; }, "name"},
      {[](quenor_options* o) { o->url = nullptr; }, "url"},
      {[](quenor_options* o) { o->url = "ftp://collector.example/"; }, "url"},
      {[](quenor_options* o) { o->folder = "here"; }, "folder"},
      {[](quenor_options* o) { o->send_interval_ms = 99; }, "send_interval_ms"},
      {[](quenor_options* o) { o->cache = static_cast<quenor_cache>(4); }, "cache"},
      {[](quenor_options* o) { o->durability = static_cast<quenor_durability>(4); }, "durability"},
      {[](quenor_options* o) { o->ca_file = "/ca.pem"; }, "ca_file"},
      {[](quenor_options* o) { o->client_key_file = "/key.pem"; }, "client_key_file"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.named);
    quenor_options options = options_;
    row.change(&options);
    EXPECT_EQ(quenor_create(&options, &reporter_), QUENOR_BAD_OPTION);
    EXPECT_EQ(reporter_, nullptr);
    EXPECT_NE(std::strstr(quenor_last_error(), row.named), nullptr) << quenor_last_error();
  }
}

TEST_F(CInterfaceTest, ArgumentsThatCannotBeAreAnswered) {
  EXPECT_EQ(quenor_create(nullptr, &reporter_), QUENOR_BAD_ARGUMENT);
  EXPECT_EQ(quenor_create(&options_, nullptr), QUENOR_BAD_ARGUMENT);
  quenor_options sizeless = options_;
  sizeless.size = 0;
  EXPECT_EQ(quenor_create(&sizeless, &reporter_), QUENOR_BAD_ARGUMENT);
  sizeless.size = offsetof(quenor_options, url) + 3;  // Three bytes of a pointer.
  EXPECT_EQ(quenor_create(&sizeless, &reporter_), QUENOR_BAD_ARGUMENT);
  EXPECT_EQ(quenor_send(nullptr, "a", 1, nullptr, nullptr), QUENOR_BAD_ARGUMENT);
  EXPECT_EQ(quenor_flush(nullptr, 0, nullptr), QUENOR_BAD_ARGUMENT);
  EXPECT_EQ(quenor_stop(nullptr, 0, nullptr), QUENOR_BAD_ARGUMENT);
  quenor_destroy(nullptr);

  Create();
  EXPECT_EQ(quenor_send(reporter_, nullptr, 1, nullptr, nullptr), QUENOR_BAD_ARGUMENT);
  EXPECT_EQ(quenor_send(reporter_, nullptr, 0, nullptr, nullptr), QUENOR_EMPTY);
  EXPECT_EQ(quenor_send(reporter_, "a", SIZE_MAX, nullptr, nullptr), QUENOR_TOO_LARGE);
  auto both = Fresh<quenor_send_options>();
  both.now = 1;
  both.delay_ms = 1;
  EXPECT_EQ(quenor_send(reporter_, "a", 1, &both, nullptr), QUENOR_NOW_AND_DELAY);
  EXPECT_EQ(quenor_now(reporter_, nullptr), QUENOR_BAD_ARGUMENT);
  EXPECT_EQ(quenor_set_url(reporter_, nullptr), QUENOR_BAD_ARGUMENT);
  EXPECT_EQ(quenor_set_url(reporter_, ""), QUENOR_BAD_OPTION);
  EXPECT_EQ(std::strncmp(quenor_last_error(), "url: ", 5), 0);
  EXPECT_EQ(quenor_report_interval_ms(reporter_, nullptr), QUENOR_BAD_ARGUMENT);
  quenor_outcome nothing = {};  // Not by QUENOR_INIT().
  EXPECT_EQ(quenor_now(reporter_, &nothing), QUENOR_BAD_ARGUMENT);
  EXPECT_EQ(quenor_flush(reporter_, 0, &nothing), QUENOR_BAD_ARGUMENT);
  EXPECT_EQ(quenor_stop(reporter_, 0, &nothing), QUENOR_BAD_ARGUMENT);
  EXPECT_EQ(quenor_send(reporter_, "a", 1, nullptr, nullptr), QUENOR_OK) << "it is not stopped";
  for (int error = -1; error < 20; ++error) {
    EXPECT_STRNE(quenor_error_text(static_cast<quenor_error>(error)), "");
  }
}

TEST_F(CInterfaceTest, AUrlInClearIsRefusedWhereTlsIsRequired) {
  options_.url = "http://collector.example/reports";
  options_.require_tls = 1;
  EXPECT_EQ(quenor_create(&options_, &reporter_), QUENOR_BAD_OPTION);
  EXPECT_EQ(std::strncmp(quenor_last_error(), "url: ", 5), 0) << quenor_last_error();

  options_.url = "https://collector.example/reports";
  Create();
  EXPECT_EQ(quenor_set_url(reporter_, "http://collector.example/reports"), QUENOR_BAD_OPTION);
}

TEST_F(CInterfaceTest, AKeyWithoutItsCertificateIsRefused) {
  ASSERT_EQ(quenor_set_transport(nullptr), QUENOR_OK);
  options_.client_key_file = "/key.pem";
  EXPECT_EQ(quenor_create(&options_, &reporter_), QUENOR_BAD_OPTION);
  EXPECT_NE(std::strstr(quenor_last_error(), "client_key_file"), nullptr) << quenor_last_error();
}

// As a program sees it that was built when the structures were shorter.
TEST_F(CInterfaceTest, ShorterStructuresAreTakenAsFarAsTheyGo) {
  options_.size = offsetof(quenor_options, folder) + sizeof options_.folder;
  options_.on_update = [](void*, const quenor_update*) { ADD_FAILURE() << "beyond its size"; };
  Create();
  ASSERT_EQ(quenor_send(reporter_, "started", 7, nullptr, nullptr), QUENOR_OK);
  auto outcome = Fresh<quenor_outcome>();
  outcome.size = offsetof(quenor_outcome, rejected);
  outcome.rejected = 77;
  ASSERT_EQ(quenor_stop(reporter_, 60000, &outcome), QUENOR_OK);

  EXPECT_EQ(outcome.acknowledged, 1u);
  EXPECT_EQ(outcome.rejected, 77u);
}

TEST_F(CInterfaceTest, MetricsAreCutToTheRoomThatThereIs) {
  Create();
  const size_t all = quenor_metrics(nullptr, 0);
  std::string text(all + 1, 'x');
  EXPECT_EQ(quenor_metrics(&text[0], text.size()), all);
  EXPECT_NE(text.find("quenor_messages_handed_over_total{reporter=\"c\"} 0\n"), std::string::npos);
  char few[5] = "????";
  EXPECT_EQ(quenor_metrics(few, sizeof few), all);
  EXPECT_STREQ(few, "# HE");
}

TEST_F(CInterfaceTest, TransportIsForTheWholeProcess) {
  auto nothing = Fresh<quenor_transport>();
  EXPECT_EQ(quenor_set_transport(&nothing), QUENOR_BAD_ARGUMENT);
  Create();
  EXPECT_EQ(quenor_set_transport(nullptr), QUENOR_STOPPED);
}

TEST_F(CInterfaceTest, ExchangeWithoutAnAnswerEndsAtItsTimeLimit) {
  status_ = 0;
  EXPECT_EQ(StateOfOne(/*timeout_ms=*/1), HttpClient::State::kTimedOut);
  EXPECT_EQ(cancelled_, std::vector<uint64_t>{ArrivedSoFar()[0].id});
}

TEST_F(CInterfaceTest, AnswerBeyondTheLimitIsTooLarge) {
  reply_.assign(GetHttpDefaults().max_response_body_bytes + 1, 'x');
  EXPECT_EQ(StateOfOne(0), HttpClient::State::kTooLarge);
}

TEST_F(CInterfaceTest, AnswerThatIsNoneIsRefusedAndEndsNothing) {
  status_ = 0;
  EXPECT_EQ(StateOfOne(1), HttpClient::State::kTimedOut);
  auto response = Fresh<quenor_response>();
  const std::vector<std::function<void(quenor_response*)>> changes = {
      [](quenor_response* r) { r->status_code = 99; },
      [](quenor_response* r) { r->status_code = 1000; },
      [](quenor_response* r) { r->body_size = 1; },
      [](quenor_response* r) { r->header_count = 1; },
      [](quenor_response* r) { r->size = 0; },
  };
  for (const auto& change : changes) {
    response = Fresh<quenor_response>();
    response.status_code = 200;
    change(&response);
    EXPECT_EQ(quenor_answer(1, &response), QUENOR_BAD_ARGUMENT);
  }
  response = Fresh<quenor_response>();
  response.status_code = 200;
  EXPECT_EQ(quenor_answer(UINT64_MAX, &response), QUENOR_OK);  // Nobody waits for it.
}

}  // namespace
}  // namespace quenor::test
