// The matrix: every misbehaviour of a server, over both protocols, against the channel as shipped.
// The channel's queue runs in virtual time; network, TLS and client are real. The resend limit is
// set to its highest value: no message may be given up.
#include <gtest/gtest.h>
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <random>

#include "tests/integration/matrix/row_runner.h"
#include "tests/support/patience.h"

namespace quenor::test {
namespace {

bool IsFull() {
  const char* const full = std::getenv("QUENOR_NETWORK_FULL");
  return full != nullptr && *full == '1';
}

// The largest rows come and go with tens of MiB; a message leaked by each round would show.
constexpr size_t kMostGrowthKib = 4096;

// Resident memory once the allocator has given back what it can.
size_t TrimmedKib() {
  malloc_trim(0);
  return ResidentKib();
}

// Has large blocks come from the kernel and go back there, so that holes between them do not count.
void KeepLargeBlocksApart() { mallopt(M_MMAP_THRESHOLD, 256 << 10); }

std::string Text(const Expected& expected) {
  switch (expected.what) {
    case Expected::kDelivered:
      return "delivered";
    case Expected::kEither:
      return "either";
    case Expected::kStatus:
      return "status";
    case Expected::kFails:
      break;
  }
  return "fails";
}

class MatrixTest : public ::testing::Test {
 protected:
  MatrixTest() : why_no_peer_(PeerProcess::WhyNot()) {
    if (why_no_peer_.empty()) peer_ = std::make_unique<PeerProcess>();
    if (!why_no_peer_.empty())
      std::cout << "HTTP/2 and TLS rows left out: " << why_no_peer_ << "\n";
    runner_ = std::make_unique<RowRunner>(peer_.get());
    // What the first request ever leaves open stays: the client's own wake-up pair.
    Row good;
    good.name = "warm-up";
    good.expected = Expected::Delivered();
    good.http1 = [](ScriptedServer::Connection& connection) {
      return connection.Respond(200, "{}");
    };
    runner_->Run(good, Protocol::kHttp1, 1);
  }

  // Each row is failed so often that the back-off has reached its longest; a row that has to wait
  // for a real limit, once in a short run.
  static int Failures(const Row& row) {
    if (row.is_slow || row.low_speed) return IsFull() ? 3 : 1;
    return row.is_big && !IsFull() ? 2 : 5;
  }

  void RunAll(const Rows& rows) {
    const size_t before = runner_->rounds();
    bool seen[2] = {false, false};
    for (const Cell& cell : CellsOf(rows, peer_ != nullptr)) {
      const size_t open = OpenDescriptors();
      const auto before_row = Now();
      const std::string ending = runner_->Run(cell.row, cell.protocol, Failures(cell.row));
      const auto took = Now() - before_row;
      const size_t left = OpenDescriptors();
      EXPECT_EQ(open, left) << cell.row.name << ", HTTP/" << Name(cell.protocol);
      std::printf(
          "%s | %-9s | %-9s | %5d ms | %s\n", Name(cell.protocol), Text(cell.row.expected).c_str(),
          ending.c_str(),
          static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(took).count()),
          cell.row.name.c_str());
      seen[cell.protocol == Protocol::kHttp2] = true;
    }
    std::printf("%zu misbehaviours x %d protocols, rounds %zu, lost %zu\n", rows.size(),
                seen[0] + seen[1], runner_->rounds() - before, runner_->lost());
    EXPECT_EQ(0u, runner_->lost());
  }

  const std::string why_no_peer_;
  std::unique_ptr<PeerProcess> peer_;
  std::unique_ptr<RowRunner> runner_;
};

TEST_F(MatrixTest, TcpAndTlsMisbehaviourLosesNothing) {
  if (peer_ == nullptr) GTEST_SKIP() << why_no_peer_;
  RunAll(TlsRows());
}

TEST_F(MatrixTest, OddRepliesLoseNothingAndRetuneAsTheyMay) { RunAll(ReplyRows()); }

TEST_F(MatrixTest, Http1MisbehaviourLosesNothing) { RunAll(Http1Rows()); }

TEST_F(MatrixTest, Http2MisbehaviourLosesNothing) {
  if (peer_ == nullptr) GTEST_SKIP() << why_no_peer_;
  RunAll(Http2Rows());
}

// Rows in random order, as often as it takes for a leak to show.
TEST_F(MatrixTest, RandomRowsLeaveNeitherDescriptorsNorMemory) {
  KeepLargeBlocksApart();
  const size_t rounds = IsFull() ? 1000 : 60;
  const size_t warm_up = IsFull() ? 100 : 20;
  const char* const given = std::getenv("QUENOR_TEST_SEED");
  const unsigned seed = given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10))
                                         : std::random_device()();
  std::printf("seed %u (QUENOR_TEST_SEED)\n", seed);
  std::mt19937 random(seed);
  std::vector<Cell> cells;
  for (const Rows& rows : {TlsRows(), ReplyRows(), Http1Rows(), Http2Rows()}) {
    for (Cell& cell : CellsOf(rows, peer_ != nullptr)) {
      const bool waits = cell.row.is_slow || cell.row.low_speed;
      if (IsFull() || !waits) cells.push_back(std::move(cell));
    }
  }
  ASSERT_FALSE(cells.empty());
  size_t open = 0;
  size_t resident_kib = 0;
  const size_t before = runner_->rounds();
  for (size_t round = 0; round < rounds; ++round) {
    if (round == warm_up) {
      runner_->Forget();
      open = OpenDescriptors();
      resident_kib = TrimmedKib();
    }
    const Cell& cell = cells[random() % cells.size()];
    runner_->Run(cell.row, cell.protocol, 1 + static_cast<int>(random() % 2));
  }
  runner_->Forget();
  const size_t open_at_end = OpenDescriptors();
  const size_t resident_at_end_kib = TrimmedKib();
  std::printf(
      "%zu cells, rounds %zu, lost %zu; after %zu rounds %zu descriptors and %zu KiB, "
      "at the end %zu and %zu KiB\n",
      cells.size(), runner_->rounds() - before, runner_->lost(), warm_up, open, resident_kib,
      open_at_end, resident_at_end_kib);

  EXPECT_EQ(0u, runner_->lost());
  EXPECT_EQ(open, open_at_end);
#if !defined(QUENOR_SANITIZED)
  EXPECT_LT(resident_at_end_kib, resident_kib + kMostGrowthKib);
#endif
}

}  // namespace
}  // namespace quenor::test
