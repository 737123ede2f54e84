#include "cli/options/proxy_password.h"

#include <cerrno>
#include <fstream>

#include "cli/fatal.h"
#include "cli/text.h"

namespace quenor::cli {
namespace {

[[noreturn]] void Refuse(const std::string& source, const std::string& reason) {
  throw Fatal(kExitUsage,
              "cannot take the proxy's password from " + Printable(source) + ": " + reason);
}

void Check(const std::string& password, const std::string& source) {
  if (password.size() > kMaxCredentialBytes) {
    Refuse(source, "it is longer than 255 bytes, which is what SOCKS5 carries");
  }
  if (password.find('\0') != std::string::npos) Refuse(source, "it holds a NUL byte");
}

std::string FirstLineOf(const std::string& path) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::string line;
  // One byte more than may be, for what is too long without being read whole.
  for (int c = file.get(); c != EOF && c != '\n'; c = file.get()) {
    line += static_cast<char>(c);
    if (line.size() > kMaxCredentialBytes + 1) break;
  }
  if (!file.is_open() || file.bad()) {
    Refuse(path, (errno != 0 ? ErrnoText(errno) : "it cannot be read") +
                     "; give --proxy-password-file one that this user may read");
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  if (line.empty()) Refuse(path, "its first line is empty; write the password there");
  return line;
}

}  // namespace

void FillProxyPassword(const std::string& file, const char* variable, Socks5Address* proxy) {
  if (file.empty()) {
    const bool is_wanted = !proxy->user.empty() && proxy->password.empty();
    if (!is_wanted || variable == nullptr) return;
    Check(variable, kProxyPasswordVariable);
    proxy->password = variable;
    return;
  }
  if (proxy->user.empty()) Refuse(file, "the address names no user; give --socks5 user@host:port");
  if (!proxy->password.empty()) {
    Refuse(file, "the address has one, too; give --socks5 user@host:port without it");
  }
  const std::string password = FirstLineOf(file);
  Check(password, file);
  proxy->password = password;
}

}  // namespace quenor::cli
