#include "services/http_client_curl/sockets/network_linux.h"

#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

QUENOR_NAMESPACE_BEGIN
namespace http_network {
namespace {

// IPv4 that a socket of IPv6 uses counts as IPv4.
std::string AddressOf(const sockaddr* from) {
  if (from != nullptr && from->sa_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(from);
    return std::string(reinterpret_cast<const char*>(&v4->sin_addr), sizeof v4->sin_addr);
  }
  if (from == nullptr || from->sa_family != AF_INET6) return std::string();
  const auto* v6 = reinterpret_cast<const sockaddr_in6*>(from);
  const std::string bytes(reinterpret_cast<const char*>(&v6->sin6_addr), sizeof v6->sin6_addr);
  return IN6_IS_ADDR_V4MAPPED(&v6->sin6_addr) ? bytes.substr(12) : bytes;
}

// What tells a default route from others: gateway, interface and table, as the kernel's bytes.
// Empty for all other messages.
std::string DefaultRoute(const nlmsghdr& message) {
  const bool is_route = message.nlmsg_type == RTM_NEWROUTE || message.nlmsg_type == RTM_DELROUTE;
  if (!is_route || message.nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return std::string();
  const auto* const route = static_cast<const rtmsg*>(NLMSG_DATA(&message));
  if (route->rtm_dst_len != 0 || route->rtm_type != RTN_UNICAST) return std::string();
  std::string key = "default";
  auto left = static_cast<int>(RTM_PAYLOAD(&message));
  for (const auto* each = RTM_RTA(route); RTA_OK(each, left); each = RTA_NEXT(each, left)) {
    if (each->rta_type != RTA_GATEWAY && each->rta_type != RTA_OIF && each->rta_type != RTA_TABLE) {
      continue;
    }
    key.append(reinterpret_cast<const char*>(each), each->rta_len);
  }
  return key;
}

}  // namespace

std::set<std::string> OwnAddresses(Of which) {
  std::set<std::string> addresses;
  ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) return addresses;
  for (const ifaddrs* each = all; each != nullptr; each = each->ifa_next) {
    const unsigned needed = which == Of::kLinked ? IFF_UP | IFF_RUNNING : 0;
    if ((each->ifa_flags & needed) == needed) addresses.insert(AddressOf(each->ifa_addr));
  }
  freeifaddrs(all);
  addresses.erase(std::string());
  return addresses;
}

std::string OwnAddress(int socket) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  return getsockname(socket, any, &length) == 0 ? AddressOf(any) : std::string();
}

std::string Watch::Open() {
  if (fd_ >= 0) return std::string();
  fd_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
  sockaddr_nl groups{};
  groups.nl_family = AF_NETLINK;
  groups.nl_groups =
      RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&groups), sizeof groups) != 0) {
    const int error = errno;
    Close();
    return std::string("the network cannot be watched: ") + std::strerror(error) +
           "; call NetworkChanged() when the system tells of a change";
  }
  addresses_ = OwnAddresses(Of::kLinked);
  return std::string();
}

void Watch::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

Watch::Change Watch::Look() {
  bool is_gain = false;
  alignas(nlmsghdr) char buffer[8192];
  for (;;) {
    const ssize_t size = recv(fd_, buffer, sizeof buffer, 0);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 && errno == ENOBUFS) {
      is_gain = true;  // More than the kernel kept for us.
      continue;
    }
    if (size <= 0) break;
    auto left = static_cast<unsigned>(size);
    for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer); NLMSG_OK(message, left);
         message = NLMSG_NEXT(message, left)) {
      const std::string route = DefaultRoute(*message);
      if (route.empty()) continue;
      if (message->nlmsg_type == RTM_DELROUTE) {
        routes_.erase(route);
      } else if (routes_.insert(route).second) {
        is_gain = true;
      }
    }
  }
  const std::set<std::string> before = std::exchange(addresses_, OwnAddresses(Of::kLinked));
  const auto has = [](const std::set<std::string>& all, const std::set<std::string>& some) {
    return std::includes(all.begin(), all.end(), some.begin(), some.end());
  };
  if (is_gain || !has(before, addresses_)) return Change::kGain;
  return has(addresses_, before) ? Change::kNone : Change::kLoss;
}

}  // namespace http_network
QUENOR_NAMESPACE_END
