// Sets or unsets an environment variable and brings the old value back at the end of its scope.
#ifndef QUENOR_TESTS_CONFORMANCE_ENVIRONMENT_VARIABLE_H_
#define QUENOR_TESTS_CONFORMANCE_ENVIRONMENT_VARIABLE_H_

#include <cstdlib>
#include <string>

#include "quenor_base/platform/base/optional.h"

namespace quenor::conformance {

class EnvironmentVariable {
 public:
  // A null `value` unsets the variable.
  EnvironmentVariable(const std::string& name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name.c_str())) old_ = old;
    Set(value);
  }
  ~EnvironmentVariable() { Set(old_ ? old_->c_str() : nullptr); }
  EnvironmentVariable(const EnvironmentVariable&) = delete;
  EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

  void Set(const char* value) {
    if (value == nullptr) {
      unsetenv(name_.c_str());
    } else {
      setenv(name_.c_str(), value, 1);
    }
  }

 private:
  const std::string name_;
  base::Optional<std::string> old_;
};

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_ENVIRONMENT_VARIABLE_H_
