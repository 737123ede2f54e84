// ScriptedServer: a server on a free port of 127.0.0.1 and ::1 that does with each connection
// exactly what the test wrote down: answer, cut, drip, hang. Plain TCP or TLS. Threads: one per
// connection runs the script. Life cycle: the destructor shuts every connection down and waits for
// the scripts.
#ifndef QUENOR_TESTS_INTEGRATION_SUPPORT_SCRIPTED_SERVER_H_
#define QUENOR_TESTS_INTEGRATION_SUPPORT_SCRIPTED_SERVER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "tests/support/certificates.h"

namespace quenor::test {

struct ReceivedRequest {
  std::string method;
  std::string target;
  std::map<std::string, std::string> headers;  // Names in lower case.
  std::string body;
};

class ScriptedServer {
 public:
  // One connection, for the script alone. Every call fails once the peer or the server has gone.
  class Connection {
   public:
    virtual ~Connection() = default;
    // Reads one HTTP/1.1 request with its body, of announced length or chunked. False at the end.
    bool ReadRequest(ReceivedRequest* request);
    // As above, without the body.
    bool ReadRequestHead(ReceivedRequest* request);
    // Reads so many bytes, whatever they are.
    bool ReadBytes(size_t count, std::string* bytes);
    bool Write(const std::string& bytes);
    // A whole response with an announced length.
    bool Respond(int status, const std::string& body,
                 const std::map<std::string, std::string>& headers = {});
    // Waits until the client has closed, or the server ends.
    void HoldUntilClosed();
    // Waits, reading nothing, until the server ends.
    virtual void WaitForEnd() = 0;
    // Ends the connection at once with a reset.
    virtual void ResetNow() = 0;
    // Closes this side of the connection; the other may go on.
    virtual void CloseSending() = 0;
    // The client's.
    virtual uint16_t peer_port() const = 0;
    // The number of the connection, from 0 in the order accepted.
    virtual size_t index() const = 0;

   protected:
    // 0 or below at the end.
    virtual long Receive(char* bytes, size_t size) = 0;
    virtual long Send(const char* bytes, size_t size) = 0;

   private:
    bool ReadBody(ReceivedRequest* request);
    bool ReadMore();
    std::string unread_;
  };
  using Script = std::function<void(Connection&)>;

  // On both addresses, so that it is reached whichever one a name stands for. A certificate makes
  // it a TLS server, which agrees to "h2" if that is offered and `http2`. Ends the process when it
  // cannot listen.
  explicit ScriptedServer(Script script, const Certificate* certificate = nullptr,
                          bool http2 = false);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  uint16_t port() const;
  // "http://127.0.0.1:PORT" and so on, without a path.
  std::string Origin(const std::string& host = "127.0.0.1") const;
  size_t accepted() const;
  // Waits until the server's side of so many connections is closed.
  void WaitForClosed(size_t count);

  struct Core;

 private:
  const std::unique_ptr<Core> core_;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_INTEGRATION_SUPPORT_SCRIPTED_SERVER_H_
