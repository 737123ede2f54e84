// RowRunner: plays one row against a channel in virtual time over the real HTTP client, and checks
// what every row promises. Threads: the test's own; ends the test's process never, its test often.
#ifndef QUENOR_TESTS_INTEGRATION_MATRIX_ROW_RUNNER_H_
#define QUENOR_TESTS_INTEGRATION_MATRIX_ROW_RUNNER_H_

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "tests/integration/matrix/client_watch.h"
#include "tests/integration/matrix/peer_process.h"
#include "tests/integration/matrix/row_server.h"
#include "tests/support/fakes/recording_report_events.h"
#include "tests/support/fakes/virtual_time.h"

namespace quenor::test {

// Numbers in /proc/self/fd.
size_t OpenDescriptors();
// Resident memory of this process.
size_t ResidentKib();

class RowRunner {
 public:
  // `peer` may be null: rows that need it are not to be given then.
  explicit RowRunner(PeerProcess* peer);
  ~RowRunner();
  RowRunner(const RowRunner&) = delete;
  RowRunner& operator=(const RowRunner&) = delete;

  // One round: a message goes to the misbehaving server, `failures` times if it fails each time;
  // then the server behaves, and the message and one more are delivered. Failed expectations carry
  // the row's name. Answers what was seen, for a line of the table.
  std::string Run(const Row& row, Protocol protocol, int failures);

  // Drops what was recorded of the last round, with the messages' bytes.
  void Forget() { events_.Clear(); }

  size_t rounds() const { return rounds_; }
  size_t lost() const { return lost_; }

 private:
  void SetLimits(const Row& row);
  // One exchange that has been sent as the `number`-th ends; its task has run.
  Ending NextEnding(size_t number);
  void CheckFailed(const Row& row, const Ending& ending, size_t number);
  // The channel waits for its back-off to the millisecond, and sends again.
  void PassBackOff(size_t failed);
  void AwaitDelivery(const Row& row, size_t failed, size_t* number);
  void SendAnother(ReliableReportChannelHttps* channel, const Row& row, size_t sent);
  void CheckSettings(const Row& row);
  void CheckEnd();
  // What the last save of the channel's cache held, in messages.
  size_t InCache() const;

  PeerProcess* const peer_;
  const RowCertificates certificates_;
  VirtualTime clock_;
  RecordingReportEvents events_;
  ClientWatch* const watch_ = ClientWatch::Get();
  size_t rounds_ = 0;
  size_t lost_ = 0;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_INTEGRATION_MATRIX_ROW_RUNNER_H_
