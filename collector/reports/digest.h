// SHA-256 of a body, by OpenSSL. Threads: any.
#ifndef COLLECTOR_REPORTS_DIGEST_H_
#define COLLECTOR_REPORTS_DIGEST_H_

#include <string>
#include <string_view>

namespace quenor::collector {

// Any thread. 64 lower-case hexadecimal digits. Throws std::runtime_error if OpenSSL refuses.
std::string Sha256Hex(std::string_view bytes);

}  // namespace quenor::collector

#endif  // COLLECTOR_REPORTS_DIGEST_H_
