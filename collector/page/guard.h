// Guard: whose requests the page serves. A page on loopback can be reached by whatever other pages
// the operator's browser shows: they must neither read it under a name of theirs that leads here,
// nor send its form, nor take the places of its events. No network.
#ifndef COLLECTOR_PAGE_GUARD_H_
#define COLLECTOR_PAGE_GUARD_H_

#include <optional>
#include <string>
#include <vector>

namespace quenor::collector {

// What a request says about where it comes from.
struct Asked {
  std::string host;                       // "Host"; empty: none.
  std::optional<std::string> origin;      // "Origin".
  std::optional<std::string> fetch_site;  // "Sec-Fetch-Site".
};

class Guard {
 public:
  // `names` are hosts without ports; addresses and localhost are served always, as no other page
  // can have their names.
  explicit Guard(std::vector<std::string> names);

  // Of this process; only the page itself has it, in its form.
  const std::string& token() const { return token_; }

  // Each: empty, or why the request is refused.
  std::string RefusalOf(const Asked& asked) const;
  std::string RefusalOfEvents(const Asked& asked) const;
  std::string RefusalOfForm(const Asked& asked, const std::string& token) const;

 private:
  std::vector<std::string> names_;
  const std::string token_;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_GUARD_H_
