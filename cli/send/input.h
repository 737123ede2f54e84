// Cuts the input into messages without ever blocking: what has not arrived yet is waited for by the
// caller, who can be interrupted. Threads: one at a time.
// Memory: at most one message (64 MiB) and one read beyond it, however long the input.
#ifndef CLI_SEND_INPUT_H_
#define CLI_SEND_INPUT_H_

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace quenor::cli {

// A longer line or file is refused: a message is held in memory whole.
constexpr size_t kMaxMessageBytes = size_t{64} << 20;

struct Message {
  std::string name;   // "line 17", or the file's name: how messages to people call it.
  std::string bytes;  // Any bytes, NUL included.
  std::string id;     // As name, for scripts: the line's number alone, or the file's name.
};

// The input could not be read on. what() says which and why, without a line end.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Input {
 public:
  enum class Result {
    kMessage,     // `*message` is the next one.
    kWouldBlock,  // Nothing yet: poll fd() for reading, then ask again.
    kEnd,         // No message is left.
  };

  virtual ~Input() = default;

  // Never blocks. Throws InputError, after which it is not called again.
  virtual Result Next(Message* message) = 0;

  // The descriptor to poll after kWouldBlock.
  virtual int fd() const = 0;
};

// Reads one descriptor in steps.
class ByteSource {
 public:
  enum class Result { kBytes, kWouldBlock, kEnd };

  // Borrows `fd`. `name` is what messages to people call it.
  ByteSource(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}

  // Appends what one read brings to `*out`, unless it would block. Throws InputError.
  Result ReadSome(std::string* out);

  int fd() const { return fd_; }

 private:
  int fd_;
  std::string name_;
};

// Each line of a descriptor is one message: an empty one too, and a last one without a line end.
// The line end ('\n' alone) is no part of it.
class LineInput : public Input {
 public:
  // Borrows `fd`.
  LineInput(int fd, std::string name) : source_(fd, std::move(name)) {}

  Result Next(Message* message) override;
  int fd() const override { return source_.fd(); }

 private:
  // True when a whole line was buffered.
  bool TakeLine(Message* message);
  // Counts one more line.
  void NameLine(Message* message);

  ByteSource source_;
  std::string buffer_;
  size_t begin_ = 0;    // Of the next line.
  size_t scanned_ = 0;  // No line end stands in [begin_, scanned_).
  uint64_t lines_ = 0;
  bool at_end_ = false;
};

// Each file whole is one message; "-" is standard input.
class FileInput : public Input {
 public:
  explicit FileInput(std::vector<std::string> paths) : paths_(std::move(paths)) {}
  ~FileInput() override;
  FileInput(const FileInput&) = delete;
  FileInput& operator=(const FileInput&) = delete;

  Result Next(Message* message) override;
  int fd() const override { return fd_; }

 private:
  void Open(const std::string& path);
  void Close();

  const std::vector<std::string> paths_;
  size_t next_ = 0;  // Index of the file being read, or to be opened.
  int fd_ = -1;      // Owned, unless it is standard input.
  std::string bytes_;
};

// Throws InputError when standard input cannot be read.
void CheckStandardInput();

// Throws InputError for the first of the files that cannot be read, as far as that can be told
// without taking anything from it.
void CheckFiles(const std::vector<std::string>& paths);

}  // namespace quenor::cli

#endif  // CLI_SEND_INPUT_H_
