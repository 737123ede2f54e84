// The two kinds of cache file behind one face. Threads: as the files: one at a time.
#ifndef QUENOR_TESTS_CRASH_SUPPORT_CACHE_FILES_H_
#define QUENOR_TESTS_CRASH_SUPPORT_CACHE_FILES_H_

#include <memory>
#include <string>

#include "tests/crash/support/contents.h"

namespace quenor::test {

enum class FileKind { kMapped, kPlain };
const char* NameOf(FileKind kind);
// Of "mapped" or "plain"; ends the process on another name.
FileKind FileKindOf(const std::string& name);

class CacheFile {
 public:
  static std::unique_ptr<CacheFile> Create(FileKind kind);
  virtual ~CacheFile() = default;

  virtual bool Open(const std::string& path) = 0;
  virtual void Close() = 0;
  virtual bool IsSaveComplete() = 0;
  virtual bool Clear(size_t size) = 0;
  virtual bool Append(const std::string& packet) = 0;
  // False at an end mark.
  virtual bool Next(std::string* packet) = 0;

  // Everything that Next() gives.
  Content Load();
  // Clear() and the appends; true when each of them was, and the save is complete.
  bool Save(const Content& content);
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CRASH_SUPPORT_CACHE_FILES_H_
