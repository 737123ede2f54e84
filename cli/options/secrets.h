// Passwords and the like from where the list of processes does not show them. What is wrong with
// one is said by a Fatal with kExitUsage, never showing it. Page: docs/guide/quenor-report.md.
#ifndef CLI_OPTIONS_SECRETS_H_
#define CLI_OPTIONS_SECRETS_H_

#include <map>
#include <string>
#include <vector>

#include "cli/options/addresses.h"

namespace quenor::cli {

constexpr char kProxyPasswordVariable[] = "QUENOR_REPORT_PROXY_PASSWORD";

// Gives `proxy`, which has a user and no password, the first line of `file`, as it is; or, when
// `file` is empty, what `variable` says (may be null), if anything. A proxy without a user, or with
// a password, is refused a file and is left alone by the variable.
void FillProxyPassword(const std::string& file, const char* variable, ProxyAddress* proxy);

// The first line of the file, as it is.
std::string KeyPassphrase(const std::string& file);

// Of "NAME: VALUE", and of "@FILE", which has such a line for each.
std::map<std::string, std::string> Headers(const std::vector<std::string>& given);

}  // namespace quenor::cli

#endif  // CLI_OPTIONS_SECRETS_H_
