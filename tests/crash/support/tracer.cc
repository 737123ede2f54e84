#include "tests/crash/support/tracer.h"

#if defined(__x86_64__)

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unordered_map>
#include <utility>

#include "quenor_base/platform/base/check.h"
#include "tests/crash/support/instruction.h"
#include "tests/support/forked.h"

namespace quenor::test {
namespace {

// No instruction stores more bytes, and none of ours less far from the address computed for it.
constexpr uint64_t kWidestStore = 64;
// Between two looks at everything, for what the look after each instruction may have overlooked.
constexpr uint64_t kStepsBetweenChecks = 4096;
// Adjacent stores from which on a row of them counts as bulk.
constexpr size_t kBulkRow = 64;
constexpr size_t kPage = 4096;

struct CallName {
  long number;
  const char* name;
};
constexpr CallName kCallNames[] = {
    {SYS_read, "read"},
    {SYS_write, "write"},
    {SYS_open, "open"},
    {SYS_close, "close"},
    {SYS_stat, "stat"},
    {SYS_fstat, "fstat"},
    {SYS_lstat, "lstat"},
    {SYS_lseek, "lseek"},
    {SYS_mmap, "mmap"},
    {SYS_mprotect, "mprotect"},
    {SYS_munmap, "munmap"},
    {SYS_brk, "brk"},
    {SYS_pread64, "pread"},
    {SYS_pwrite64, "pwrite"},
    {SYS_mremap, "mremap"},
    {SYS_msync, "msync"},
    {SYS_madvise, "madvise"},
    {SYS_fcntl, "fcntl"},
    {SYS_flock, "flock"},
    {SYS_fsync, "fsync"},
    {SYS_fdatasync, "fdatasync"},
    {SYS_truncate, "truncate"},
    {SYS_ftruncate, "ftruncate"},
    {SYS_rename, "rename"},
    {SYS_unlink, "unlink"},
    {SYS_link, "link"},
    {SYS_fchmod, "fchmod"},
    {SYS_fallocate, "fallocate"},
    {SYS_openat, "openat"},
    {SYS_newfstatat, "fstatat"},
    {SYS_unlinkat, "unlinkat"},
    {SYS_renameat2, "renameat2"},
    {SYS_statx, "statx"},
    {SYS_getrandom, "getrandom"},
    {SYS_writev, "writev"},
    {SYS_pwritev, "pwritev"},
    {SYS_nanosleep, "nanosleep"},
    {SYS_clock_nanosleep, "clock_nanosleep"},
    {SYS_futex, "futex"},
    {SYS_clock_gettime, "clock_gettime"},
    {SYS_linkat, "linkat"},
    {SYS_renameat, "renameat"},
    {SYS_rt_sigaction, "sigaction"},
    {SYS_rt_sigprocmask, "sigprocmask"},
    {SYS_sync_file_range, "sync_file_range"},
};

std::string NameOfCall(uint64_t number) {
  for (const CallName& known : kCallNames) {
    if (static_cast<uint64_t>(known.number) == number) return known.name;
  }
  return "call-" + std::to_string(number);
}

// The mark is a system call of the test program, not of the library.
bool IsMark(uint64_t number) { return number == SYS_kill; }

[[noreturn]] void RunTraced(const std::vector<std::string>& arguments) {
  // The same addresses in every run, all symbols bound before the first mark, and copies by vector
  // stores: the one instruction that copies by itself would stop after every byte.
  personality(ADDR_NO_RANDOMIZE);
  setenv("LD_BIND_NOW", "1", 1);
  setenv("GLIBC_TUNABLES",
         "glibc.cpu.x86_rep_movsb_threshold=1000000000:"
         "glibc.cpu.x86_rep_stosb_threshold=1000000000",
         1);
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  alarm(kLongPatience.count());  // The tracer waits for it.
  if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(126);
  execv(argv[0], argv.data());
  _exit(127);
}

// A program that is being stepped. It never outlives the object.
class Tracee {
 public:
  explicit Tracee(const std::vector<std::string>& arguments)
      : pid_(ForkChild([&]() -> int { RunTraced(arguments); })) {
    stopped_by_ = Wait();
    if (stopped_by_ == SIGTRAP) {
      ptrace(PTRACE_SETOPTIONS, pid_, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD);
    }
  }
  ~Tracee() { Kill(); }
  Tracee(const Tracee&) = delete;
  Tracee& operator=(const Tracee&) = delete;

  // SIGTRAP after a step, SIGSTOP at a mark, 0 when the program has ended, else what it would get.
  int Step() { return Go(PTRACE_SINGLESTEP); }
  int RunToMark() { return Go(PTRACE_CONT); }
  // Also kAtCall, before a system call and once more behind it.
  static constexpr int kAtCall = SIGTRAP | 0x80;
  int RunToCall() { return Go(PTRACE_SYSCALL); }
  // From now on it gets SIGTRAP each time before it executes this instruction; 0 for none. False
  // where the processor's breakpoints are not to be had.
  bool BreakAt(uint64_t address) {
    constexpr size_t registers = offsetof(struct user, u_debugreg);
    constexpr size_t control = registers + 7 * sizeof(uint64_t);
    return ptrace(PTRACE_POKEUSER, pid_, control, nullptr) == 0 &&
           ptrace(PTRACE_POKEUSER, pid_, registers, address) == 0 &&
           (address == 0 || ptrace(PTRACE_POKEUSER, pid_, control, uint64_t{1}) == 0);
  }
  bool has_started() const { return stopped_by_ == SIGTRAP; }

  void Kill() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    int status;
    while (waitpid(pid_, &status, 0) > 0 && !WIFEXITED(status) && !WIFSIGNALED(status)) {
    }
    pid_ = -1;
  }

  user_regs_struct Registers() const {
    user_regs_struct registers;
    QUENOR_CHECK(ptrace(PTRACE_GETREGS, pid_, nullptr, &registers) == 0, "no registers");
    return registers;
  }

  const Instruction& InstructionAt(uint64_t address) {
    const auto known = instructions_.find(address);
    if (known != instructions_.end()) return known->second;
    long words[2];
    for (int i = 0; i < 2; ++i) {
      words[i] = ptrace(PTRACE_PEEKTEXT, pid_, address + static_cast<uint64_t>(i) * 8, nullptr);
    }
    uint8_t bytes[sizeof(words)];
    std::memcpy(bytes, words, sizeof(words));
    return instructions_[address] = Decode(bytes);
  }

  pid_t pid() const { return pid_; }

 private:
  int Go(__ptrace_request how) {
    ptrace(how, pid_, nullptr, nullptr);
    return Wait();
  }

  int Wait() {
    int status;
    pid_t got;
    do {
      got = waitpid(pid_, &status, 0);
    } while (got < 0 && errno == EINTR);
    if (got == pid_ && WIFSTOPPED(status)) return WSTOPSIG(status);
    pid_ = -1;
    return 0;
  }

  pid_t pid_;
  int stopped_by_ = 0;
  std::unordered_map<uint64_t, Instruction> instructions_;
};

// A file as it is now, mapped, and as it was when it was last looked at.
class Watched {
 public:
  explicit Watched(const std::string& path) : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    struct stat info;
    if (fd_ < 0 || fstat(fd_, &info) != 0) return;
    device_ = info.st_dev;
    inode_ = info.st_ino;
    size_ = static_cast<size_t>(info.st_size);
    if (size_ == 0) return;
    void* const base = mmap(nullptr, size_, PROT_READ, MAP_SHARED, fd_, 0);
    QUENOR_CHECK(base != MAP_FAILED, "a cache file cannot be mapped");
    now_ = static_cast<const char*>(base);
    seen_.assign(now_, size_);
  }
  ~Watched() {
    if (now_ != nullptr) munmap(const_cast<char*>(now_), size_);
    if (fd_ >= 0) close(fd_);
  }
  Watched(const Watched&) = delete;
  Watched& operator=(const Watched&) = delete;

  // True when `begin` to `end`, cut to the file, have changed; then the part that has.
  bool FindChange(size_t begin, size_t end, size_t* offset, std::string* bytes) {
    end = std::min(end, size_);
    if (begin >= end || std::memcmp(now_ + begin, &seen_[begin], end - begin) == 0) return false;
    while (now_[begin] == seen_[begin]) ++begin;
    while (now_[end - 1] == seen_[end - 1]) --end;
    *offset = begin;
    bytes->assign(now_ + begin, end - begin);
    seen_.replace(begin, end - begin, *bytes);
    return true;
  }

  bool IsSameFileAs(const struct stat& info) const {
    return info.st_dev == device_ && info.st_ino == inode_ &&
           static_cast<size_t>(info.st_size) == size_;
  }
  const std::string& seen() const { return seen_; }
  size_t size() const { return size_; }
  ino_t inode() const { return inode_; }

 private:
  int fd_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  size_t size_ = 0;
  const char* now_ = nullptr;
  std::string seen_;
};

// Where the traced program has a watched file in its memory.
struct Mapped {
  uint64_t begin;
  uint64_t end;
  uint64_t file_offset;
  std::string name;
};

class Recorder {
 public:
  Recorder(Tracee* tracee, std::string folder, Trace* trace)
      : tracee_(tracee), folder_(std::move(folder)), trace_(trace) {
    LookAtFolder();
    LookAtMappings();
    trace_->begin = Seen();
  }

  // One step. False when the program is at its last mark, or has ended.
  bool Step(size_t phases) {
    const user_regs_struct before = tracee_->Registers();
    const Instruction& instruction = tracee_->InstructionAt(before.rip);
    const bool is_call = instruction.is_system_call && !IsMark(before.rax);
    Visit(before.rip);
    if (is_call) Note(KillPoint::Kind::kEntry).call = NameOfCall(before.rax);
    int signal = tracee_->Step();
    while (signal == SIGSTOP) {
      if (++phase_ == phases) return false;
      signal = tracee_->Step();
    }
    if (signal != SIGTRAP) {
      trace_->error = "the program ended, or got signal " + std::to_string(signal);
      return false;
    }
    ++trace_->steps;
    if (is_call) {
      AfterCall(before.rax, before.rsi);
    } else if (instruction.may_store) {
      AfterStore(instruction.Address(before));
    }
    if (trace_->steps % kStepsBetweenChecks == 0) CatchUp();
    return true;
  }

  // The same, to behind the next system call.
  bool StepToCall(size_t phases) {
    constexpr uint64_t call_length = 2;
    int signal = tracee_->RunToCall();
    while (signal == SIGSTOP) {
      if (++phase_ == phases) return false;
      signal = tracee_->RunToCall();
    }
    if (signal == Tracee::kAtCall) {
      const user_regs_struct before = tracee_->Registers();
      const bool is_call = !IsMark(before.orig_rax);
      Visit(before.rip - call_length);
      const bool changed = LookAtFolder();
      if (is_call || changed) {
        KillPoint& point = Note(KillPoint::Kind::kEntry);
        point.call = NameOfCall(before.orig_rax);
        if (changed) point.state = std::make_shared<const FolderState>(Seen());
      }
      signal = tracee_->RunToCall();
      if (signal == Tracee::kAtCall) {
        ++trace_->steps;
        if (is_call) AfterCall(before.orig_rax, before.rsi);
        return true;
      }
    }
    trace_->error = "the program ended, or got signal " + std::to_string(signal);
    return false;
  }

  void Finish() {
    CatchUp();
    trace_->end = Seen();
  }

 private:
  KillPoint& Note(KillPoint::Kind kind) {
    trace_->points.emplace_back();
    KillPoint& point = trace_->points.back();
    point.kind = kind;
    point.phase = phase_;
    point.step = trace_->steps;
    point.address = address_;
    point.visit = visits_[address_];
    return point;
  }

  void Visit(uint64_t address) {
    address_ = address;
    ++visits_[address];
  }

  FolderState Seen() const {
    FolderState state;
    for (const auto& [name, file] : files_) state.files[name] = file->seen();
    return state;
  }

  // True when anything differs from what was seen last.
  bool LookAtFolder() {
    bool changed = false;
    std::map<std::string, std::unique_ptr<Watched>> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      const std::string name = entry.path().filename().string();
      struct stat info;
      if (lstat(entry.path().c_str(), &info) != 0) continue;
      const auto known = files_.find(name);
      if (known != files_.end() && known->second->IsSameFileAs(info)) {
        size_t offset;
        std::string bytes;
        changed |= known->second->FindChange(0, known->second->size(), &offset, &bytes);
        files[name] = std::move(known->second);
        files_.erase(known);
      } else {
        files[name] = std::make_unique<Watched>(entry.path().string());
        changed = true;
      }
    }
    changed |= !files_.empty();  // Gone, or replaced.
    files_ = std::move(files);
    return changed;
  }

  void LookAtMappings() {
    mapped_.clear();
    std::ifstream lines("/proc/" + std::to_string(tracee_->pid()) + "/maps");
    for (std::string line; std::getline(lines, line);) {
      std::istringstream words(line);
      std::string access, device;
      Mapped range;
      char dash;
      uint64_t inode = 0;
      words >> std::hex >> range.begin >> dash >> range.end >> access >> range.file_offset >>
          device >> std::dec >> inode;
      if (access.size() < 4 || access[1] != 'w' || access[3] != 's') continue;
      for (const auto& [name, file] : files_) {
        if (file->inode() != inode) continue;
        range.name = name;
        mapped_.push_back(range);
      }
    }
  }

  // `mode`: its second argument.
  void AfterCall(uint64_t number, uint64_t mode) {
    const FolderState before = Seen();
    const bool changed = LookAtFolder();
    LookAtMappings();
    row_ = 0;
    if (changed && IsBrokenOff(number, mode)) NoteTorn(number, before, Seen());
    KillPoint& point = Note(KillPoint::Kind::kExit);
    point.call = NameOfCall(number);
    if (changed) point.state = std::make_shared<const FolderState>(Seen());
  }

  // What the kernel may leave of a call that it breaks off for the SIGKILL: a beginning of what is
  // written or allocated, to the end of a page. Some that end within a page are taken as well: they
  // are no harder to promise.
  static bool IsBrokenOff(uint64_t number, uint64_t mode) {
    return number == SYS_pwrite64 || number == SYS_write || number == SYS_writev ||
           number == SYS_pwritev || (number == SYS_fallocate && mode == 0);
  }

  void NoteTorn(uint64_t number, const FolderState& before, const FolderState& after) {
    for (const auto& [name, bytes] : after.files) {
      const auto old = before.files.find(name);
      if (old == before.files.end() || old->second == bytes) continue;
      const std::string& from = old->second;
      size_t begin = 0;
      while (begin < std::min(from.size(), bytes.size()) && from[begin] == bytes[begin]) ++begin;
      size_t end = bytes.size();
      if (from.size() == bytes.size()) {
        while (end > begin && from[end - 1] == bytes[end - 1]) --end;
      }
      for (const size_t cut : Cuts(begin, end)) {
        FolderState torn = after;
        torn.files[name] = bytes.substr(0, cut) + (cut < from.size() ? from.substr(cut) : "");
        KillPoint& point = Note(KillPoint::Kind::kTorn);
        point.call = NameOfCall(number);
        point.state = std::make_shared<const FolderState>(std::move(torn));
      }
    }
  }

  static std::vector<size_t> Cuts(size_t begin, size_t end) {
    std::vector<size_t> cuts;
    const size_t pages = end / kPage - begin / kPage;
    const size_t stride = std::max<size_t>(1, pages / 8) * kPage;
    for (size_t cut = begin / kPage * kPage + kPage; cut < end; cut += stride) cuts.push_back(cut);
    for (const size_t cut : {begin + 1, begin + (end - begin) / 2, end - 1}) {
      if (cut > begin && cut < end) cuts.push_back(cut);
    }
    return cuts;
  }

  void AfterStore(uint64_t address) {
    for (const Mapped& range : mapped_) {
      if (address + kWidestStore <= range.begin || address >= range.end + kWidestStore) continue;
      const uint64_t at = range.file_offset + address - range.begin;
      const size_t begin = at > kWidestStore ? at - kWidestStore : 0;
      size_t offset;
      std::string bytes;
      if (!files_.at(range.name)->FindChange(begin, at + 2 * kWidestStore, &offset, &bytes))
        continue;
      NoteStore(range.name, offset, std::move(bytes));
      return;
    }
  }

  void NoteStore(const std::string& name, size_t offset, std::string bytes) {
    const bool adjacent = offset + 2 * kWidestStore > row_end_ && offset < row_end_ + kWidestStore;
    row_ = adjacent ? row_ + 1 : 0;
    row_end_ = offset + bytes.size();
    KillPoint& point = Note(KillPoint::Kind::kStore);
    point.file = name;
    point.offset = offset;
    point.bytes = std::move(bytes);
    point.bulk = row_ > kBulkRow;
  }

  void CatchUp() {
    for (const auto& [name, file] : files_) {
      size_t offset;
      std::string bytes;
      if (!file->FindChange(0, file->size(), &offset, &bytes)) continue;
      ++trace_->missed;
      NoteStore(name, offset, std::move(bytes));
    }
  }

  Tracee* tracee_;
  std::string folder_;
  Trace* trace_;
  size_t phase_ = 0;
  uint64_t address_ = 0;  // Of the instruction of this step.
  std::unordered_map<uint64_t, uint64_t> visits_;
  size_t row_ = 0;
  size_t row_end_ = 0;
  std::map<std::string, std::unique_ptr<Watched>> files_;
  std::vector<Mapped> mapped_;
};

}  // namespace

std::string WhyNoTracing() {
#if defined(QUENOR_SANITIZED)
  return "a sanitizer is at work, and its instructions would be stepped through too";
#endif
  Tracee tracee({"/bin/true"});
  return tracee.has_started() ? "" : "this process may not trace another (ptrace)";
}

Trace TraceProgram(const std::vector<std::string>& arguments, const std::string& folder,
                   size_t marks, Detail detail) {
  Trace trace;
  Tracee tracee(arguments);
  if (!tracee.has_started() || tracee.RunToMark() != SIGSTOP) {
    trace.error = "the program came to no mark";
    return trace;
  }
  Recorder recorder(&tracee, folder, &trace);
  while (detail == Detail::kCalls ? recorder.StepToCall(marks - 1) : recorder.Step(marks - 1)) {
  }
  recorder.Finish();
  return trace;
}

bool CanKillAt(const KillPoint& point) {
  return point.kind != KillPoint::Kind::kTorn && point.address != 0;
}

bool KillProgramAt(const std::vector<std::string>& arguments, const KillPoint& point) {
  Tracee tracee(arguments);
  if (!tracee.has_started() || tracee.RunToMark() != SIGSTOP) return false;
  QUENOR_CHECK(tracee.BreakAt(point.address), "this processor has no breakpoints");
  for (uint64_t visit = 0; visit < point.visit;) {
    const int signal = tracee.RunToMark();
    if (signal == SIGSTOP) continue;
    if (signal != SIGTRAP) return false;
    if (++visit == point.visit) break;
    // Over the instruction without the breakpoint: it must not count again when it begins anew,
    // interrupted or after a page fault.
    if (!tracee.BreakAt(0) || tracee.Step() != SIGTRAP || !tracee.BreakAt(point.address)) {
      return false;
    }
  }
  if (tracee.Registers().rip != point.address) return false;
  if (point.kind != KillPoint::Kind::kEntry) {
    tracee.BreakAt(0);
    if (tracee.Step() != SIGTRAP) return false;
  }
  tracee.Kill();
  return true;
}

}  // namespace quenor::test

#else  // Not x86-64.

namespace quenor::test {

std::string WhyNoTracing() { return "instructions are understood on x86-64 only"; }
Trace TraceProgram(const std::vector<std::string>&, const std::string&, size_t, Detail) {
  return Trace();
}
bool CanKillAt(const KillPoint&) { return false; }
bool KillProgramAt(const std::vector<std::string>&, const KillPoint&) { return false; }

}  // namespace quenor::test

#endif

namespace quenor::test {

uint64_t Trace::stores() const {
  uint64_t count = 0;
  for (const KillPoint& point : points) count += point.kind == KillPoint::Kind::kStore;
  return count;
}

std::map<std::string, int> Trace::calls() const {
  std::map<std::string, int> names;
  for (const KillPoint& point : points) names[point.call] += point.kind == KillPoint::Kind::kExit;
  names.erase("");
  return names;
}

}  // namespace quenor::test
