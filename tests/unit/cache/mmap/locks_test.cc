// What happens under which lock, and what an owner does who has to wait, or comes too late.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <functional>

#include "services/mmap_file_posix/format.h"
#include "services/mmap_file_posix/owner_table.h"
#include "tests/support/forked.h"
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
  const std::string fixed(reinterpret_cast<const char*>(&header),
                          offsetof(mmap_format::Header, next_save_number));
  ASSERT_TRUE(WriteInto(path_, 0, fixed));
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

// Content of a dead owner whose record has lost all bytes of its seals, or some, stands behind the
// last range in use; and in the middle of its looking for room an owner is told nothing any more.
class MmapFileLostRecordTest : public MmapFileTest {
 protected:
  // Two live owners, whose extents stand in another order than their records, and the dead one's.
  void SetUp() override {
    std::remove(path_.c_str());
    std::remove(SetAside(path_).c_str());
    MultiProcessSafetyMmapFile gone, dead;
    ASSERT_TRUE(OpenFile(gone, path_) && OpenFile(first_, path_) && OpenFile(second_, path_));
    ASSERT_TRUE(OpenFile(dead, path_) && Save(second_, {"second"}) && Save(first_, {"first"}));
    ASSERT_TRUE(Save(dead, dead_));
  }
  void LoseRecord(char byte) {
    const size_t seals = 2 * sizeof(mmap_format::Seal);
    ASSERT_TRUE(WriteInto(path_, mmap_format::RecordOffset(4), std::string(seals, byte)));
    ASSERT_TRUE(OpenFile(last_, path_));
  }
  // Whatever of it was saved.
  void SaveInTheRestOfTheRoom() {
    for (const size_t count : {1, 60}) saved_ = Save(last_, NamedPackets("last", count, 1000));
  }
  void ExpectNothingLost() {
    for (MultiProcessSafetyMmapFile* file : {&first_, &second_, &last_}) file->Close();
    Packets all = dead_;
    all.insert(all.end(), {"first", "second"});
    if (saved_) {
      for (const std::string& packet : NamedPackets("last", 60, 1000)) all.push_back(packet);
    }
    const Packets found = LoadMapped(path_);
    for (const std::string& packet : all) {
      EXPECT_EQ(1, std::count(found.begin(), found.end(), packet)) << Show({packet});
    }
  }

  const Packets dead_ = NamedPackets("dead", 10, 1000);
  MultiProcessSafetyMmapFile first_, second_, last_;
  bool saved_ = false;
};

// One call fails; of reads, which are tried again, all from there on.
TEST_F(MmapFileLostRecordTest, ItsRoomIsNeverTaken) {
  for (const char byte : {'\0', 'x'}) {
    for (const Call call : {Call::kPread, Call::kFstat}) {
      bool has_failed = true;
      for (int nth = 0; has_failed; ++nth) {
        SCOPED_TRACE(FileCalls::Name(call) + (" after " + std::to_string(nth)));
        ASSERT_NO_FATAL_FAILURE(SetUp());
        ASSERT_NO_FATAL_FAILURE(LoseRecord(byte));
        const auto fail = [call] {
          call == Call::kPread ? FileCalls::FailEach(call, EIO) : FileCalls::Fail(call, 1, EIO);
        };
        if (nth == 0) fail();
        {
          Watcher watcher;
          int calls = 0;
          watcher.after = [&](const CallInfo& info) {
            if (info.call == call && ++calls == nth) fail();
          };
          SaveInTheRestOfTheRoom();
          has_failed = calls >= nth;
        }
        FileCalls::Reset();
        ASSERT_NO_FATAL_FAILURE(ExpectNothingLost());
      }
    }
  }
}

// Starts a process that stops itself where it has the table's lock, for more room.
pid_t StartAndStopWithTheLock(const std::string& path) {
  const pid_t child = ForkChild([&] {
    Watcher watcher;
    watcher.before = [&](const CallInfo& info) {
      if (info.call == Call::kPosixFallocate && info.offset > 0) raise(SIGSTOP);
    };
    MultiProcessSafetyMmapFile file;
    return OpenFile(file, path) && Save(file, {"of the stopped"}) ? 0 : 1;
  });
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
  EXPECT_EQ(0, ReapPatiently(stopped));
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

// In the same nanosecond: the second takes the place behind the first.
TEST_F(MmapFileLocksTest, TwoWhoCameTogetherWaitOneBehindTheOther) {
  Leave({"a"});
  Stranger holder(path_), first(path_);
  ASSERT_TRUE(holder.LockTable());
  cache_io::Descriptor file;
  ASSERT_TRUE(file.Open(path_, cache_io::Descriptor::How::kExisting));
  constexpr uint64_t kPlaces = uint64_t{1} << 62;
  std::vector<uint64_t> places;
  Watcher watcher;
  watcher.before = [&](const CallInfo& info) {
    if (info.call != Call::kFcntl || info.size != 1 || info.offset < kPlaces) return;
    places.push_back(info.offset);
    if (places.size() == 1) {
      EXPECT_TRUE(first.WaitSince(static_cast<int64_t>(info.offset - kPlaces)));
    } else {
      first.Leave();
      holder.Leave();
    }
  };

  EXPECT_TRUE(mmap_format::TableLock().Take(file, 60000));

  ASSERT_EQ(2u, places.size());
  EXPECT_EQ(places[0] + 1, places[1]);
}

// As a security policy may. Refused so is also what another has, whom one would wait for.
TEST_F(MmapFileLocksTest, ASystemThatRefusesEveryLockIsNotAskedForEver) {
  MultiProcessSafetyMmapFile file;
  FileCalls::FailEach(Call::kFcntl, EACCES);
  EXPECT_FALSE(OpenFile(file, path_));
  EXPECT_EQ(1, LinesWith(2, std::strerror(ENOLCK)));

  FileCalls::Reset();
  ASSERT_TRUE(OpenFile(file, path_) && Save(file, {"a"}));
  FileCalls::FailEach(Call::kFcntl, EACCES);
  EXPECT_FALSE(Save(file, NamedPackets("p", 100, 1000)));
  EXPECT_EQ(2, LinesWith(2, std::strerror(ENOLCK)));
  EXPECT_EQ(0, LinesWith(2, "holds its lock")) << "nobody does";
  FileCalls::Reset();

  EXPECT_TRUE(Save(file, {"b"}));
}

// The child has other things by now where its parent has the file mapped, a save under way too.
TEST_F(MmapFileLocksTest, AForkedChildUnmapsNothingOfItsOwn) {
  std::vector<CallInfo> mapped;
  MultiProcessSafetyMmapFile file, neighbour;
  {
    Watcher watcher;
    watcher.after = [&](const CallInfo& info) {
      if (info.call == Call::kMmap && info.fd >= 0) mapped.push_back(info);
    };
    ASSERT_TRUE(OpenFile(file, path_) && Save(file, {"a"}));
    ASSERT_TRUE(OpenFile(neighbour, path_) && Save(neighbour, {"b"}));
    ASSERT_TRUE(file.Clear(100000) && Append(file, std::string(50000, 'm')));
  }
  const int result = ResultOfChild([&] {
    std::vector<char*> own;
    for (const CallInfo& info : mapped) {
      void* const address = const_cast<void*>(info.address);
      void* const got = mmap(address, info.size, PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
      if (got == address) own.push_back(static_cast<char*>(got));
    }
    file.Close();
    for (char* const bytes : own) *bytes = 1;
    return own.size() < 4 ? 1 : 0;
  });
  EXPECT_EQ(0, result);
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
