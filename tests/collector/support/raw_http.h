// A client that sends exactly the bytes it is given, for requests that a proper client cannot make.
#ifndef TESTS_COLLECTOR_SUPPORT_RAW_HTTP_H_
#define TESTS_COLLECTOR_SUPPORT_RAW_HTTP_H_

#include <string>

namespace quenor::collector::test {

class RawClient {
 public:
  // Connects to 127.0.0.1. Throws std::runtime_error.
  explicit RawClient(int port);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  // Throws std::runtime_error when the server does not take the bytes.
  void Send(const std::string& bytes) const;
  void EndSending() const;

  // Reads until `mark` has come; what came up to its end. At the end of input, all that came.
  std::string ReadThrough(const std::string& mark);
  // Reads until the server closes or resets the connection.
  std::string ReadAll();
  // Reads `size` bytes, or up to the end of input.
  std::string Read(size_t size);
  // What has come by now; does not wait.
  std::string ReadWhatIsThere();
  // The end of input has been read.
  bool has_ended() const { return has_ended_; }
  // It came with RST, not with FIN.
  bool was_reset() const { return was_reset_; }
  int fd() const { return fd_; }

 private:
  bool ReadMore(int flags = 0);

  int fd_ = -1;
  bool has_ended_ = false;
  bool was_reset_ = false;
  std::string unread_;
};

// Sends `request` on a new connection and reads until the server closes.
std::string Exchange(int port, const std::string& request);

// How often `mark` occurs in `text`.
int CountOf(const std::string& text, const std::string& mark);

// Raw deflate as a sender makes it: window bits -15, level 9, memory level 9.
std::string Deflate(const std::string& plain);

// `size` bytes that follow from `seed` and do not compress.
std::string Noise(size_t size, unsigned seed);

}  // namespace quenor::collector::test

#endif  // TESTS_COLLECTOR_SUPPORT_RAW_HTTP_H_
