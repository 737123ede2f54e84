#include "tests/integration/matrix/row_server.h"

#include <cstdlib>

namespace quenor::test {
namespace {

bool IsWanted(const Row& row) {
  const char* const part = std::getenv("QUENOR_MATRIX_ROW");
  return part == nullptr || row.name.find(part) != std::string::npos;
}

}  // namespace

std::vector<Cell> CellsOf(const Rows& rows, bool has_peer) {
  std::vector<Cell> cells;
  for (const Row& row : rows) {
    if (!IsWanted(row)) continue;
    if (row.http1 || (has_peer && row.peer_also_http1)) cells.push_back({row, Protocol::kHttp1});
    if (has_peer && !row.peer.empty()) cells.push_back({row, Protocol::kHttp2});
  }
  return cells;
}

const char* Name(Protocol protocol) { return protocol == Protocol::kHttp1 ? "1.1" : "2  "; }

RowCertificates::RowCertificates()
    : authority_(folder_.path(), "ca"), unknown_authority_(folder_.path(), "other") {
  constexpr char kNames[] = "DNS:localhost,IP:127.0.0.1";
  certificates_[Row::kGood] = authority_.Issue("good", kNames);
  certificates_[Row::kExpired] = authority_.Issue("expired", kNames, -7000, -3600);
  certificates_[Row::kNotYetValid] = authority_.Issue("not-yet", kNames, 3600, 7000);
  certificates_[Row::kOtherHost] = authority_.Issue("other-host", "DNS:example.com,IP:127.0.0.2");
  certificates_[Row::kOtherAuthority] = unknown_authority_.Issue("unknown", kNames);
}

RowServer::RowServer(const Row& row, Protocol protocol, const RowCertificates& certificates,
                     PeerProcess* peer)
    : row_(row), good_(certificates.Of(Row::kGood)) {
  const Certificate& certificate = certificates.Of(row.certificate);
  if (protocol == Protocol::kHttp1 && row.http1) {
    scripted_ = std::make_unique<ScriptedServer>(
        [this](ScriptedServer::Connection& connection) { Serve(connection); }, &certificate);
    port_ = scripted_->port();
  } else {
    peer_ = peer;
    port_ = peer->Arm(row.peer, certificate);
  }
}

RowServer::~RowServer() {
  if (peer_ != nullptr) peer_->Disarm();
}

void RowServer::Behave() {
  behaves_ = true;
  if (peer_ != nullptr) peer_->Behave(good_);
}

void RowServer::Serve(ScriptedServer::Connection& connection) {
  if (row_.at_once && !behaves_) {
    row_.http1(connection);
    return;
  }
  ReceivedRequest request;
  while (connection.ReadRequest(&request)) {
    if (behaves_) {
      connection.Respond(200, "{}", {{"Connection", "close"}});
      return;
    }
    if (!row_.http1(connection)) return;
  }
}

}  // namespace quenor::test
