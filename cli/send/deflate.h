// What the command line needs to know of compressed bodies.
#ifndef CLI_SEND_DEFLATE_H_
#define CLI_SEND_DEFLATE_H_

#include <string_view>

namespace quenor::cli {

// Any thread. True when `stream` is a whole raw deflate stream, up to its last byte. False as well
// when memory is exhausted.
bool IsWholeDeflateStream(std::string_view stream);

}  // namespace quenor::cli

#endif  // CLI_SEND_DEFLATE_H_
