// One end of a connection, the other held by the test.
#include "collector/http/connection.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>

namespace quenor::collector {
namespace {

TEST(ConnectionTest, DiscardsWhatComesUntilThePeerHasEndedItsSide) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
  Crew crew(/*seats=*/1, /*most_waiting=*/0);
  const std::atomic<bool> stopping{false};
  Connection connection(ends[0], /*tls=*/nullptr, &crew, stopping);
  EXPECT_TRUE(connection.Discard());  // There is nothing yet.
  const std::string bytes(16 * 1024, 'x');
  while (::send(ends[1], bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0) {
  }

  EXPECT_TRUE(connection.Discard());  // Takes as much as it takes in one go.
  EXPECT_TRUE(connection.Discard());  // Takes the rest.
  ::close(ends[1]);
  EXPECT_FALSE(connection.Discard());
}

}  // namespace
}  // namespace quenor::collector
