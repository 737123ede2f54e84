// Row: one way in which a server can misbehave, and what a report channel makes of it.
#ifndef QUENOR_TESTS_INTEGRATION_MATRIX_ROW_H_
#define QUENOR_TESTS_INTEGRATION_MATRIX_ROW_H_

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "quenor_base/platform/http_client.h"
#include "tests/integration/support/scripted_server.h"

namespace quenor::test {

enum class Protocol { kHttp1, kHttp2 };

// What each exchange with the misbehaving server ends in.
struct Expected {
  enum Class {
    kFails,      // No response: `state` says how.
    kStatus,     // A whole response with `status`, which is not 200.
    kDelivered,  // A whole response with status 200.
    kEither,     // kDelivered, or kFails with `state`: who is quicker decides.
  };
  Class what = kFails;
  HttpClient::State state = HttpClient::State::kFailed;
  int status = 0;

  static Expected Fails(HttpClient::State state = HttpClient::State::kFailed) {
    return {kFails, state, 0};
  }
  static Expected TimesOut() { return Fails(HttpClient::State::kTimedOut); }
  static Expected TooLarge() { return Fails(HttpClient::State::kTooLarge); }
  static Expected Status(int status) { return {kStatus, HttpClient::State::kCompleted, status}; }
  static Expected Delivered() { return {kDelivered, HttpClient::State::kCompleted, 200}; }
  static Expected Either() { return {kEither, HttpClient::State::kFailed, 200}; }
};

// The settings in force after the reply to the first message.
struct Settings {
  uint32_t send_interval_ms = 0;
  uint32_t max_resend_count = UINT32_MAX;
  uint32_t report_interval_ms = 10000;
};

struct Row {
  std::string name;
  Expected expected;

  // HTTP/1.1 by a ScriptedServer: called for each request once it has been read, or, with
  // `at_once`, for each connection. False ends the connection. Null: not by this server.
  std::function<bool(ScriptedServer::Connection&)> http1;
  bool at_once = false;
  bool plain = false;  // No TLS on the server's side: the bytes stand for themselves.

  // A script of support/h2_peer.py; empty: not by that server.
  std::string peer;
  bool peer_also_http1 = false;  // The client offers HTTP/1.1 alone in a second run.

  enum Kind { kGood, kExpired, kNotYetValid, kOtherHost, kOtherAuthority };
  Kind certificate = kGood;

  bool is_slow = false;          // Ends by a time limit, which is set low.
  bool is_big = false;           // The message is larger than the sockets' buffers.
  bool comes_first = false;      // Before the request, which makes another failure of it.
  bool closes_behind = false;    // The next message may meet the connection's end, and fail once.
  bool low_speed = false;        // The limit is that of the speed.
  bool checks_settings = false;  // `settings` are in force once the message is delivered.
  Settings settings;
};

using Rows = std::vector<Row>;

// The table, in groups.
Rows TlsRows();    // TCP and TLS: both protocols.
Rows ReplyRows();  // Whole replies of every status and body: both protocols.
Rows Http1Rows();  // What only HTTP/1.1 can get wrong.
Rows Http2Rows();  // What only HTTP/2 can get wrong.

std::string Hex(const std::string& bytes);

}  // namespace quenor::test

#endif  // QUENOR_TESTS_INTEGRATION_MATRIX_ROW_H_
