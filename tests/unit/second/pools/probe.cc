#include "tests/unit/second/pools/probe.h"

#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <new>

extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex);
}

namespace quenor::test {
namespace {

struct Record {
  static constexpr size_t kRoom = 8192;
  Seen seen[kRoom];
  size_t count;
  size_t nothrow_arrays;
  size_t fail_first;
  size_t fail_last;
  bool fail_throwing;
};

thread_local Record* t_record = nullptr;  // Null while the thread has no probe, or has it paused.

void Note(Act act, void* what, size_t size) {
  if (t_record == nullptr) return;
  if (t_record->count == Record::kRoom) std::abort();
  t_record->seen[t_record->count++] = {act, what, size};
}

void* Allocate(size_t size) {
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (memory != nullptr && t_record != nullptr) std::memset(memory, Probe::kFill, size);
  return memory;
}

// Keeps the probe's own work out of its record.
class Pause {
 public:
  Pause() : record_(t_record) { t_record = nullptr; }
  ~Pause() { t_record = record_; }
  Record& record() const { return *record_; }

 private:
  Record* const record_;
};

}  // namespace

std::ostream& operator<<(std::ostream& out, const Seen& seen) {
  static const char* const kNames[] = {"lock",  "unlock",     "new(nothrow)[]",
                                       "new[]", "new object", "delete[]"};
  return out << kNames[static_cast<int>(seen.act)] << " " << seen.what << " " << seen.size;
}

Probe::Probe() {
  if (t_record != nullptr) std::abort();  // One probe a thread.
  auto* const record = static_cast<Record*>(std::calloc(1, sizeof(Record)));
  if (record == nullptr) std::abort();
  t_record = record;
}

Probe::~Probe() {
  std::free(t_record);
  t_record = nullptr;
}

std::vector<Seen> Probe::All() const {
  const Pause pause;
  return {pause.record().seen, pause.record().seen + pause.record().count};
}

size_t Probe::Count(Act act) const {
  size_t count = 0;
  for (size_t i = 0; i < t_record->count; ++i) count += t_record->seen[i].act == act ? 1 : 0;
  return count;
}

std::vector<const void*> Probe::Whats(Act act) const {
  std::vector<const void*> whats;
  const Pause pause;
  for (size_t i = 0; i < pause.record().count; ++i) {
    if (pause.record().seen[i].act == act) whats.push_back(pause.record().seen[i].what);
  }
  return whats;
}

std::vector<size_t> Probe::Sizes(Act act) const {
  std::vector<size_t> sizes;
  const Pause pause;
  for (size_t i = 0; i < pause.record().count; ++i) {
    if (pause.record().seen[i].act == act) sizes.push_back(pause.record().seen[i].size);
  }
  return sizes;
}

void Probe::Clear() { t_record->count = 0; }

void Probe::FailNothrowArrays(size_t first, size_t last) {
  t_record->nothrow_arrays = 0;
  t_record->fail_first = first;
  t_record->fail_last = last;
}

void Probe::FailThrowingArrays() { t_record->fail_throwing = true; }

}  // namespace quenor::test

using quenor::test::Act;
using quenor::test::Allocate;
using quenor::test::Note;
using quenor::test::t_record;

extern "C" int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  const int result = __real_pthread_mutex_lock(mutex);
  Note(Act::kLock, mutex, 0);
  return result;
}

extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
  Note(Act::kUnlock, mutex, 0);
  return __real_pthread_mutex_unlock(mutex);
}

void* operator new(size_t size) {
  void* const memory = Allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  Note(Act::kNewObject, memory, size);
  return memory;
}

void* operator new[](size_t size) {
  void* const memory = t_record != nullptr && t_record->fail_throwing ? nullptr : Allocate(size);
  Note(Act::kNewArray, memory, size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  void* const memory = Allocate(size);
  Note(Act::kNewObject, memory, size);
  return memory;
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  bool fail = false;
  if (t_record != nullptr) {
    const size_t number = ++t_record->nothrow_arrays;
    fail = number >= t_record->fail_first && number <= t_record->fail_last;
  }
  void* const memory = fail ? nullptr : Allocate(size);
  Note(Act::kNewNothrowArray, memory, size);
  return memory;
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

void operator delete[](void* memory) noexcept {
  Note(Act::kDeleteArray, memory, 0);
  std::free(memory);
}
void operator delete[](void* memory, size_t) noexcept {
  Note(Act::kDeleteArray, memory, 0);
  std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  Note(Act::kDeleteArray, memory, 0);
  std::free(memory);
}
