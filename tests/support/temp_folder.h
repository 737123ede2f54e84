// TempFolder: an empty folder of its own, removed with everything in it at the end of its scope.
#ifndef QUENOR_TESTS_SUPPORT_TEMP_FOLDER_H_
#define QUENOR_TESTS_SUPPORT_TEMP_FOLDER_H_

#include <string>
#include <vector>

namespace quenor::test {

class TempFolder {
 public:
  // Ends the process when no folder can be made: no test can go on without.
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  // Absolute, without a separator at the end.
  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  std::string operator/(const std::string& name) const { return File(name); }

 private:
  std::string path_;
};

// The whole content of a file; empty when it cannot be read.
std::string ReadWholeFile(const std::string& path);
// The names in a folder, sorted.
std::vector<std::string> FileNames(const std::string& folder);
// False when the file could not be written whole.
[[nodiscard]] bool WriteWholeFile(const std::string& path, const std::string& content);

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_TEMP_FOLDER_H_
