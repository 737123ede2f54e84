// A proxy's password from where the list of processes does not show it.
// Page: docs/guide/quenor-report.md.
#ifndef CLI_OPTIONS_PROXY_PASSWORD_H_
#define CLI_OPTIONS_PROXY_PASSWORD_H_

#include <string>

#include "cli/options/addresses.h"

namespace quenor::cli {

constexpr char kProxyPasswordVariable[] = "QUENOR_REPORT_PROXY_PASSWORD";

// Gives `proxy`, which has a user and no password, the first line of `file`, as it is; or, when
// `file` is empty, what `variable` says (may be null), if anything. A proxy without a user, or with
// a password, is refused a file and is left alone by the variable. Throws Fatal with kExitUsage,
// never printing the password.
void FillProxyPassword(const std::string& file, const char* variable, Socks5Address* proxy);

}  // namespace quenor::cli

#endif  // CLI_OPTIONS_PROXY_PASSWORD_H_
