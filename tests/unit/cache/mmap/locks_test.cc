// What happens under which lock, and what an owner does who has to wait, or comes too late.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>

#include "quenor_base/platform/default/mmap_file_format.h"
#include "quenor_base/platform/default/mmap_file_table.h"
#include "tests/unit/cache/mmap/mmap_file_fixture.h"

namespace quenor::test {
namespace {

// A stranger's descriptor, with locks of its own.
class Stranger {
 public:
  explicit Stranger(const std::string& path) : fd_(open(path.c_str(), O_RDWR | O_CLOEXEC)) {}
  ~Stranger() { Leave(); }

  bool LockTable() const {
    struct flock lock = TableLock();
    return fcntl(fd_, F_OFD_SETLK, &lock) == 0;
  }
  // As who has waited for the table since that time.
  bool WaitSince(int64_t monotonic_ns) const {
    struct flock lock = TableLock();
    lock.l_start = (off_t{1} << 62) + monotonic_ns;
    return fcntl(fd_, F_OFD_SETLK, &lock) == 0;
  }
  bool SeesTableLocked() const {
    struct flock lock = TableLock();
    return fcntl(fd_, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
  }
  void Leave() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  static struct flock TableLock() {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_len = 1;
    return lock;
  }

  int fd_;
};

class Watcher : public CallObserver {
 public:
  Watcher() { FileCalls::Observe(this); }
  ~Watcher() override { FileCalls::Observe(nullptr); }
  void Before(const CallInfo& info) override {
    if (before) before(info);
  }
  void After(const CallInfo& info) override {
    if (after) after(info);
  }

  std::function<void(const CallInfo&)> before;
  std::function<void(const CallInfo&)> after;
};

class MmapFileLocksTest : public MmapFileTest {};

TEST_F(MmapFileLocksTest, OpenWaitsForWhoHoldsTheTable) {
  Leave({"a"});
  Stranger stranger(path_);
  ASSERT_TRUE(stranger.LockTable());
  int attempts = 0;
  Watcher watcher;
  watcher.before = [&](const CallInfo& info) {
    if (info.call == Call::kFcntl && ++attempts == 3) stranger.Leave();
  };
  MultiProcessSafetyMmapFile file;

  ASSERT_TRUE(OpenFile(file, path_));

  EXPECT_GT(attempts, 3);
  EXPECT_EQ(Packets{"a"}, ReadAll(file));
}

// From any call on: a file system whose locks stop working.
TEST_F(MmapFileLocksTest, OpenSaysSoWhenThereAreNoLocks) {
  Leave({"a"});
  int refused = 0;

  for (int nth = 1;; ++nth) {
    RecordingLog::Clear();
    FileCalls::Reset();
    Watcher watcher;
    int calls = 0;
    watcher.after = [&](const CallInfo& info) {
      if (info.call == Call::kFcntl && ++calls == nth) FileCalls::FailEach(Call::kFcntl, ENOLCK);
    };
    MultiProcessSafetyMmapFile file;
    const bool opened = OpenFile(file, path_);
    const bool has_failed = calls >= nth;
    FileCalls::Reset();
    if (opened) {
      EXPECT_EQ(Packets{"a"}, ReadAll(file)) << nth;
      if (!has_failed) break;
      continue;
    }
    ++refused;
    EXPECT_EQ(1, LinesWith(2, "")) << nth;
    EXPECT_EQ(1, LinesWith(2, "No locks available")) << nth;
  }

  EXPECT_GT(refused, 63);
  EXPECT_EQ(Packets{"a"}, LoadMapped(path_));
}

TEST_F(MmapFileLocksTest, RoomIsTakenAndGivenBackOnlyUnderTheTablesLock) {
  Leave({"a"});
  const Stranger stranger(path_);
  uint64_t seen[static_cast<int>(Call::kHowMany)] = {};
  Watcher watcher;
  watcher.before = [&](const CallInfo& info) {
    if (info.call != Call::kPosixFallocate && info.call != Call::kFallocate &&
        info.call != Call::kFtruncate) {
      return;
    }
    ++seen[static_cast<int>(info.call)];
    EXPECT_TRUE(stranger.SeesTableLocked()) << FileCalls::Name(info.call) << " at " << info.offset;
  };
  MultiProcessSafetyMmapFile file;

  ASSERT_TRUE(OpenFile(file, path_));
  for (const size_t count : {1, 50, 400, 3}) {
    ASSERT_TRUE(Save(file, NamedPackets("p", count, 1000)));
    EXPECT_FALSE(stranger.SeesTableLocked());
  }

  for (const Call call : {Call::kPosixFallocate, Call::kFallocate, Call::kFtruncate}) {
    EXPECT_GT(seen[static_cast<int>(call)], 0u) << FileCalls::Name(call);
  }
}

TEST_F(MmapFileLocksTest, AFileThatIsReplacedWhileItIsOpenedIsLeftForTheNewOne) {
  const std::string elsewhere = folder_.File("elsewhere");
  bool replaced = false;
  Watcher watcher;
  watcher.after = [&](const CallInfo& info) {
    if (info.call != Call::kOpen || replaced) return;
    replaced = true;
    ASSERT_EQ(0, std::rename(path_.c_str(), elsewhere.c_str()));
    ASSERT_TRUE(WriteWholeFile(path_, ""));
  };
  MultiProcessSafetyMmapFile file;

  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(Save(file, {"a"}));
  file.Close();

  EXPECT_TRUE(replaced);
  EXPECT_EQ(0u, SizeOf(elsewhere));
  EXPECT_EQ(Packets{"a"}, LoadMapped(path_));
}

TEST_F(MmapFileLocksTest, AFileThatANewerVersionHasOpenIsLeftAlone) {
  MultiProcessSafetyMmapFile living;
  ASSERT_TRUE(OpenFile(living, path_));
  ASSERT_TRUE(Save(living, {"a"}));
  // As if a newer version had made it.
  const std::string bytes = ReadWholeFile(path_);
  mmap_format::Header header;
  std::memcpy(&header, bytes.data(), sizeof header);
  header.version = mmap_format::kVersion + 1;
  header.check = mmap_format::CheckOf(header);
  std::FILE* const out = std::fopen(path_.c_str(), "r+b");
  ASSERT_NE(nullptr, out);
  ASSERT_EQ(1u, std::fwrite(&header, offsetof(mmap_format::Header, next_save_number), 1, out));
  ASSERT_EQ(0, std::fclose(out));
  RecordingLog::Clear();
  MultiProcessSafetyMmapFile late;

  EXPECT_FALSE(OpenFile(late, path_));

  EXPECT_EQ(1, LinesWith(2, path_));
  EXPECT_TRUE(Exists(path_));
  EXPECT_FALSE(Exists(SetAside(path_)));
  EXPECT_TRUE(Save(living, {"a", "b"}));
}

bool IsTableLock(const CallInfo& info) {
  return info.call == Call::kFcntl && info.offset == 0 && info.size == 1;
}

// A process that fills an extent of `size` bytes, the first long enough that is free, and dies
// before it seals that; whoever opens the file next drops what it had reserved.
void LeaveExtentWithoutName(const std::string& path, size_t size) {
  const pid_t child = fork();
  if (child == 0) {
    MultiProcessSafetyMmapFile file;
    const Packets packets = NamedPackets("never sealed", size / 500, 500);
    bool done = OpenFile(file, path) && file.Clear(AnnouncedSize(packets) + 100);
    for (const std::string& packet : packets) done = done && Append(file, packet);
    _exit(done ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_EQ(0, status);
  EXPECT_EQ(Packets{}, LoadMapped(path));
}

// Held up at each request for the table's lock in turn, among them that to give back the extent
// that it has left: by then others have used that room, together with what was free behind it.
TEST_F(MmapFileLocksTest, RoomThatOthersHaveTakenMeanwhileIsNotGivenBack) {
  int held_up = 0;
  for (size_t size = 1000; size < 30000; size += 2000) {
    bool was_held_up = true;
    for (int nth = 1; was_held_up; ++nth) {
      const std::string path = folder_.File(std::to_string(size) + "." + std::to_string(nth));
      MultiProcessSafetyMmapFile file, neighbour;
      ASSERT_TRUE(OpenFile(file, path) && Save(file, {"a"}));
      ASSERT_TRUE(OpenFile(neighbour, path) && Save(neighbour, NamedPackets("b", 3, 3000)));
      int requests = 0;
      {
        Watcher watcher;
        watcher.before = [&](const CallInfo& info) {
          if (!IsTableLock(info) || ++requests != nth) return;
          ASSERT_TRUE(Save(neighbour, {}));
          neighbour.Close();
          ASSERT_NO_FATAL_FAILURE(LeaveExtentWithoutName(path, size));
        };
        ASSERT_TRUE(Save(file, NamedPackets("grown", 60, 1000)));
      }
      was_held_up = requests >= nth;
      held_up += was_held_up;
      file.Close();
      RecordingLog::Clear();

      EXPECT_EQ(60u, LoadMapped(path).size()) << size << ", request " << nth;
      EXPECT_EQ(0, LinesWith(2, "")) << size << ", request " << nth;
    }
  }
  EXPECT_GT(held_up, 8);
}

// Starts a process that stops itself where it has the table's lock, for more room.
pid_t StartAndStopWithTheLock(const std::string& path) {
  const pid_t child = fork();
  if (child == 0) {
    Watcher watcher;
    watcher.before = [&](const CallInfo& info) {
      if (info.call == Call::kPosixFallocate && info.offset > 0) raise(SIGSTOP);
    };
    MultiProcessSafetyMmapFile file;
    const bool done = OpenFile(file, path) && Save(file, {"of the stopped"});
    _exit(done ? 0 : 1);
  }
  int status = 0;
  EXPECT_EQ(child, waitpid(child, &status, WUNTRACED));
  EXPECT_TRUE(WIFSTOPPED(status));
  return child;
}

TEST_F(MmapFileLocksTest, AStoppedHolderCostsOneLongWaitAndIsNamed) {
  MultiProcessSafetyMmapFile file;
  ASSERT_TRUE(OpenFile(file, path_) && Save(file, {"a"}));
  const pid_t stopped = StartAndStopWithTheLock(path_);
  const Packets packets = NamedPackets("p", 100, 1000);
  uint64_t requests = 0;
  {
    Watcher watcher;
    watcher.before = [&](const CallInfo& info) { requests += IsTableLock(info); };
    EXPECT_FALSE(Save(file, packets));
    EXPECT_GT(requests, 100u) << "the first wait is no long one";

    for (int i = 0; i < 5; ++i) {
      requests = 0;
      EXPECT_FALSE(Save(file, packets));
      EXPECT_LT(requests, 40u) << i;
    }
  }
  EXPECT_EQ(1, LinesWith(2, ""));
  EXPECT_EQ(1, LinesWith(2, "process " + std::to_string(stopped) + " holds its lock"));
  EXPECT_EQ(0, LinesWith(2, "free some space"));
  EXPECT_TRUE(Save(file, {"a", "fits where it is"}));

  ASSERT_EQ(0, kill(stopped, SIGCONT));
  int status = -1;
  ASSERT_EQ(stopped, waitpid(stopped, &status, 0));
  EXPECT_EQ(0, status);
  EXPECT_TRUE(Save(file, packets));
}

TEST_F(MmapFileLocksTest, WhoCameFirstIsServedFirstUnlessHeDoesNotRun) {
  Leave({"a"});
  const Stranger first(path_);
  ASSERT_TRUE(first.WaitSince(1));
  cache_io::Descriptor file;
  ASSERT_TRUE(file.Open(path_, cache_io::Descriptor::How::kExisting));

  EXPECT_FALSE(mmap_format::TableLock().Take(file, 0));
  EXPECT_EQ(EAGAIN, errno);
  EXPECT_FALSE(first.SeesTableLocked());
  mmap_format::TableLock lock;
  EXPECT_TRUE(lock.Take(file, 60000));
  EXPECT_TRUE(first.SeesTableLocked());
}

// At each moment at which something has to be on the disk.
TEST_F(MmapFileLocksTest, AnHeirWhoIsKilledWhileHeSavesLeavesTheOldOrTheNewContent) {
  const DurabilityScope durability(2);
  {
    MultiProcessSafetyMmapFile first, second;
    ASSERT_TRUE(OpenFile(first, path_) && OpenFile(second, path_));
    ASSERT_TRUE(Save(first, {"1"}) && Save(second, {"2"}));
  }
  MultiProcessSafetyMmapFile heir;
  ASSERT_TRUE(OpenFile(heir, path_));
  ASSERT_EQ((Packets{"1", "2"}), ReadAll(heir));
  size_t killed = 0;
  Packets found[100];
  {
    Watcher watcher;
    const auto kill = [&](const CallInfo& info) {
      if (info.call != Call::kMsync || killed == 100) return;
      CopyAsIfKilled(path_, folder_.File("killed"));
      found[killed++] = LoadMapped(folder_.File("killed"));
    };
    watcher.before = watcher.after = kill;

    ASSERT_TRUE(Save(heir, {"2", "new"}));
  }

  EXPECT_GT(killed, 5u);
  EXPECT_EQ((Packets{"1", "2"}), found[0]);
  bool is_new = false;
  for (size_t i = 0; i < killed; ++i) {
    is_new = is_new || found[i] == Packets{"2", "new"};
    EXPECT_EQ(is_new ? (Packets{"2", "new"}) : (Packets{"1", "2"}), found[i]) << i;
  }
  EXPECT_TRUE(is_new);
}

}  // namespace
}  // namespace quenor::test
