#include "tests/integration/support/flood_server.h"

namespace quenor::test {
namespace {

using Connection = ScriptedServer::Connection;

constexpr size_t kMoreThanBuffersHold = 16 << 20;

// An HTTP/2 frame; stream 0 is the connection.
std::string Frame(int type, int flags, int stream, const std::string& payload) {
  std::string frame(9, '\0');
  frame[2] = static_cast<char>(payload.size());
  frame[3] = static_cast<char>(type);
  frame[4] = static_cast<char>(flags);
  frame[8] = static_cast<char>(stream);
  return frame + payload;
}

std::string Many(const std::string& frame, size_t least_bytes) {
  std::string many;
  while (many.size() < least_bytes) many += frame;
  return many;
}

std::string Zeros(size_t count) { return std::string(count, '\0'); }

// Up to the first request's headers.
bool ReadRequest(Connection& connection) {
  std::string bytes;
  if (!connection.ReadBytes(24, &bytes)) return false;  // The client's preface.
  do {
    if (!connection.ReadBytes(9, &bytes)) return false;
    const auto at = [&](size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const int size = at(0) << 16 | at(1) << 8 | at(2);
    std::string payload;
    if (!connection.ReadBytes(static_cast<size_t>(size), &payload)) return false;
  } while (bytes[3] != 1);  // HEADERS.
  return true;
}

}  // namespace

const std::vector<Flood>& Floods() {
  static const std::vector<Flood> floods = {
      {"EmptyData", Frame(0, 0, 1, "")},
      {"Priority", Frame(2, 0, 1, Zeros(4) + "\x10")},
      {"WindowUpdate", Frame(8, 0, 0, Zeros(3) + "\1")},
      {"StreamWindowUpdate", Frame(8, 0, 1, Zeros(3) + "\1")},
      {"Unknown", Frame(0x42, 0, 0, "")},
      {"UnknownOnStream", Frame(0x42, 0, 1, "")},
      {"PingAnswer", Frame(6, 1, 0, "12345678")},
      {"AltSvc", Frame(10, 0, 0, Zeros(2))},
      {"PaddedData", Frame(0, 8, 1, "\5" + Zeros(5)), true},
      {"Ping", Frame(6, 0, 0, "12345678"), true},
      {"Settings", Frame(4, 0, 0, ""), true},
      // By then the client reads without a pause.
      {"CancelledStream", Frame(3, 0, 1, Zeros(3) + "\x08"), true, 8 << 20},
  };
  return floods;
}

FloodServer::FloodServer(const Flood& flood, const Certificate& certificate)
    : server_([this, flood](Connection& connection) { Serve(connection, flood); }, &certificate,
              /*http2*/ true) {}

void FloodServer::Serve(Connection& connection, const Flood& flood) {
  const std::string lead = Many(Frame(0x42, 0, 0, ""), flood.lead_bytes);
  const std::string many = Many(lead + flood.frame, 1 << 18);
  size_t written = 0;
  if (connection.Write(Frame(4, 0, 0, "")) && ReadRequest(connection) &&
      connection.Write(Frame(1, 4, 1, "\x88"))) {  // Status 200, and no end of the stream.
    while (connection.Write(many)) {
      written += many.size();
      if (written > kMoreThanBuffersHold) Tell();
    }
  }
  Tell();
}

}  // namespace quenor::test
