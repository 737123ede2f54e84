// A network that has come back, or is another one: noticed at once, not at the end of a time limit.
// Of the default HTTP client; the channel's own timers stay as they are.
#ifndef QUENOR_BASE_PLATFORM_NETWORK_CHANGE_H_
#define QUENOR_BASE_PLATFORM_NETWORK_CHANGE_H_

#include <string>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN

// Any thread; never waits. Says that the network may have changed, as the operating system tells a
// host: idle connections are closed, requests that have no connection yet are tried at once instead
// of when their next attempt is due, and an exchange on a connection whose own address is gone from
// this machine fails, so that it is repeated; all others go on. Once too often costs a handshake;
// more often than a handshake takes, and nothing connects.
void NetworkChanged();

// Any thread. Watches for that itself (on Linux by netlink), on the client's own thread, and acts
// as NetworkChanged() does when an address, or a default route, comes or goes. Off until it is
// turned on; costs nothing while nothing changes. Empty, or why it cannot be watched; then it is
// off.
[[nodiscard]] std::string WatchNetwork(bool on);

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_NETWORK_CHANGE_H_
