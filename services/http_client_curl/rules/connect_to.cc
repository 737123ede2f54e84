#include "services/http_client_curl/rules/connect_to.h"

#include <algorithm>

#include "services/http_client_curl/rules/hosts.h"

QUENOR_NAMESPACE_BEGIN
namespace http_names {
namespace {

// The text up to the next ':' that stands in no brackets, which is taken away with it.
std::string TakeField(std::string* rest, bool* is_last) {
  const size_t bracket = rest->empty() || rest->front() != '[' ? 0 : rest->find(']');
  const size_t colon = rest->find(':', std::min(bracket, rest->size()));
  std::string field = rest->substr(0, colon);
  *is_last = colon == std::string::npos;
  rest->erase(0, *is_last ? colon : colon + 1);
  return field;
}

}  // namespace

std::string ConnectTo(const std::string& entry, std::string* text) {
  const std::string field = "connect_to: ";
  const std::string hint = "; give HOST:PORT:ADDRESS[:PORT], IPv6 addresses in brackets";
  std::string rest = entry;
  bool ends_early = false;
  bool is_last = false;
  std::string host;
  const std::string problem = NormalHost(TakeField(&rest, &ends_early), &host);
  if (!problem.empty()) return field + "of an entry, " + problem;
  if (host.find('%') != std::string::npos) {
    return field + "an entry's host has a zone, by which no URL is told apart; leave it out there";
  }
  const std::string port = TakeField(&rest, &ends_early);
  if (!IsPort(port)) return field + "the port of " + host + " is missing or malformed" + hint;
  std::string address = TakeField(&rest, &is_last);
  const bool in_brackets = !address.empty() && address.front() == '[';
  if (ends_early || !(in_brackets ? NormalHost(address, &address).empty() : IsIpv4(address))) {
    return field + "where " + host + ":" + port + " leads is no address" + hint;
  }
  const std::string other_port = is_last ? port : rest;
  if (!IsPort(other_port)) {
    return field + "the port that " + host + ":" + port + " leads to is malformed" + hint;
  }
  *text = host + ":" + port + ":" + address + ":" + other_port;
  return std::string();
}

}  // namespace http_names
QUENOR_NAMESPACE_END
