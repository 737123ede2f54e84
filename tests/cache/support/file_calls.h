// FileCalls: stands between the cache files and the system. Counts their calls, fails the n-th of a
// kind, and shows each to an observer. The linker redirects the calls (--wrap) of every archive in
// the executable, so what is shipped is what is tested.
// Threads: one, while anything is asked for; calls inside shared objects are not reached.
#ifndef QUENOR_TESTS_CACHE_SUPPORT_FILE_CALLS_H_
#define QUENOR_TESTS_CACHE_SUPPORT_FILE_CALLS_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quenor::test {

enum class Call {
  kOpen,
  kClose,
  kPosixFallocate,
  kFallocate,
  kMmap,
  kMadvise,
  kMunmap,
  kFcntl,
  kFsync,
  kFdatasync,
  kMsync,
  kSyncFileRange,
  kRename,
  kRenameat2,
  kUnlink,
  kFtruncate,
  kPread,
  kPwrite,
  kFstat,
  kLstat,
  kMalloc,      // And calloc.
  kNothrowNew,  // operator new that may answer null.
  kRealloc,
  kHowMany,
};

struct CallInfo {
  Call call;
  int fd = -1;                    // -1 where the call has none.
  const void* address = nullptr;  // Of memory: mmap's result, msync's and munmap's argument.
  uint64_t offset = 0;            // In the file, or the new length; of a lock, where it begins.
  uint64_t size = 0;              // Of a lock that is dropped: 0.
};

class CallObserver {
 public:
  virtual ~CallObserver() = default;
  // What the observer calls itself is passed on unseen.
  virtual void Before(const CallInfo&) {}
  // Only of calls that succeeded.
  virtual void After(const CallInfo&) {}
};

class FileCalls {
 public:
  // Everything is passed on, counts are 0, nobody observes.
  static void Reset();

  // From now on the `nth` call of the kind (1 is the next) fails with `error`; later ones do not.
  // With `for_good`, not for memory, all calls do from there on, but those that give something
  // back.
  static void Fail(Call call, int nth, int error, bool for_good = false);
  // Every call of the kind fails, from the next to Reset(). Not for memory.
  static void FailEach(Call call, int error);
  // So many more bytes can be written: what does not fit is cut short, and then there is ENOSPC.
  static void SetSpace(uint64_t bytes);
  // No write takes more than this.
  static void SetLongestWrite(size_t bytes);
  // Nothing fails any more; what has failed is remembered.
  static void Heal();
  // From now on no read gets a byte of the file's page at `offset`, as on a bad disk.
  static void SetBadPage(const std::string& path, uint64_t offset);
  // True when the failure asked for with Fail() has happened, or there was no space.
  static bool HasFailed();

  // Since Reset(). Not of kMalloc.
  static uint64_t Count(Call call);
  static uint64_t CountAll();
  // Borrowed until Reset() or the next call; may be null.
  static void Observe(CallObserver* observer);

  // What is called in its scope is passed on, uncounted and unseen. Not for memory.
  class Unseen {
   public:
    Unseen();
    ~Unseen();
    Unseen(const Unseen&) = delete;
    Unseen& operator=(const Unseen&) = delete;

   private:
    const bool before_;
  };

  static const char* Name(Call call);
  static std::vector<Call> All();
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CACHE_SUPPORT_FILE_CALLS_H_
