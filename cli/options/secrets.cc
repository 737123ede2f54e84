#include "cli/options/secrets.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>

#include "cli/fatal.h"
#include "cli/text.h"

namespace quenor::cli {
namespace {

constexpr char kPassword[] = "the proxy's password";
constexpr char kPassphrase[] = "the key's passphrase";
constexpr char kHeaders[] = "headers";
constexpr size_t kMaxPassphraseBytes = 1024;
constexpr size_t kMaxHeaderFileBytes = 64 << 10;

[[noreturn]] void Refuse(const char* what, const std::string& source, const std::string& reason) {
  throw Fatal(kExitUsage,
              std::string("cannot take ") + what + " from " + Printable(source) + ": " + reason);
}

[[noreturn]] void Refuse(const std::string& source, const std::string& reason) {
  Refuse(kPassword, source, reason);
}

void Check(const std::string& password, const std::string& source) {
  if (password.size() > kMaxCredentialBytes) {
    Refuse(source, "it is longer than 255 bytes, which is what SOCKS5 carries");
  }
  if (password.find('\0') != std::string::npos) Refuse(source, "it holds a NUL byte");
}

// A secret's file, up to `end` or its own end, but not much more than `most` bytes of it.
std::string ContentOf(const char* what, const char* option, const std::string& path, char end,
                      size_t most) {
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::string text;
  // One byte more than may be, for what is too long without being read whole.
  for (int c = file.get(); c != EOF && c != static_cast<unsigned char>(end); c = file.get()) {
    text += static_cast<char>(c);
    if (text.size() > most + 1) break;
  }
  if (!file.is_open() || file.bad()) {
    Refuse(what, path,
           (errno != 0 ? ErrnoText(errno) : "it cannot be read") + "; give " + option +
               " one that this user may read");
  }
  return text;
}

std::string FirstLineOf(const char* what, const char* option, const std::string& path,
                        size_t most) {
  std::string line = ContentOf(what, option, path, '\n', most);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  if (line.empty()) Refuse(what, path, "its first line is empty; write it there");
  return line;
}

// `source` is what a message may say of where it stands.
void AddHeader(const std::string& line, const std::string& source,
               std::map<std::string, std::string>* headers) {
  const size_t colon = line.find(':');
  if (colon == std::string::npos || colon == 0) {
    Refuse(kHeaders, source, "there is no name and colon; give --header 'NAME: VALUE'");
  }
  const size_t begin = std::min(line.find_first_not_of(" \t", colon + 1), line.size());
  const std::string name = line.substr(0, colon);
  if (!headers->emplace(name, line.substr(begin)).second) {
    Refuse(kHeaders, source, Printable(name) + " is there twice; give it once");
  }
}

}  // namespace

void FillProxyPassword(const std::string& file, const char* variable, ProxyAddress* proxy) {
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
  const std::string password =
      FirstLineOf(kPassword, "--proxy-password-file", file, kMaxCredentialBytes);
  Check(password, file);
  proxy->password = password;
}

std::string KeyPassphrase(const std::string& file) {
  const std::string line =
      FirstLineOf(kPassphrase, "--key-passphrase-file", file, kMaxPassphraseBytes);
  if (line.size() > kMaxPassphraseBytes) Refuse(kPassphrase, file, "it is longer than 1024 bytes");
  return line;
}

std::map<std::string, std::string> Headers(const std::vector<std::string>& given) {
  std::map<std::string, std::string> headers;
  for (const std::string& text : given) {
    if (text.empty() || text.front() != '@') {
      AddHeader(text, "--header", &headers);
      continue;
    }
    const std::string path = text.substr(1);
    // No file of text has a NUL.
    const std::string lines = ContentOf(kHeaders, "--header", path, '\0', kMaxHeaderFileBytes);
    if (lines.size() > kMaxHeaderFileBytes) Refuse(kHeaders, path, "it is larger than 64 KiB");
    std::istringstream file(lines);
    for (std::string line; std::getline(file, line);) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (!line.empty()) AddHeader(line, path, &headers);
    }
  }
  return headers;
}

}  // namespace quenor::cli
