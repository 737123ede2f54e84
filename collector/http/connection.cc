#include "collector/http/connection.h"

#include <linux/sockios.h>
#include <netdb.h>
#include <openssl/err.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "collector/clock.h"

namespace quenor::collector {
namespace {

constexpr int kIoTimeoutMs = 30'000;
constexpr int kResetMs = 1'000;
constexpr int kResetStepMs = 2;
constexpr size_t kInputBufferBytes = 16 * 1024;
constexpr size_t kOutputBufferBytes = 64 * 1024;
constexpr int kMostDiscards = 8;  // Of the buffer's size, in one go.

// ":0" when the peer has gone already.
std::string PeerOf(int fd) {
  sockaddr_storage address{};
  socklen_t bytes = sizeof(address);
  auto* const raw = reinterpret_cast<sockaddr*>(&address);
  char host[NI_MAXHOST];
  char service[NI_MAXSERV];
  if (::getpeername(fd, raw, &bytes) != 0 ||
      ::getnameinfo(raw, bytes, host, sizeof(host), service, sizeof(service),
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return HostAndPort("", 0);
  }
  return HostAndPort(host, std::atoi(service));
}

}  // namespace

std::string HostAndPort(const std::string& ip, int port) {
  const bool is_v6 = ip.find(':') != std::string::npos;
  return (is_v6 ? "[" + ip + "]" : ip) + ":" + std::to_string(port);
}

Connection::Connection(int fd, SSL_CTX* tls, Crew* crew, const std::atomic<bool>& stopping)
    : fd_(fd), crew_(crew), stopping_(stopping), handshaken_(tls == nullptr), peer_(PeerOf(fd)) {
  if (tls == nullptr) return;
  ssl_.reset(SSL_new(tls));
  if (!ssl_ || SSL_set_fd(ssl_.get(), fd_) != 1) broken_ = true;
}

Connection::~Connection() {
  if (ssl_ && handshaken_ && !broken_ && !muted_) {
    ERR_clear_error();
    SSL_shutdown(ssl_.get());  // Says goodbye; there is no need to hear one.
    ERR_clear_error();
  }
  ssl_.reset();
  ::close(fd_);
}

Connection::Progress Connection::Handshake() {
  while (!handshaken_ && !broken_) {
    ERR_clear_error();
    const int code = SSL_accept(ssl_.get());
    if (code == 1) {
      handshaken_ = true;
      break;
    }
    const Want want = WantOfTls(code);
    if (want == Want::kRead) return Progress::kMore;
    if (!Wait(want)) broken_ = true;
  }
  ERR_clear_error();
  return broken_ ? Progress::kFailed : Progress::kDone;
}

bool Connection::HasBufferedInput() const {
  return input_used_ < input_.size() || (ssl_ && SSL_has_pending(ssl_.get()) == 1);
}

Connection::Progress Connection::Fill() {
  input_.erase(0, std::exchange(input_used_, 0));
  const size_t old_size = input_.size();
  input_.resize(old_size + kInputBufferBytes);
  Want want;
  ssize_t got;
  do {
    want = Want::kNothing;
    got = ReadSome(&input_[old_size], kInputBufferBytes, &want);
  } while (got < 0 && want == Want::kWrite && Wait(want));
  input_.resize(old_size + static_cast<size_t>(std::max<ssize_t>(got, 0)));
  if (got > 0) return Progress::kDone;
  if (got < 0 && want == Want::kRead) return Progress::kMore;
  broken_ = broken_ || got < 0;
  return Progress::kFailed;
}

ssize_t Connection::read(char* data, size_t size) {
  size = static_cast<size_t>(std::min<uint64_t>(size, input_left_));
  if (input_left_ == 0) return -1;
  while (input_used_ == input_.size()) {
    if (!Flush()) return -1;
    is_late_ = is_late_ || Now() >= deadline_;
    if (is_late_) return -1;
    const Progress progress = Fill();
    if (progress == Progress::kFailed) return broken_ ? -1 : 0;
    if (progress == Progress::kMore && !Wait(Want::kRead)) return -1;
  }
  const size_t count = std::min(size, input_.size() - input_used_);
  std::memcpy(data, input_.data() + input_used_, count);
  input_used_ += count;
  if (input_left_ != std::numeric_limits<uint64_t>::max()) input_left_ -= count;
  return static_cast<ssize_t>(count);
}

ssize_t Connection::write(const char* data, size_t size) {
  if (muted_) return static_cast<ssize_t>(size);
  output_.append(data, size);
  if (output_.size() >= kOutputBufferBytes && !Flush()) return -1;
  return static_cast<ssize_t>(size);
}

bool Connection::Flush() {
  size_t sent = 0;
  while (sent < output_.size()) {
    Want want = Want::kNothing;
    const ssize_t count = WriteSome(output_.data() + sent, output_.size() - sent, &want);
    if (count > 0) {
      sent += static_cast<size_t>(count);
    } else if (!Wait(want)) {
      broken_ = true;
      break;
    }
  }
  output_.clear();
  return !broken_;
}

void Connection::Mute() {
  output_.clear();
  muted_ = true;
}

void Connection::RefuseHandshake(int alert) {
  refusal_alert_ = alert;
  if (ssl_) SSL_set_app_data(ssl_.get(), &refusal_alert_);
}

// OpenSSL has no call that sends an alert. It sends one for input that is no record of the peer's.
void Connection::SendAlert() {
  static constexpr char kForged[] =
      "\x17\x03\x03\x00\x20"
      "0123456789abcdef0123456789abcdef";
  if (!Flush()) return;
  SSL_set0_rbio(ssl_.get(), BIO_new_mem_buf(kForged, sizeof(kForged) - 1));
  char scratch[kInputBufferBytes];
  ERR_clear_error();
  while (SSL_read(ssl_.get(), scratch, sizeof(scratch)) > 0) {
  }
  ERR_clear_error();
  broken_ = true;
}

void Connection::Reset() {
  const auto deadline = Now() + std::chrono::milliseconds(kResetMs);
  int unsent = 0;
  Flush();
  while (::ioctl(fd_, SIOCOUTQ, &unsent) == 0 && unsent > 0 && Now() < deadline &&
         !stopping_.load(std::memory_order_acquire)) {
    ::poll(nullptr, 0, kResetStepMs);
  }
  const linger at_once{1, 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  broken_ = true;
}

void Connection::EndSending() {
  if (!broken_ && !Flush()) return;
  if (ssl_ && handshaken_ && !broken_) {
    ERR_clear_error();
    SSL_shutdown(ssl_.get());
    ERR_clear_error();
    broken_ = true;  // The farewell has been said.
  }
  ::shutdown(fd_, SHUT_WR);
}

bool Connection::Discard() {
  char scratch[kInputBufferBytes];
  for (int i = 0; i < kMostDiscards; ++i) {
    const ssize_t got = ::recv(fd_, scratch, sizeof(scratch), 0);
    if (got == 0) return false;
    if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  }
  return true;
}

void Connection::Interrupt(bool writes_too) const {
  ::shutdown(fd_, writes_too ? SHUT_RDWR : SHUT_RD);
}

ssize_t Connection::ReadSome(char* data, size_t size, Want* want) {
  // acquire: pairs with the release in CollectorServer::Stop().
  if (broken_ || stopping_.load(std::memory_order_acquire)) return -1;
  if (ssl_) {
    ERR_clear_error();
    const int code = SSL_read(ssl_.get(), data, static_cast<int>(size));
    if (code > 0) return code;
    if (SSL_get_error(ssl_.get(), code) == SSL_ERROR_ZERO_RETURN) return 0;
    *want = WantOfTls(code);
    return -1;
  }
  const ssize_t got = ::recv(fd_, data, size, 0);
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) *want = Want::kRead;
  return got;
}

ssize_t Connection::WriteSome(const char* data, size_t size, Want* want) {
  if (broken_) return -1;
  if (ssl_) {
    ERR_clear_error();
    const int code = SSL_write(ssl_.get(), data, static_cast<int>(size));
    if (code > 0) return code;
    *want = WantOfTls(code);
    return -1;
  }
  const ssize_t count = ::send(fd_, data, size, MSG_NOSIGNAL);
  if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
    *want = Want::kWrite;
  }
  return count;
}

Connection::Want Connection::WantOfTls(int code) const {
  switch (SSL_get_error(ssl_.get(), code)) {
    case SSL_ERROR_WANT_READ:
      return Want::kRead;
    case SSL_ERROR_WANT_WRITE:
      return Want::kWrite;
    default:
      return Want::kNothing;
  }
}

// False: the socket did not become ready in time, is_late_ telling that it was to be read.
bool Connection::Wait(Want want) {
  if (want == Want::kNothing) return false;
  const bool to_read = want == Want::kRead;
  const auto now = Now();
  auto until = now + std::chrono::milliseconds(kIoTimeoutMs);
  if (to_read) until = std::min(until, deadline_);
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - now).count();
  pollfd watched{fd_, static_cast<short>(to_read ? POLLIN : POLLOUT), 0};
  int ready = 0;
  crew_->BeginWait();
  do {
    if (to_read && stopping_.load(std::memory_order_acquire)) break;
    ready = ::poll(&watched, 1, static_cast<int>(std::max<int64_t>(left, 0)));
  } while (ready < 0 && errno == EINTR);
  crew_->EndWait();
  is_late_ = is_late_ || (to_read && ready == 0 && !stopping_.load(std::memory_order_acquire));
  return ready > 0;
}

}  // namespace quenor::collector
