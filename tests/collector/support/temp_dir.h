// A folder of the test's own, removed with everything in it when the object ends.
#ifndef TESTS_COLLECTOR_SUPPORT_TEMP_DIR_H_
#define TESTS_COLLECTOR_SUPPORT_TEMP_DIR_H_

#include <string>
#include <vector>

namespace quenor::collector::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The path of `name` in the folder.
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Whole content; empty if the file cannot be read.
std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);

// Names in `dir`, sorted.
std::vector<std::string> ListDir(const std::string& dir);

}  // namespace quenor::collector::test

#endif  // TESTS_COLLECTOR_SUPPORT_TEMP_DIR_H_
