#include "tests/collector/support/raw_http.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <stdexcept>
#include <utility>

#include "tests/support/patience.h"

namespace quenor::collector::test {

RawClient::RawClient(int port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd_ < 0 ||
      ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    throw std::runtime_error("cannot connect to port " + std::to_string(port));
  }
  const timeval patience{quenor::test::kPatience.count(), 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
}

RawClient::~RawClient() { ::close(fd_); }

void RawClient::Send(const std::string& bytes) const {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) throw std::runtime_error("server does not take the request");
    sent += static_cast<size_t>(count);
  }
}

void RawClient::EndSending() const { ::shutdown(fd_, SHUT_WR); }

bool RawClient::ReadMore(int flags) {
  char step[64 * 1024];
  const ssize_t got = ::recv(fd_, step, sizeof(step), flags);
  if (got < 0 && errno == ECONNRESET) was_reset_ = true;
  has_ended_ = got == 0 || was_reset_;
  if (got > 0) unread_.append(step, static_cast<size_t>(got));
  return got > 0;
}

std::string RawClient::ReadThrough(const std::string& mark) {
  size_t place = unread_.find(mark);
  while (place == std::string::npos && ReadMore()) place = unread_.find(mark);
  const size_t end = place == std::string::npos ? unread_.size() : place + mark.size();
  std::string text = unread_.substr(0, end);
  unread_.erase(0, end);
  return text;
}

std::string RawClient::ReadAll() {
  while (ReadMore()) {
  }
  return std::move(unread_);
}

std::string RawClient::Read(size_t size) {
  while (unread_.size() < size && ReadMore()) {
  }
  const size_t end = std::min(size, unread_.size());
  std::string text = unread_.substr(0, end);
  unread_.erase(0, end);
  return text;
}

std::string RawClient::ReadWhatIsThere() {
  while (ReadMore(MSG_DONTWAIT)) {
  }
  return std::exchange(unread_, "");
}

std::string Exchange(int port, const std::string& request) {
  RawClient client(port);
  client.Send(request);
  return client.ReadAll();
}

int CountOf(const std::string& text, const std::string& mark) {
  int count = 0;
  for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + 1)) ++count;
  return count;
}

std::string Deflate(const std::string& plain) {
  z_stream stream{};
  if (deflateInit2(&stream, 9, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::runtime_error("deflateInit2 failed");
  }
  std::string packed(deflateBound(&stream, plain.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(plain.data()));
  stream.avail_in = static_cast<uInt>(plain.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  const int code = deflate(&stream, Z_FINISH);
  packed.resize(packed.size() - stream.avail_out);
  deflateEnd(&stream);
  if (code != Z_STREAM_END) throw std::runtime_error("deflate failed");
  return packed;
}

std::string Noise(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

}  // namespace quenor::collector::test
