// The log: vsnprintf to the host's sink, or to standard error.
#include <poll.h>
#include <signal.h>
#include <sys/uio.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/base/lock.h"
#include "quenor_base/platform/base/thread_annotations.h"
#include "quenor_base/platform/exception_barrier.h"
#include "quenor_base/platform/gathered_wake_ups.h"
#include "quenor_base/platform/local_log.h"

QUENOR_NAMESPACE_BEGIN
namespace {

constexpr int kStderr = 2;
constexpr int kPollMs = 10;     // How long a full standard error is waited for at a time,
constexpr int kMaxStalls = 10;  // and how often in a row before the rest of a line is dropped.

// --- Formatting ---------------------------------------------------------------------------------

// Bytes on the stack that move to the heap when they outgrow it.
class LineBuffer {
 public:
  LineBuffer() = default;
  ~LineBuffer() { std::free(heap_); }
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;

  char* data() { return heap_ != nullptr ? heap_ : stack_; }
  size_t capacity() const { return capacity_; }

  // Makes room for `size` bytes and keeps the content. False when memory is exhausted; nothing
  // has changed then.
  bool Reserve(size_t size) {
    if (size <= capacity_) return true;
    char* const grown = static_cast<char*>(std::realloc(heap_, size));
    if (grown == nullptr) return false;
    if (heap_ == nullptr) std::memcpy(grown, stack_, sizeof(stack_));
    heap_ = grown;
    capacity_ = size;
    return true;
  }

 private:
  char stack_[1024];
  char* heap_ = nullptr;  // Owned.
  size_t capacity_ = sizeof(stack_);
};

// How many bytes `c` takes once it is escaped.
size_t EscapedWidth(char c) {
  if (c == '\n' || c == '\t' || c == '\r') return 2;
  const unsigned char byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f ? 4 : 1;
}

size_t EscapedSize(const char* text, size_t size) {
  size_t escaped_size = 0;
  for (size_t i = 0; i < size; ++i) escaped_size += EscapedWidth(text[i]);
  return escaped_size;
}

// How many bytes from the start of `text` fit into `room` once they are escaped.
size_t FittingPrefix(const char* text, size_t size, size_t room) {
  size_t used = 0;
  for (size_t i = 0; i < size; ++i) {
    used += EscapedWidth(text[i]);
    if (used > room) return i;
  }
  return size;
}

// Writes `c` escaped so that it ends before `end`; returns where it starts.
char* EscapeBackwards(char c, char* end) {
  static const char kHex[] = "0123456789abcdef";
  const size_t width = EscapedWidth(c);
  if (width == 1) {
    *--end = c;
  } else if (width == 2) {
    *--end = c == '\n' ? 'n' : c == '\t' ? 't' : 'r';
    *--end = '\\';
  } else {
    *--end = kHex[static_cast<unsigned char>(c) & 0xf];
    *--end = kHex[static_cast<unsigned char>(c) >> 4];
    *--end = 'x';
    *--end = '\\';
  }
  return end;
}

// Escapes the first `size` bytes in place, back to front, and ends them with a NUL. There must be
// room for EscapedSize() bytes and the NUL. Returns the new size.
size_t EscapeInPlace(char* text, size_t size) {
  const size_t escaped_size = EscapedSize(text, size);
  text[escaped_size] = '\0';
  if (escaped_size == size) return size;
  char* end = text + escaped_size;
  for (size_t i = size; i > 0; --i) end = EscapeBackwards(text[i - 1], end);
  return escaped_size;
}

// Says in the buffer that a line could not be formatted; returns its size.
size_t DescribeFormatError(LineBuffer* line, const char* format, int error) {
  const int length =
      std::snprintf(line->data(), line->capacity(),
                    "log: error %d in formatting a line; its format is \"%s\"", error, format);
  const size_t size = static_cast<size_t>(std::max(length, 0));
  return size < line->capacity() ? size : line->capacity() - 1;
}

// Formats into the buffer; returns the size that is there. `*lost` is how many bytes memory did not
// suffice for.
size_t Format(LineBuffer* line, const char* format, va_list args, size_t* lost) {
  const int caller_errno = errno;  // "%m" may ask for it, twice.
  va_list again;
  va_copy(again, args);
  int length = std::vsnprintf(line->data(), line->capacity(), format, args);
  size_t size = static_cast<size_t>(std::max(length, 0));
  if (size >= line->capacity()) {
    if (line->Reserve(size + 1)) {
      errno = caller_errno;
      length = std::vsnprintf(line->data(), line->capacity(), format, again);
    } else {
      *lost = size - (line->capacity() - 1);
      size = line->capacity() - 1;
    }
  }
  if (length < 0) size = DescribeFormatError(line, format, errno);
  va_end(again);
  return size;
}

// Escapes the `size` bytes of the buffer and, when memory did not suffice for the whole line, says
// so at its end. Returns the size of the finished line.
size_t Finish(LineBuffer* line, size_t size, size_t lost) {
  if (lost == 0 && line->Reserve(EscapedSize(line->data(), size) + 1)) {
    return EscapeInPlace(line->data(), size);
  }
  char note[80];
  constexpr size_t kNoteRoom = sizeof(note);
  const size_t kept = FittingPrefix(line->data(), size, line->capacity() - kNoteRoom);
  std::snprintf(note, sizeof(note), " [log: out of memory, %zu more bytes are lost]",
                lost + (size - kept));
  const size_t escaped_size = EscapeInPlace(line->data(), kept);
  const size_t note_size = std::strlen(note);
  std::memcpy(line->data() + escaped_size, note, note_size + 1);
  return escaped_size + note_size;
}

// --- Standard error -----------------------------------------------------------------------------

// Keeps a write to a pipe that nobody reads from raising SIGPIPE in the host, whatever the host has
// arranged for that signal. This thread only.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigemptyset(&sigpipe_);
    sigaddset(&sigpipe_, SIGPIPE);
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    was_pending_ = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &sigpipe_, &old_mask_);
  }
  ~SigpipeGuard() { pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr); }
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

  // After a write that failed with EPIPE: takes back the signal it left pending, and no other.
  void Discard() {
    if (was_pending_) return;
    const struct timespec at_once = {0, 0};
    while (sigtimedwait(&sigpipe_, nullptr, &at_once) < 0 && errno == EINTR) {
    }
  }

 private:
  sigset_t sigpipe_;
  sigset_t old_mask_;
  bool was_pending_ = false;
};

// Takes `written` bytes off the front of the parts.
void Advance(struct iovec** parts, int* count, size_t written) {
  while (*count > 0 && written >= (*parts)->iov_len) {
    written -= (*parts)->iov_len;
    ++*parts;
    --*count;
  }
  if (*count == 0) return;
  (*parts)->iov_base = static_cast<char*>((*parts)->iov_base) + written;
  (*parts)->iov_len -= written;
}

// Writes the parts with one call if the system takes them all. A standard error that is full and
// does not block is waited for a little, then the rest is dropped; one that is broken is left
// alone: there is nobody left to tell.
void WriteParts(struct iovec* parts, int count) {
  SigpipeGuard guard;
  int stalls = 0;
  while (count > 0) {
    const ssize_t written = writev(kStderr, parts, count);
    if (written > 0) {
      Advance(&parts, &count, static_cast<size_t>(written));
      stalls = 0;
    } else if (written < 0 && errno == EINTR) {
      continue;
    } else if ((written == 0 || errno == EAGAIN || errno == EWOULDBLOCK) && stalls < kMaxStalls) {
      ++stalls;
      struct pollfd ready = {kStderr, POLLOUT, 0};
      poll(&ready, 1, kPollMs);
    } else {
      if (written < 0 && errno == EPIPE) guard.Discard();
      return;
    }
  }
}

struct iovec Part(const char* text, size_t size) {
  return {const_cast<char*>(text), size};
}

void WriteToStderr(int level, const char* file, int line, const char* text, size_t size) {
  if (level != 1 && level != 2) return;
  char head[32];
  char place[32];
  const int head_size = std::snprintf(head, sizeof(head), "quenor[%d] ", level);
  const int place_size = std::snprintf(place, sizeof(place), ":%d ", line);
  struct iovec parts[] = {Part(head, static_cast<size_t>(head_size)), Part(file, std::strlen(file)),
                          Part(place, static_cast<size_t>(place_size)), Part(text, size),
                          Part("\n", 1)};
  WriteParts(parts, 5);
}

// --- The sink -----------------------------------------------------------------------------------

struct State {
  explicit State(State* parents) {
    if (parents == nullptr) return;
    context.store(parents->context.load());
    sink.store(parents->sink.load());
  }

  base::Lock lock;
  // Guarded by the lock; atomic for a child that is forked meanwhile.
  std::atomic<LogSink> sink{nullptr};  // Null: standard error.
  std::atomic<void*> context{nullptr};
};

State& GetState() {
  static base::OnePerProcess<State> state;
  return state.Get();
}

// Set while this thread is inside the sink and so holds the lock.
thread_local bool in_sink = false;

void Deliver(int level, const char* file, int line, const char* text, size_t size) {
  base::GatheredWakeUps::CloseOpen();  // The sink is the host's.
  if (in_sink) {
    WriteToStderr(level, file, line, text, size);
    return;
  }
  State& state = GetState();
  base::AutoLock hold(state.lock);
  const LogSink sink = state.sink.load();
  if (sink == nullptr) {
    WriteToStderr(level, file, line, text, size);
    return;
  }
  in_sink = true;
  base::EndOnException("the host's log sink",
                       [&] { sink(state.context.load(), level, file, line, text, size); });
  in_sink = false;
}

// The calling thread must hold the lock. In an order in which no sink ever stands beside another's
// context.
void Replace(State* state, LogSink sink, void* context) QUENOR_REQUIRES(state->lock) {
  state->sink.store(nullptr);
  state->context.store(context);
  state->sink.store(sink);
}

// From inside the sink: the calling thread holds the lock further up its stack.
void ReplaceInsideSink(LogSink sink, void* context) QUENOR_NO_THREAD_SAFETY_ANALYSIS {
  Replace(&GetState(), sink, context);
}

}  // namespace

void LocalLog(int level, const char* file, int line, const char* format, ...) {
  const int caller_errno = errno;
  LineBuffer text;
  size_t lost = 0;
  va_list args;
  va_start(args, format);
  const size_t raw_size = Format(&text, format, args, &lost);
  va_end(args);
  const size_t size = Finish(&text, raw_size, lost);
  Deliver(level, file, line, text.data(), size);
  errno = caller_errno;
}

void SetLogSink(LogSink sink, void* context) {
  if (in_sink) {
    ReplaceInsideSink(sink, context);
    return;
  }
  State& state = GetState();
  base::AutoLock hold(state.lock);
  Replace(&state, sink, context);
}

const char* LocalLogImplementationName() { return "stderr"; }

QUENOR_NAMESPACE_END
