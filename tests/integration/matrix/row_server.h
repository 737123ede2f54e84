// RowServer: the misbehaving server of one row of the matrix, of either kind; and the cells that
// the rows make. Threads: the test's own, and the server's.
#ifndef QUENOR_TESTS_INTEGRATION_MATRIX_ROW_SERVER_H_
#define QUENOR_TESTS_INTEGRATION_MATRIX_ROW_SERVER_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/integration/matrix/peer_process.h"
#include "tests/integration/matrix/row.h"
#include "tests/support/certificates.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {

// One cell of the matrix.
struct Cell {
  Row row;
  Protocol protocol;
};

// Those of the rows that are wanted: QUENOR_MATRIX_ROW is a part of their names.
std::vector<Cell> CellsOf(const Rows& rows, bool has_peer);
const char* Name(Protocol protocol);

// One of each kind, in a folder of their own.
class RowCertificates {
 public:
  RowCertificates();

  const Certificate& Of(Row::Kind kind) const { return certificates_.at(kind); }
  const std::string& ca_file() const { return authority_.ca_file(); }
  const std::string& folder() const { return folder_.path(); }

 private:
  const TempFolder folder_;
  CertificateAuthority authority_;
  CertificateAuthority unknown_authority_;
  std::map<Row::Kind, Certificate> certificates_;
};

class RowServer {
 public:
  // Borrows all of these; `peer` may be null where the row does not need it.
  RowServer(const Row& row, Protocol protocol, const RowCertificates& certificates,
            PeerProcess* peer);
  ~RowServer();
  RowServer(const RowServer&) = delete;
  RowServer& operator=(const RowServer&) = delete;

  std::string Url() const { return "https://127.0.0.1:" + std::to_string(port_) + "/reports"; }
  // From now on it does as a server should.
  void Behave();

 private:
  void Serve(ScriptedServer::Connection& connection);

  const Row& row_;
  const Certificate& good_;
  std::atomic<bool> behaves_{false};
  PeerProcess* peer_ = nullptr;
  uint16_t port_ = 0;
  std::unique_ptr<ScriptedServer> scripted_;  // Last: its threads use what is above.
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_INTEGRATION_MATRIX_ROW_SERVER_H_
