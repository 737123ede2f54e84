// The list of --saved-list: one line per message that needs to be handed over no more, even if this
// process dies at the next instruction. Threads: one. Page: docs/guide/quenor-report.md.
#ifndef CLI_SEND_SAVED_LIST_H_
#define CLI_SEND_SAVED_LIST_H_

#include <string>
#include <vector>

namespace quenor::cli {

class SavedList {
 public:
  // Opens the file to append to it, creating it when missing. Throws Fatal with kExitUsage.
  explicit SavedList(std::string path);
  ~SavedList();
  SavedList(const SavedList&) = delete;
  SavedList& operator=(const SavedList&) = delete;

  // Writes each id and a line end behind it, past any buffer of this process, in one step unless
  // the file takes them in several. Empty, or one line that says what failed: from then on nothing
  // is written, so that no line follows a torn one.
  std::string Append(const std::vector<std::string>& ids);

 private:
  const std::string path_;
  int fd_ = -1;  // Owned; -1 after a failure.
};

}  // namespace quenor::cli

#endif  // CLI_SEND_SAVED_LIST_H_
