// Which socket is cut: pairs of TCP sockets over loopback.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "services/http_client_curl/sockets/sockets_linux.h"

QUENOR_NAMESPACE_BEGIN
namespace {

// One end is among the sockets, the other is the test's.
class Pair {
 public:
  explicit Pair(HttpSockets* sockets) : sockets_(sockets) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(0, bind(listener, any, size));
    EXPECT_EQ(0, listen(listener, 1));
    EXPECT_EQ(0, getsockname(listener, any, &size));
    mine_ = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(0, connect(mine_, any, size));
    theirs_ = accept(listener, any, &size);
    ends_ = EndsOf(mine_);
    close(listener);
    sockets_->Add(mine_);
  }
  ~Pair() {
    if (mine_ >= 0) Close();
    close(theirs_);
  }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;

  // So many bytes arrive, of which so many are read.
  void Take(size_t arriving, size_t reading) {
    const std::string bytes(arriving, 'x');
    EXPECT_EQ(static_cast<ssize_t>(arriving), send(theirs_, bytes.data(), arriving, 0));
    std::string read(reading, '\0');
    EXPECT_EQ(static_cast<ssize_t>(reading), recv(mine_, read.data(), reading, MSG_WAITALL));
  }
  void Close() {
    EXPECT_EQ(0, sockets_->Close(mine_));
    mine_ = -1;
  }
  bool IsCut() const {
    char byte;
    return recv(theirs_, &byte, 1, MSG_DONTWAIT) == 0;
  }
  const HttpEnds& ends() const { return ends_; }

 private:
  HttpSockets* const sockets_;
  int mine_ = -1;
  int theirs_ = -1;
  HttpEnds ends_;
};

TEST(HttpSocketsTest, CutsTheOneFromWhichMostWasReadSinceItWasMarked) {
  HttpSockets sockets;
  Pair early(&sockets), little(&sockets), most(&sockets);
  early.Take(9000, 9000);
  sockets.Mark();
  little.Take(2000, 2000);
  most.Take(3000, 3000);

  EXPECT_FALSE(sockets.CutBusiest(3001));
  EXPECT_TRUE(sockets.CutBusiest(2000));

  EXPECT_TRUE(most.IsCut());
  EXPECT_FALSE(little.IsCut());
  EXPECT_FALSE(early.IsCut());
  EXPECT_TRUE(sockets.WasCut(most.ends()));
  EXPECT_FALSE(sockets.WasCut(little.ends()));
}

TEST(HttpSocketsTest, WhatIsNotReadDoesNotCount) {
  HttpSockets sockets;
  Pair pair(&sockets);
  sockets.Mark();
  pair.Take(5000, 1000);

  EXPECT_FALSE(sockets.CutBusiest(1001));
  EXPECT_TRUE(sockets.CutBusiest(1000));
}

TEST(HttpSocketsTest, ClosedOneIsForgottenWithItsNumberButNotThatItWasCut) {
  HttpSockets sockets;
  Pair pair(&sockets);
  sockets.Mark();
  pair.Take(5000, 5000);
  ASSERT_TRUE(sockets.CutBusiest(5000));

  pair.Close();

  EXPECT_TRUE(sockets.All().empty());
  EXPECT_FALSE(sockets.CutBusiest(1));
  EXPECT_TRUE(sockets.WasCut(pair.ends()));
  HttpEnds other = pair.ends();  // From the same port to another server.
  ++other.peer.port;
  EXPECT_FALSE(sockets.WasCut(other));
}

TEST(HttpSocketsTest, OneThatWasAddedAfterTheMarkCountsFromItsStart) {
  HttpSockets sockets;
  sockets.Mark();
  Pair pair(&sockets);
  pair.Take(1000, 1000);

  EXPECT_TRUE(sockets.CutBusiest(1000));
  EXPECT_TRUE(pair.IsCut());
}

}  // namespace
QUENOR_NAMESPACE_END
