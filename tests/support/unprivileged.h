// Unprivileged: for tests of what a user may not do. Root may do everything: it becomes nobody for
// the length of the object, and the folder nobody's.
#ifndef QUENOR_TESTS_SUPPORT_UNPRIVILEGED_H_
#define QUENOR_TESTS_SUPPORT_UNPRIVILEGED_H_

#include <sys/types.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace quenor::test {

class Unprivileged {
 public:
  explicit Unprivileged(const std::string& folder) {
    if (geteuid() == 0 && chown(folder.c_str(), kNobody, kNobody) == 0) {
      changed_ = seteuid(kNobody) == 0;
    }
  }
  ~Unprivileged() {
    if (changed_ && seteuid(0) != 0) std::abort();
  }
  Unprivileged(const Unprivileged&) = delete;
  Unprivileged& operator=(const Unprivileged&) = delete;

  // False where root cannot become another user.
  bool holds() const { return geteuid() != 0; }

 private:
  static constexpr uid_t kNobody = 65534;
  bool changed_ = false;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_UNPRIVILEGED_H_
