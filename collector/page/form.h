// A form as browsers send it: application/x-www-form-urlencoded. No network.
#ifndef COLLECTOR_PAGE_FORM_H_
#define COLLECTOR_PAGE_FORM_H_

#include <map>
#include <string>
#include <string_view>

namespace quenor::collector {

class Form {
 public:
  // A name given twice has its last value; a "%" that is followed by no two digits stays one.
  explicit Form(std::string_view body);

  // Empty also where there is none.
  std::string Get(const std::string& name) const;

 private:
  std::map<std::string, std::string> values_;
};

}  // namespace quenor::collector

#endif  // COLLECTOR_PAGE_FORM_H_
