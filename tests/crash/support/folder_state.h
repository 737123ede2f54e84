// FolderState: every file of a folder as it is at one instant, to be looked at or put elsewhere.
#ifndef QUENOR_TESTS_CRASH_SUPPORT_FOLDER_STATE_H_
#define QUENOR_TESTS_CRASH_SUPPORT_FOLDER_STATE_H_

#include <map>
#include <string>

namespace quenor::test {

struct FolderState {
  std::map<std::string, std::string> files;  // Name to bytes.

  static FolderState Of(const std::string& folder);
  // Makes `folder` hold exactly these files, each as a new file.
  void WriteTo(const std::string& folder) const;
  bool operator==(const FolderState& other) const { return files == other.files; }
};

// True when a repair has kept a damaged file in the folder.
bool HasSetAside(const std::string& folder);

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CRASH_SUPPORT_FOLDER_STATE_H_
