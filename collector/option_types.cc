#include "collector/option_types.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>
#include <string_view>

#include "collector/fatal.h"

namespace quenor::collector {
namespace {

// "one", "one:8222", "[::1]:8222". (No std::regex: it fills tables of the process without a lock,
// and so does the HTTP client, whose threads are others.)
bool IsHostAndPort(const std::string& text) {
  const bool is_v6 = !text.empty() && text.front() == '[';
  const size_t end = is_v6 ? text.find(']') : text.find(':');
  const std::string host = is_v6 ? text.substr(1, end - 1) : text.substr(0, end);
  if (host.empty() || (is_v6 && end == std::string::npos)) return false;
  const size_t odd = is_v6 ? host.find_first_not_of("0123456789abcdefABCDEF:.")
                           : host.find_first_of(" \t\r\n/?#@[]");
  if (odd != std::string::npos) return false;
  std::string port = end == std::string::npos ? "" : text.substr(is_v6 ? end + 1 : end);
  if (port.empty()) return true;
  if (port.front() != ':') return false;
  port.erase(0, 1);
  return WholeNumber(1, 65'535)(port).empty();
}

}  // namespace

CLI::Validator WholeNumber(uint64_t low, uint64_t high) {
  const auto check = [low, high](std::string& text) -> std::string {
    // A leading zero would have some readers take it for octal.
    const bool is_number = !text.empty() && text.size() <= 19 &&
                           text.find_first_not_of("0123456789") == std::string::npos &&
                           (text.size() == 1 || text.front() != '0');
    const uint64_t number = is_number ? std::strtoull(text.c_str(), nullptr, 10) : 0;
    if (is_number && number >= low && number <= high) return "";
    return "not a whole number from " + std::to_string(low) + " to " + std::to_string(high) +
           ": \"" + text + "\"";
  };
  return CLI::Validator(check, "");
}

CLI::Validator NotEmpty() {
  return CLI::Validator(
      [](std::string& text) { return text.empty() ? std::string("is empty") : std::string(); }, "");
}

CLI::Validator RequestPath() {
  return CLI::Validator(
      [](std::string& text) {
        const bool is_one =
            !text.empty() && text[0] == '/' && text.find_first_of("?# ") == std::string::npos;
        return is_one ? std::string()
                      : text + " is no path of a request; give it as in /app/reports";
      },
      "");
}

CLI::Validator AsSize() { return CLI::AsSizeValue(/*kb_is_1000=*/false).description(""); }

CLI::Validator AsTime() {
  const std::map<std::string, int64_t> units = {
      {"ms", 1}, {"s", 1000}, {"min", 60'000}, {"h", 3'600'000}};
  return CLI::AsNumberWithUnit(units, CLI::AsNumberWithUnit::UNIT_REQUIRED).description("");
}

CLI::Validator StoreName() {
  const auto check = [](std::string& text) -> std::string {
    const auto is_good = [](unsigned char c) {
      return std::isalnum(c) != 0 || c == '_' || c == '-';
    };
    const bool all_good = std::all_of(text.begin(), text.end(), is_good);
    if (!text.empty() && text.size() <= 32 && all_good) return "";
    return "not a name for the store (1 to 32 letters, digits, - or _): \"" + text + "\"";
  };
  return CLI::Validator(check, "");
}

CLI::Validator HttpUrl() {
  const auto check = [](std::string& text) -> std::string {
    for (const std::string scheme : {"http://", "https://"}) {
      if (text.compare(0, scheme.size(), scheme) != 0) continue;
      if (IsHostAndPort(text.substr(scheme.size()))) return "";
    }
    return "not an address as in http://127.0.0.1:9001: \"" + text + "\"";
  };
  return CLI::Validator(check, "");
}

CLI::Option* AddStore(CLI::App* app, bool required, std::string* nodes, StoreOptions* store) {
  const char* const help = required
                               ? "the cluster's nodes, as in nats://one,two,three"
                               : "keep reports in this cluster instead of files: its nodes, as in "
                                 "nats://one,two,three";
  CLI::Option* const given =
      app->add_option("--store", *nodes, help)->type_name("NODES")->check(NotEmpty());
  if (required) given->required();
  CLI::Option* const stream = app->add_option("--stream", store->stream, "the stream in it")
                                  ->type_name("NAME")
                                  ->check(StoreName())
                                  ->capture_default_str();
  if (!required) stream->needs(given);
  return given;
}

std::pair<std::string, int> ParseAddress(const std::string& text) {
  const Fatal wrong(kExitUsage, "not an address to listen on: \"" + text +
                                    "\"; give --listen HOST:PORT, as in 127.0.0.1:8443 or [::1]:0");
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) throw wrong;
  std::string host = text.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  } else if (host.find_first_of("[]:") != std::string::npos) {
    throw wrong;
  }
  const std::string digits = text.substr(colon + 1);
  if (digits.empty() || digits.size() > 5 ||
      digits.find_first_not_of("0123456789") != std::string::npos || std::stoi(digits) > 65535) {
    throw wrong;
  }
  return {host, std::stoi(digits)};
}

std::vector<std::string> ParseStore(const std::string& text) {
  constexpr std::string_view kScheme = "nats://";
  std::vector<std::string> nodes;
  for (size_t begin = 0; begin <= text.size();) {
    const size_t end = std::min(text.find(',', begin), text.size());
    std::string node = text.substr(begin, end - begin);
    if (node.compare(0, 6, "tls://") == 0) {
      throw Fatal(kExitUsage,
                  "no TLS to the store: \"" + text +
                      "\"; give the nodes as in nats://one,two, and collectors and nodes a network "
                      "that nobody else is on");
    }
    if (node.compare(0, kScheme.size(), kScheme) == 0) node.erase(0, kScheme.size());
    if (node.empty() || node.find('/') != std::string::npos) {
      throw Fatal(kExitUsage,
                  "not a store: \"" + text + "\"; give the nodes as in nats://one,two:4223,three");
    }
    nodes.push_back(std::string(kScheme) + node);
    begin = end + 1;
  }
  return nodes;
}

}  // namespace quenor::collector
