// What the fuzzers of addresses compare texts with. Any thread.
#ifndef QUENOR_FUZZERS_ADDRESS_TEXT_H_
#define QUENOR_FUZZERS_ADDRESS_TEXT_H_

#include <string>

namespace quenor::fuzz {

// As libcurl decodes a host, and what it is given for user and password of a proxy.
std::string Decoded(const std::string& text);

// An address or a name in one spelling.
std::string Canonical(const std::string& host);

}  // namespace quenor::fuzz

#endif  // QUENOR_FUZZERS_ADDRESS_TEXT_H_
