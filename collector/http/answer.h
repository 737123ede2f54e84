// Puts one scripted answer on a connection, byte for byte as its plan says.
// Nothing is held that can be generated: a body of a gigabyte costs one block.
// Threads: the worker that serves the connection. Page: docs/guide/collector.md.
#ifndef COLLECTOR_HTTP_ANSWER_H_
#define COLLECTOR_HTTP_ANSWER_H_

#include <cstdint>
#include <functional>
#include <string>

#include "collector/http/connection.h"
#include "collector/http/misbehaviour.h"

namespace quenor::collector {

struct AnswerContext {
  std::string reply;    // The usual body.
  std::string framing;  // The header lines about the connection, each with its CRLF.
  uint64_t seed = 0;    // Of generated bodies.
  // Waits, unless the server is stopping.
  std::function<void(uint64_t pause_ms)> pause;
};

// Writes the answer up to the place where the plan ends it, and sends what it has written. False:
// the peer does not take it.
bool WriteAnswer(const Plan& plan, const AnswerContext& context, Connection* connection);

// "HTTP/1.1 200 OK\r\n"
std::string StatusLine(int status);

// A whole answer that refuses the request and announces the connection's end.
std::string RefusalText(int status);

}  // namespace quenor::collector

#endif  // COLLECTOR_HTTP_ANSWER_H_
