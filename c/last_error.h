// What quenor_last_error() answers. Threads: each has its own.
#ifndef C_LAST_ERROR_H_
#define C_LAST_ERROR_H_

#include <string>

std::string& LastError();

#endif  // C_LAST_ERROR_H_
