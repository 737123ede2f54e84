// Marks the threads that the SDK itself created. Set once by the start-up code of such a thread
// (and by a virtual queue while it runs tasks), read by the buffer pools.
#ifndef QUENOR_BASE_PLATFORM_BASE_THREAD_CREATE_FLAG_H_
#define QUENOR_BASE_PLATFORM_BASE_THREAD_CREATE_FLAG_H_

#include "quenor_base/platform/base/abi.h"

QUENOR_NAMESPACE_BEGIN
namespace base {

class ThreadCreateFlag {
 public:
  // Any thread. True on a thread that the SDK created, false on every other.
  static bool IsThreadCreateByQuenor() { return flag_; }

  // Any thread. Marks the calling thread only.
  static void SetThreadCreateByQuenor(bool created_by_quenor) { flag_ = created_by_quenor; }

 private:
  inline static thread_local bool flag_ = false;
};

}  // namespace base
QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_PLATFORM_BASE_THREAD_CREATE_FLAG_H_
