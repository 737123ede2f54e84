// Has the sockets of this program connect from one local port, as may happen by chance on a machine
// that talks to many servers. A program that links local_port.cc puts its connect() before the C
// library's, for the shared libraries that it uses (libcurl) too. Threads: any.
#ifndef QUENOR_TESTS_INTEGRATION_SUPPORT_LOCAL_PORT_H_
#define QUENOR_TESTS_INTEGRATION_SUPPORT_LOCAL_PORT_H_

#include <cstdint>

namespace quenor::test {

// From here on, IPv4 alone; 0: as the kernel likes.
void ConnectFrom(uint16_t port);

}  // namespace quenor::test

#endif  // QUENOR_TESTS_INTEGRATION_SUPPORT_LOCAL_PORT_H_
