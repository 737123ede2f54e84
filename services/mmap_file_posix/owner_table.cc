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
// Where a waiter stands: places in a row that are taken before it gives up.
constexpr int kMostPlacesTried = 1000;
// What leaves a free lock for so long, and waits for it, does not run.
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

void Table::PrepareHeader(uint64_t largest_save_number) const {
  Header wanted = {};
  wanted.magic = kHeaderMagic;
  wanted.version = kVersion;
  wanted.table_size = kTableSize;
  wanted.record_size = kRecordSize;
  wanted.owners = kOwners;
  wanted.check = CheckOf(wanted);
  // Also where someone has written over it while owners live: they know their places by heart.
  const size_t fixed = offsetof(Header, next_save_number);
  if (std::memcmp(header(), &wanted, fixed) != 0) {
    const size_t behind_magic = sizeof wanted.magic;
    std::memcpy(reinterpret_cast<uint8_t*>(header()) + behind_magic,
                reinterpret_cast<const uint8_t*>(&wanted) + behind_magic, fixed - behind_magic);
    StoreLast(&header()->magic, wanted.magic);
  }
  const uint64_t unused = largest_save_number + 1;
  const uint64_t next_number = __atomic_load_n(&header()->next_save_number, __ATOMIC_RELAXED);
  if (next_number < unused || next_number >= kSaveNumberLimit) {
    __atomic_store_n(&header()->next_save_number, unused, __ATOMIC_RELAXED);
  }
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
  PutOutOfForce(owner, in_force_now);
}

void Table::SettleDeadOwners(uint64_t dead, cache_io::Durability durability) const {
  uint64_t heirs = 0;
  uint64_t superseded = 0;
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    if ((dead & Bit(owner)) == 0) continue;
    for (Reservation& reserved : record(owner)->reserved) {
      if (reserved.size != 0) reserved.size = 0;
    }
    const OwnerView view = View(owner);
    // It died holding the locks of those whose content it had taken, so they are dead too.
    if (view.in_force < 0 || view.seal().superseded == 0) continue;
    if ((view.seal().superseded & ~dead) != 0) continue;
    heirs |= Bit(owner);
    for (uint32_t other = 1; other <= kOwners; ++other) {
      if (Supersedes(view, other, View(other))) superseded |= Bit(other);
    }
  }
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    const OwnerView voided = View(owner);
    if ((superseded & Bit(owner)) == 0) continue;
    if (voided.in_force < 0 && voided.damage == nullptr) continue;
    ReplaceSeal(owner, std::max(voided.in_force, 0), Seal());  // Also in place of a damaged one.
  }
  if (heirs != 0) (void)Flush(durability);
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    const OwnerView view = View(owner);
    if ((heirs & Bit(owner)) == 0 || view.in_force < 0) continue;
    Seal seal = view.seal();
    seal.superseded = 0;
    ReplaceSeal(owner, view.in_force, seal);
  }
}

uint64_t Table::OwnersWithContent(uint64_t dead) const {
  uint64_t owners = 0;
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    if ((dead & Bit(owner)) == 0) continue;
    const OwnerView view = View(owner);
    if (view.has_content() && view.damage == nullptr) owners |= Bit(owner);
  }
  for (uint32_t heir = 1; heir <= kOwners; ++heir) {
    const OwnerView view = View(heir);
    if (view.in_force < 0 || view.seal().superseded == 0) continue;
    for (uint32_t owner = 1; owner <= kOwners; ++owner) {
      if (Supersedes(view, owner, View(owner))) owners &= ~Bit(owner);
    }
  }
  return owners;
}

uint32_t Table::Oldest(uint64_t owners) const {
  uint32_t oldest = 0;
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    if ((owners & Bit(owner)) == 0) continue;
    if (oldest == 0 || View(owner).seal().save_number < View(oldest).seal().save_number) {
      oldest = owner;
    }
  }
  return oldest;
}

// A process that dies drops all its locks at once, but perhaps in the middle of a pass: whoever got
// one of them gets the others in the next pass. What remains is whole: with every dead owner, all
// whose content it had taken.
bool LockDeadOwners(const cache_io::Descriptor& file, uint64_t* dead) {
  uint64_t before;
  do {
    before = *dead;
    for (uint32_t owner = 1; owner <= kOwners; ++owner) {
      if ((*dead & Bit(owner)) != 0) continue;
      if (cache_io::TryLock(file.fd(), RecordOffset(owner), 1)) {
        *dead |= Bit(owner);
      } else if (errno != EAGAIN) {
        return false;
      }
    }
  } while (*dead != before);
  return true;
}

void UnlockOwners(const cache_io::Descriptor& file, uint64_t owners) {
  for (uint32_t owner = 1; owner <= kOwners; ++owner) {
    if ((owners & Bit(owner)) != 0) cache_io::Unlock(file.fd(), RecordOffset(owner), 1);
  }
}

int HasLiveOwners(const cache_io::Descriptor& file) {
  return cache_io::IsLockedByOther(file.fd(), RecordOffset(1), kTableSize - RecordOffset(1));
}

void DropAllLocks(const cache_io::Descriptor& file) { cache_io::Unlock(file.fd(), 0, kTableSize); }

bool TableLock::Take(const cache_io::Descriptor& file, int wait_ms) {
  const int fd = file.fd();
  last_wait_ms_ = waited_in_vain_ ? std::min(kWaitAgainMs, wait_ms) : wait_ms;
  free_since_ns_ = 0;
  bool taken = IsMyTurn(fd, kWaitersEnd) && cache_io::TryLock(fd, 0, 1);
  if (!taken && errno == EAGAIN) {
    uint64_t place = kWaitersBegin + static_cast<uint64_t>(base::MonotonicNs());
    // Others may have the next few; a system that refuses every lock says the same for ever.
    for (int tries = 1; !cache_io::TryLock(fd, place, 1); ++tries, ++place) {
      if (tries == kMostPlacesTried) errno = ENOLCK;
      if (errno != EAGAIN) return false;
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
