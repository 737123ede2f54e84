#include "tests/cache/faults_bench.h"

#include <cerrno>
#include <iterator>

namespace quenor::test {

const std::vector<Call>& FailingCalls() {
  static const auto* const calls = new std::vector<Call>{
      Call::kOpen,      Call::kPosixFallocate, Call::kFallocate, Call::kMmap,
      Call::kMadvise,   Call::kFcntl,          Call::kFsync,     Call::kFdatasync,
      Call::kMsync,     Call::kSyncFileRange,  Call::kRename,    Call::kRenameat2,
      Call::kUnlink,    Call::kFtruncate,      Call::kPread,     Call::kPwrite,
      Call::kFstat,     Call::kLstat,          Call::kMalloc,    Call::kRealloc,
      Call::kNothrowNew};
  return *calls;
}

const std::vector<int>& FailingErrors() {
  static const auto* const errors =
      new std::vector<int>{ENOSPC, EIO, EMFILE, EINTR, ENOMEM, EDQUOT, EACCES};
  return *errors;
}

bool IsMemory(Call call) {
  return call == Call::kMalloc || call == Call::kRealloc || call == Call::kNothrowNew;
}

bool IsRepeated(const Fault& fault) {
  return fault.error == EINTR && !IsMemory(fault.call) && fault.call != Call::kMmap &&
         fault.call != Call::kMadvise && fault.call != Call::kUnlink;
}

bool IsHarmless(const Fault& fault) {
  return !fault.for_good && (fault.call == Call::kFallocate || fault.call == Call::kSyncFileRange ||
                             fault.call == Call::kUnlink);
}

bool IsMet(const Fault& fault) {
  if (IsMemory(fault.call)) return fault.error == ENOMEM && !fault.for_good;
  if (fault.error == EINTR) return !fault.for_good;  // It is asked again for as long as it takes.
  if (FullLength()) return true;
  const int errors[] = {ENOSPC, EIO, EMFILE, ENOMEM, EDQUOT, EACCES};
  return fault.error == errors[static_cast<size_t>(fault.call) % std::size(errors)];
}

int PlaceStep(const Fault& fault, int nth) {
  if (FullLength() || nth < 16) return 1;
  if (fault.call == Call::kFcntl) return fault.for_good ? 40 : 8;
  return fault.for_good && fault.call == Call::kPread ? 10 : 1;
}

}  // namespace quenor::test
