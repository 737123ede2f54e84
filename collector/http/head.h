// Judges the head of a request while it arrives: whether it is whole, and whether it may be served.
// The rules are those that keep two readers of one connection from cutting it at different places:
// every line ends with CRLF, a header's name stands right before its colon, no line is folded, and
// no control byte stands anywhere. Pure; any thread. Page: docs/guide/collector.md.
#ifndef COLLECTOR_HTTP_HEAD_H_
#define COLLECTOR_HTTP_HEAD_H_

#include <cstddef>
#include <string_view>

namespace quenor::collector {

constexpr size_t kMaxLineBytes = 8 * 1024;   // Of one line, its end included.
constexpr size_t kMaxHeadBytes = 64 * 1024;  // Of the whole head, the empty line included.

class HeadCheck {
 public:
  enum class Result {
    kMore,     // So far so good.
    kWhole,    // The head ends within the input.
    kRefused,  // status() tells how to answer; there is no more to be checked.
  };

  // `input` is everything from the head's first byte on, and begins with what it was at the last
  // call.
  Result Check(std::string_view input);

  // 400, 414 or 431 once refused, else 0.
  int status() const { return status_; }

 private:
  Result Refuse(int status);
  int JudgeLine(std::string_view line) const;

  bool is_first_line_ = true;
  size_t line_begin_ = 0;
  int status_ = 0;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_HTTP_HEAD_H_
