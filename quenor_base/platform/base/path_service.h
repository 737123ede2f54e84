// Well-known folders of the SDK.
#ifndef QUENOR_BASE_PLATFORM_BASE_PATH_SERVICE_H_
#define QUENOR_BASE_PLATFORM_BASE_PATH_SERVICE_H_

#include "quenor_base/platform/base/file_path.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

enum PathKey : int {
  DIR_RELIABLE_REPORT = 19,  // The folder that holds the report channels' cache folder.
};

class PathService {
 public:
  // Any thread. False, and `out` unchanged, for a key that is unknown or that no folder can be
  // found for. The default for DIR_RELIABLE_REPORT is a folder of the user's own:
  // $XDG_STATE_HOME/quenor, else $HOME/.local/state/quenor, else the same in the user database's
  // home; a variable that is not an absolute path is passed over. The folder need not exist.
  [[nodiscard]] static bool Get(int key, FilePath* out);

  // Any thread. The host's own choice for a key; an empty path takes it back.
  // False for a key that is unknown or a path that is not absolute; the old choice stays.
  [[nodiscard]] static bool Override(int key, const FilePath& path);

  // Any thread. Names the implementation that is linked.
  static const char* ImplementationName();
};

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_PATH_SERVICE_H_
