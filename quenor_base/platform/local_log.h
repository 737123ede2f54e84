// The SDK's log. Levels: 0 summaries, 1 refusals, 2 errors and warnings.
#ifndef QUENOR_BASE_PLATFORM_LOCAL_LOG_H_
#define QUENOR_BASE_PLATFORM_LOCAL_LOG_H_

#include <cstddef>

namespace quenor {

// Any thread. Formats one line, however long, and gives it to the sink. Control bytes in the text
// (line ends too) come out escaped as \n, \t or \xNN, so that a line stays one line. Borrows its
// arguments until it returns.
void LocalLog(int level, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Receives each line on the thread that logged it, one call at a time per process. `text` ends with
// a NUL that is not counted in `size`; it is borrowed until the sink returns. A sink must not log.
using LogSink = void (*)(void* context, int level, const char* file, int line, const char* text,
                         size_t size);

// Any thread. Replaces the sink; null brings the default back, which writes levels 1 and 2 to
// standard error. When it returns, the old sink is no longer called and `context` may be freed.
void SetLogSink(LogSink sink, void* context);

// Any thread. Names the implementation that is linked.
const char* LocalLogImplementationName();

}  // namespace quenor

#endif  // QUENOR_BASE_PLATFORM_LOCAL_LOG_H_
