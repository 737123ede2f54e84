#include "tests/cache/faults_bench.h"

#include <cerrno>
#include <map>
#include <utility>

namespace quenor::test {
namespace {

struct Tally {
  uint64_t places = 0;
  std::map<int, uint64_t> failures;  // By errno.
};

std::map<std::pair<std::string, Call>, Tally>& Tallies() {
  static auto* const tallies = new std::map<std::pair<std::string, Call>, Tally>;
  return *tallies;
}

// One line per kind and call, when the tests have run.
class TallyPrinter : public ::testing::Environment {
  void TearDown() override {
    for (const auto& [key, tally] : Tallies()) {
      std::cout << "n-th call fails, " << key.first << ", " << FileCalls::Name(key.second) << ": "
                << tally.places << " places;";
      uint64_t sum = 0;
      for (const auto& [error, count] : tally.failures) {
        std::cout << " " << ErrnoName(error) << " " << count;
        sum += count;
      }
      std::cout << "; " << sum << " failures" << std::endl;
    }
  }
};
const ::testing::Environment* const g_printer =
    ::testing::AddGlobalTestEnvironment(new TallyPrinter);

}  // namespace

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
  static const auto* const errors = new std::vector<int>{ENOSPC, EIO, EMFILE, EINTR, ENOMEM};
  return *errors;
}

const char* ErrnoName(int error) {
  switch (error) {
    case ENOSPC:
      return "ENOSPC";
    case EIO:
      return "EIO";
    case EMFILE:
      return "EMFILE";
    case EINTR:
      return "EINTR";
    default:
      return "ENOMEM";
  }
}

bool IsMemory(Call call) {
  return call == Call::kMalloc || call == Call::kRealloc || call == Call::kNothrowNew;
}

bool IsRepeated(const Fault& fault) {
  return fault.error == EINTR && !IsMemory(fault.call) && fault.call != Call::kMmap &&
         fault.call != Call::kMadvise && fault.call != Call::kUnlink;
}

bool IsHarmless(Call call) {
  return call == Call::kFallocate || call == Call::kSyncFileRange || call == Call::kUnlink;
}

bool IsMet(const Fault& fault) {
  if (IsMemory(fault.call)) return fault.error == ENOMEM;
  if (FullLength() || fault.error == EINTR) return true;
  const int errors[] = {ENOSPC, EIO, EMFILE, ENOMEM};
  return fault.error == errors[static_cast<int>(fault.call) % 4];
}

int PlaceStep(Call call) { return call == Call::kFcntl && !FullLength() ? 8 : 1; }

void CountFailure(const std::string& kind, const Fault& fault) {
  ++Tallies()[{kind, fault.call}].failures[fault.error];
}

void CountPlaces(const std::string& kind, Call call, int places) {
  if (places > 0) Tallies()[{kind, call}].places += static_cast<uint64_t>(places);
}

}  // namespace quenor::test
