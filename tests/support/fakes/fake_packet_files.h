// FakePacketFiles: what a fake cache file is for a test: files in memory, named by their paths,
// that outlive the objects that open them as files outlive a process; a record of every call;
// failures on demand. Threads: any. Life cycle: one per kind of file, process-wide, never
// destroyed; a test begins with Clear(), while no file is open.
#ifndef QUENOR_TESTS_SUPPORT_FAKES_FAKE_PACKET_FILES_H_
#define QUENOR_TESTS_SUPPORT_FAKES_FAKE_PACKET_FILES_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace quenor::test {

// One call of a file's operation, by whichever object.
struct FileCall {
  enum class Operation { kOpen, kNext, kClear, kAppend, kClose };

  Operation operation;
  std::string path;        // Empty when no file was open.
  int access = 0;          // kOpen of a mapped file.
  int64_t size = 0;        // kOpen and kClear of a mapped file.
  std::string bytes = {};  // kNext and kAppend.
  bool had_data = false;   // kNext and kAppend: the packet's pointer was not null.
  bool result = true;      // kOpen, kClear and kAppend.
};

bool operator==(const FileCall& a, const FileCall& b);
std::ostream& operator<<(std::ostream& out, const FileCall& call);

class FakePacketFiles {
 public:
  using Packets = std::vector<std::string>;
  using Operation = FileCall::Operation;

  FakePacketFiles();
  ~FakePacketFiles();
  FakePacketFiles(const FakePacketFiles&) = delete;
  FakePacketFiles& operator=(const FakePacketFiles&) = delete;

  // Forgets every file, call and failure. No file may be open.
  void Clear();

  // --- The files ---
  bool Exists(const std::string& path) const;
  // What a process that opens the file after the death of all its owners reads; empty when there is
  // none.
  Packets Content(const std::string& path) const;
  // A file as an earlier process left it.
  void Put(const std::string& path, Packets packets);
  // Objects that have a file open.
  size_t OpenObjects() const;

  // --- The record ---
  // Every call since the last ForgetCalls(), but kClose on an object that has nothing open.
  std::vector<FileCall> Calls() const;
  std::vector<FileCall> Calls(Operation operation) const;
  void ForgetCalls();

  // --- Failures. The nth call from now fails, 1 being the next one; 0 for none. ---
  void FailOpen(size_t nth);
  void FailClear(size_t nth);
  void FailAppend(size_t nth);
  // The packet cannot be read: an end mark, and no save by that object from then on.
  void FailNext(size_t nth);

  struct Core;  // For the fakes themselves.
  Core& core() { return *core_; }

 private:
  const std::unique_ptr<Core> core_;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_FAKES_FAKE_PACKET_FILES_H_
