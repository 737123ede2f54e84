// The SDK's log. Levels: 0 summaries, 1 refusals, 2 errors and warnings.
#ifndef QUENOR_BASE_PLATFORM_LOCAL_LOG_H_
#define QUENOR_BASE_PLATFORM_LOCAL_LOG_H_

#include <cstddef>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN

// Any thread. Formats one line, however long, and gives it to the sink. Control bytes in the text
// (0x00 to 0x1f and 0x7f, line ends too) come out escaped as \n, \r, \t or \xNN, so that a line
// stays one line; all others, backslashes too, come out as they are. When the format fails or
// memory is exhausted the line says so. Leaves errno alone. Borrows its arguments until it returns.
void LocalLog(int level, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Receives each line on the thread that logged it, one call at a time per process. `text` ends with
// a NUL that is not counted in `size`; it and `file` are borrowed until the sink returns. A sink
// must not log and must not wait for a thread that does: a line that it logs itself all the same
// goes to standard error instead, like the default sink's. A sink that throws ends the process,
// after a line that says so.
using LogSink = void (*)(void* context, int level, const char* file, int line, const char* text,
                         size_t size);

// Any thread. Replaces the sink; null brings the default back, which writes levels 1 and 2 to
// standard error as "quenor[LEVEL] file:line text", raises no SIGPIPE, and drops what a full
// non-blocking standard error does not take within a tenth of a second or so. When it returns, the
// old sink is no longer called and its context may be freed; called by the sink itself it holds
// from the next line on. `context` may be null; it is borrowed until the sink is replaced.
void SetLogSink(LogSink sink, void* context);

// Any thread. Names the implementation that is linked.
const char* LocalLogImplementationName();

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_LOCAL_LOG_H_
