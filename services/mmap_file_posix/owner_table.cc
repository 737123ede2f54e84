#include "services/mmap_file_posix/owner_table.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "quenor_base/platform/base/monotonic_time.h"

QUENOR_NAMESPACE_BEGIN
namespace mmap_format {
namespace {

// Behind the end of any file: bytes that are only locked.
constexpr uint64_t kWaitersBegin = uint64_t{1} << 62;
constexpr uint64_t kWaitersEnd = INT64_MAX;
constexpr int kWaitAgainMs = 5;
// Who leaves a free lock for so long, and waits for it, does not run.
constexpr int64_t kTurnNs = 20 * 1000000;

}  // namespace

// A live owner may be writing, and moving: only two copies that agree are of one instant, because
// save numbers only grow.
OwnerView Table::View(uint32_t owner) const {
  constexpr int kMostCopies = 1000;
  OwnerRecord copies[2];
  std::memcpy(static_cast<void*>(&copies[0]), record(owner), sizeof copies[0]);
  for (int i = 1; i < kMostCopies; ++i) {
    __atomic_thread_fence(__ATOMIC_ACQUIRE);  // Pairs with StoreLast().
    std::memcpy(static_cast<void*>(&copies[i % 2]), record(owner), sizeof copies[0]);
    if (std::memcmp(&copies[0], &copies[1], sizeof copies[0]) == 0) return ViewOf(copies[0]);
  }
  OwnerView view = ViewOf(copies[0]);
  view.damage = "a record that never stays the same";
  return view;
}

void Table::WriteSeal(uint32_t owner, int which, const Seal& seal) const {
  Seal* const to = &record(owner)->seals[which];
  StoreLast(&to->check, kWriting);
  __atomic_thread_fence(__ATOMIC_RELEASE);  // The mark comes before what it marks.
  std::memcpy(to, &seal, offsetof(Seal, check));
  StoreLast(&to->check, CheckOf(seal));
}

void Table::ReplaceSeal(uint32_t owner, int in_force_now, Seal seal) const {
  seal.save_number = NextSaveNumber();
  WriteSeal(owner, 1 - in_force_now, seal);
  StoreLast(&record(owner)->seals[in_force_now].check, kWriting);
}

bool TableLock::Take(const cache_io::Descriptor& file, int wait_ms) {
  const int fd = file.fd();
  last_wait_ms_ = waited_in_vain_ ? std::min(kWaitAgainMs, wait_ms) : wait_ms;
  free_since_ns_ = 0;
  bool taken = IsMyTurn(fd, kWaitersEnd) && cache_io::TryLock(fd, 0, 1);
  if (!taken && errno == EAGAIN) {
    uint64_t place = kWaitersBegin + static_cast<uint64_t>(base::MonotonicNs());
    while (!cache_io::TryLock(fd, place, 1)) {
      if (errno != EAGAIN) return false;
      ++place;
    }
    taken = cache_io::KeepTrying([&] { return IsMyTurn(fd, place) && cache_io::TryLock(fd, 0, 1); },
                                 last_wait_ms_);
    const int error = errno;
    cache_io::Unlock(fd, place, 1);
    errno = error;
  }
  waited_in_vain_ = !taken && errno == EAGAIN;
  return taken;
}

// False with errno EAGAIN while others wait who came before.
bool TableLock::IsMyTurn(int fd, uint64_t place) {
  const uint64_t first = std::max(kWaitersBegin, passed_by_);
  const bool others_wait = cache_io::IsLockedByOther(fd, first, place - first) == 1;
  if (!others_wait || cache_io::IsLockedByOther(fd, 0, 1) != 0) {
    free_since_ns_ = 0;
  } else if (free_since_ns_ == 0) {
    free_since_ns_ = base::MonotonicNs();
  } else if (base::MonotonicNs() - free_since_ns_ > kTurnNs) {
    passed_by_ = place;
    return true;
  }
  errno = EAGAIN;
  return !others_wait;
}

void TableLock::SignAs(const Table& table) const {
  __atomic_store_n(&table.header()->lock_holder, static_cast<uint32_t>(getpid()), __ATOMIC_RELAXED);
}

void TableLock::Drop(const cache_io::Descriptor& file, const Table& table) const {
  if (table.is_mapped()) __atomic_store_n(&table.header()->lock_holder, 0u, __ATOMIC_RELAXED);
  cache_io::Unlock(file.fd(), 0, 1);
}

std::string TableLock::WhoHasIt(const Table& table) const {
  uint32_t pid = 0;
  if (table.is_mapped()) pid = __atomic_load_n(&table.header()->lock_holder, __ATOMIC_RELAXED);
  if (pid != 0 && kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) pid = 0;  // Was killed.
  return (pid == 0 ? std::string("another process") : "process " + std::to_string(pid)) +
         " holds its lock and has not gone on for " + std::to_string(last_wait_ms_) + " ms";
}

}  // namespace mmap_format
QUENOR_NAMESPACE_END
