// Hosts as a person writes them, as libcurl wants them: names in ASCII, addresses in one form.
// Internal to the HTTP client. Pure functions that ask no locale; any thread.
#ifndef SERVICES_HTTP_CLIENT_CURL_RULES_HOSTS_H_
#define SERVICES_HTTP_CLIENT_CURL_RULES_HOSTS_H_

#include <string>

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace http_names {

// Whether each byte is a letter, a digit or one of `others`.
bool ConsistsOf(const std::string& text, const char* others);

// What may name the zone of an IPv6 address, or nothing. libcurl takes any bytes, an '@' too.
bool IsZone(const std::string& text);

// An IPv6 address without brackets, perhaps with "%ZONE" or "%25ZONE" behind it.
bool IsIpv6(const std::string& text);
bool IsIpv4(const std::string& text);

// In small letters and the shortest form, the zone as "%ZONE"; of what IsIpv6() takes.
std::string CanonicalIpv6(const std::string& text);

// A name as name servers know it: what is not ASCII in it (UTF-8) by IDNA 2008 and UTS #46,
// non-transitional; ASCII as it is. Empty, or why there is none and what to do; nothing of the name
// is in that.
std::string AsciiName(const std::string& name, std::string* ascii);

// A name, an IPv4 address, or an IPv6 address in brackets: in ASCII and small letters, addresses
// canonical, brackets kept. Empty, or what is wrong and what to do, as "its host ...".
std::string NormalHost(const std::string& text, std::string* normal);

// Decimal, 1 to 65535, without zeros in front.
bool IsPort(const std::string& text);

}  // namespace http_names
QUENOR_NAMESPACE_END

#endif  // SERVICES_HTTP_CLIENT_CURL_RULES_HOSTS_H_
