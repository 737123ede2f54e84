// One accepted TCP connection, plain or TLS, as the byte stream that httplib parses.
// Reads and writes wait with poll() on a non-blocking socket, so they can be cut short at shutdown
// and are not bound to descriptors below FD_SETSIZE. Input and output are buffered: a head is
// judged before httplib reads it, byte by byte, and httplib writes a reply in pieces. Threads: one
// at a time; only Interrupt() may be called while another thread uses the connection. Life: made at
// accept, destroyed by the server; the destructor closes the socket.
#ifndef COLLECTOR_HTTP_CONNECTION_H_
#define COLLECTOR_HTTP_CONNECTION_H_

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "collector/clock.h"
#include "collector/http/crew.h"
#include "collector/http/tls.h"

namespace quenor::collector {

class Connection : public httplib::Stream {
 public:
  enum class Progress {
    kDone,
    kMore,    // The peer must send more first.
    kFailed,  // It will not.
  };

  // Takes `fd`, which is non-blocking. Borrows `tls` (may be null: plain), `crew`, which is told of
  // each wait, and `stopping`; all outlive the connection.
  Connection(int fd, SSL_CTX* tls, Crew* crew, const std::atomic<bool>& stopping);
  ~Connection() override;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Goes on with the TLS handshake, if there is one and it has not been done. Does not wait for the
  // peer to send.
  Progress Handshake();
  bool is_handshaken() const { return handshaken_; }

  // "127.0.0.1:40000" or "[::1]:40000".
  const std::string& peer() const { return peer_; }
  int fd() const { return fd_; }

  // True if input is at hand that no poll on the socket would announce.
  bool HasBufferedInput() const;

  // Takes in what has arrived, without waiting. kDone: unread() has become longer.
  Progress Fill();
  // What has been taken in and not been read. Valid until the next call that reads.
  std::string_view unread() const { return std::string_view(input_).substr(input_used_); }

  // Sends everything written so far. False: the peer does not take it any more.
  bool Flush();

  // Drops all output not yet sent and all output to come.
  void Mute();

  // Lets output through again.
  void Unmute() { muted_ = false; }

  // After `bytes` more bytes of input read() returns -1. input_left() tells how many are left.
  void LimitInput(uint64_t bytes) { input_left_ = bytes; }
  uint64_t input_left() const { return input_left_; }

  // From then on read() returns -1. is_late() tells that it has, or that the peer was silent for
  // half a minute.
  void SetDeadline(Time deadline) { deadline_ = deadline; }
  bool is_late() const { return is_late_; }

  // Before the handshake: answers the peer's hello with the fatal alert `alert`.
  void RefuseHandshake(int alert);

  // TLS only. Sends a fatal alert, bad_record_mac, and leaves out the farewell.
  void SendAlert();

  // Leaves out the farewell of TLS when the connection ends.
  void ForgoFarewell() { broken_ = true; }

  // Waits, for at most about a second, until the peer's kernel has everything, and lets the
  // destructor reset the connection.
  void Reset();

  // Sends what has been written and ends our side.
  void EndSending();

  // After EndSending: reads away what has arrived, without waiting, so that the kernel does not
  // reset the connection before the peer has read our last reply. False: the peer has ended its
  // side, too.
  bool Discard();

  // Any thread, while the connection exists. Makes a waiting read return; with `writes_too` also a
  // waiting write.
  void Interrupt(bool writes_too) const;

  // httplib::Stream. read(): bytes read, 0 at the end, -1 on error, time-out or shutdown.
  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }
  ssize_t read(char* data, size_t size) override;
  ssize_t write(const char* data, size_t size) override;
  // For handlers, which ask peer().
  void get_remote_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
  void get_local_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
  socket_t socket() const override { return fd_; }

 private:
  enum class Want { kNothing, kRead, kWrite };

  // On failure *want is what to wait for before the next try; left alone when nothing would help.
  ssize_t ReadSome(char* data, size_t size, Want* want);
  ssize_t WriteSome(const char* data, size_t size, Want* want);
  Want WantOfTls(int code) const;
  bool Wait(Want want);

  const int fd_;
  SslPtr ssl_;  // Null: plain.
  Crew* const crew_;
  const std::atomic<bool>& stopping_;
  bool handshaken_;
  bool broken_ = false;  // The stream is in no state for a farewell.
  bool muted_ = false;
  int refusal_alert_ = 0;  // 0: none.
  bool is_late_ = false;
  Time deadline_ = Time::max();
  uint64_t input_left_ = std::numeric_limits<uint64_t>::max();
  std::string input_;
  size_t input_used_ = 0;
  std::string output_;
  const std::string peer_;
};

// "127.0.0.1:40000" or "[::1]:40000".
std::string HostAndPort(const std::string& ip, int port);

}  // namespace quenor::collector

#endif  // COLLECTOR_HTTP_CONNECTION_H_
