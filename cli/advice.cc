#include "cli/advice.h"

#include <cstddef>
#include <cstring>

namespace quenor::cli {
namespace {

struct Term {
  const char* field;
  const char* option;
};

// The longer of two that begin alike comes first.
constexpr Term kTerms[] = {
    {", or raise the time limits of HttpDefaults", ""},
    {", or raise the size limits of HttpDefaults", ""},
    {" or client_certificate_pem", ""},
    {"http defaults: ", ""},
    {"HttpDefaults::", ""},
    {"proxy_from_environment: ", "--proxy-from-environment: "},
    {"proxy.url", "--proxy"},
    {"proxy.user", "the user of --proxy"},
    {"proxy.password", "the password of --proxy"},
    {"proxy.except", "--no-proxy"},
    {"headers: ", "--header: "},
    {"connect_to: ", "--connect-to: "},
    {"key_passphrase", "--key-passphrase-file"},
    {"ca_file", "--cacert"},
    {"ca_folder", "--capath"},
    {"pinned_public_keys", "--pin"},
    {"client_certificate_file", "--client-cert"},
    {"client_key_file", "--client-key"},
};

bool IsWordByte(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
         c == '/' || c == '-' || c == '.';
}

// The term that stands at `at` as a word of its own, or null.
const Term* TermAt(const std::string& line, size_t at) {
  for (const Term& term : kTerms) {
    const size_t bytes = std::strlen(term.field);
    if (line.compare(at, bytes, term.field) != 0) continue;
    const size_t end = at + bytes;
    const bool begins = at == 0 || !IsWordByte(line[at]) || !IsWordByte(line[at - 1]);
    const bool ends = end == line.size() || !IsWordByte(line[end - 1]) || !IsWordByte(line[end]);
    if (begins && ends) return &term;
  }
  return nullptr;
}

}  // namespace

std::string InOptions(const std::string& line) {
  std::string said;
  bool is_quoted = false;
  for (size_t at = 0; at < line.size();) {
    // A quote within a word is an apostrophe.
    const bool is_apostrophe = !is_quoted && at > 0 && IsWordByte(line[at - 1]);
    if (line[at] == '\'' && !is_apostrophe) is_quoted = !is_quoted;
    const Term* const term = is_quoted ? nullptr : TermAt(line, at);
    if (term != nullptr) {
      said += term->option;
      at += std::strlen(term->field);
    } else {
      said += line[at++];
    }
  }
  return said;
}

}  // namespace quenor::cli
