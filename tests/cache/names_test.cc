// What stands at a cache file's path, or beside it, that no cache file has put there, and what is
// kept beside it: the same for both kinds.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "quenor_base/platform/cache_file_inspector.h"
#include "tests/cache/support/cache_files.h"
#include "tests/cache/support/file_calls.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

struct Kind {
  const char* suffix;
  Packets (*load)(const std::string& path);
  bool (*save)(const std::string& path, const Packets& packets);
  std::string (*next_header)();
};

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.suffix; }

template <typename File>
bool SaveIn(const std::string& path, const Packets& packets) {
  File file;
  return OpenFile(file, path) && Save(file, packets);
}

constexpr Kind kMapped = {".mmap", [](const std::string& path) { return LoadMapped(path); },
                          SaveIn<MultiProcessSafetyMmapFile>, NextMappedHeader};
constexpr Kind kPlain = {".cache", [](const std::string& path) { return LoadPlain(path); },
                         SaveIn<ReliableReportCacheFile>, NextPlainHeader};

class CacheNamesTest : public ::testing::TestWithParam<Kind> {
 protected:
  CacheNamesTest() { RecordingLog::Clear(); }
  ~CacheNamesTest() override { FileCalls::Reset(); }

  std::string recovered() const { return Recovered(path_); }
  std::string target() const { return folder_.File("target"); }
  static Packets Load(const std::string& path) { return GetParam().load(path); }
  static bool SaveAt(const std::string& path, const Packets& packets) {
    return GetParam().save(path, packets);
  }
  // The file at `path` holds this packet, and a damaged one.
  void LeaveDamaged(const std::string& path, const std::string& packet) {
    ASSERT_TRUE(SaveAt(path, {packet, "to be damaged"}));
    std::string bytes = ReadWholeFile(path);
    const size_t at = bytes.rfind("to be damaged");
    ASSERT_NE(std::string::npos, at);
    bytes[at] = 'T';
    ASSERT_TRUE(WriteWholeFile(path, bytes));
  }
  void ExpectRefused(const std::string& path, const std::vector<std::string>& words) {
    RecordingLog::Clear();

    EXPECT_EQ(Packets{"cannot open"}, Load(path));

    const std::vector<std::string> lines = RecordingLog::Texts(2);
    ASSERT_EQ(1u, lines.size()) << path;
    for (const std::string& word : words) {
      EXPECT_NE(std::string::npos, lines[0].find(word)) << lines[0];
    }
  }

  TempFolder folder_;
  const std::string path_ = folder_.File("channel") + GetParam().suffix;
};

INSTANTIATE_TEST_SUITE_P(Each, CacheNamesTest, ::testing::Values(kMapped, kPlain),
                         [](const auto& each) { return std::string(each.param.suffix + 1); });

bool IsRegularWithOneName(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && info.st_nlink == 1;
}

// With a cache file and without one, damaged or not: nothing of another's is taken or written to.
TEST_P(CacheNamesTest, WhatIsPlantedForARepairIsNeitherTakenNorWrittenTo) {
  const std::vector<std::pair<std::string, std::function<bool()>>> plants = {
      {"a symbolic link", [&] { return symlink(target().c_str(), recovered().c_str()) == 0; }},
      {"a link to nowhere", [&] { return symlink("nowhere", recovered().c_str()) == 0; }},
      {"a hard link", [&] { return link(target().c_str(), recovered().c_str()) == 0; }},
      {"a FIFO", [&] { return mkfifo(recovered().c_str(), 0600) == 0; }},
  };
  ASSERT_TRUE(SaveAt(folder_.File("other"), {"another channel's"}));
  ASSERT_EQ(0, symlink(target().c_str(), SetAside(path_).c_str()));
  for (const std::string& bytes :
       {std::string(), std::string("precious"), ReadWholeFile(folder_.File("other"))}) {
    for (const auto& [name, plant] : plants) {
      for (const bool damaged : {false, true}) {
        SCOPED_TRACE(name + (damaged ? ", damaged file, " : ", no file, ") +
                     std::to_string(bytes.size()) + " bytes");
        unlink(path_.c_str());
        ASSERT_TRUE(WriteWholeFile(target(), bytes));
        if (damaged) {
          ASSERT_NO_FATAL_FAILURE(LeaveDamaged(path_, "kept"));
        }
        ASSERT_TRUE(plant());

        EXPECT_EQ(damaged ? Packets{"kept"} : Packets(), Load(path_));
        EXPECT_TRUE(SaveAt(path_, {"new"}));

        EXPECT_EQ(Packets{"new"}, Load(path_));
        EXPECT_TRUE(IsRegularWithOneName(path_));
        EXPECT_EQ(bytes, ReadWholeFile(target()));
        EXPECT_FALSE(Exists(recovered()));
      }
    }
  }
}

// Nothing is begun in its place: it may hold all that there is.
TEST_P(CacheNamesTest, WhatARepairLeftAndTheSystemRefusesIsTakenByTheNextStart) {
  const std::pair<Call, int> refusals[] = {{Call::kOpen, 2}, {Call::kRenameat2, 1}};
  for (const auto& [call, nth] : refusals) {
    SCOPED_TRACE(FileCalls::Name(call));
    ASSERT_TRUE(SaveAt(path_, {"kept"}));
    ASSERT_EQ(0, rename(path_.c_str(), recovered().c_str()));
    FileCalls::Fail(call, nth, EACCES);

    ExpectRefused(path_, {path_, std::strerror(EACCES)});

    EXPECT_TRUE(FileCalls::HasFailed());
    FileCalls::Reset();
    EXPECT_FALSE(Exists(path_));
    EXPECT_EQ(Packets{"kept"}, Load(path_));
    EXPECT_FALSE(Exists(recovered()));
  }
}

TEST_P(CacheNamesTest, WhatARepairLeftThatWasKilledAtItsWorkIsRemoved) {
  ASSERT_TRUE(SaveAt(path_, {"kept"}));
  for (const std::string& left : {std::string("half of a file"), ReadWholeFile(path_) + "more"}) {
    ASSERT_TRUE(WriteWholeFile(recovered(), left));

    EXPECT_EQ(Packets{"kept"}, Load(path_));

    EXPECT_FALSE(Exists(recovered()));
  }
}

TEST_P(CacheNamesTest, AFileSystemWithoutTheCarefulRenameIsServed) {
  ASSERT_TRUE(SaveAt(path_, {"kept"}));
  ASSERT_EQ(0, rename(path_.c_str(), recovered().c_str()));
  FileCalls::FailEach(Call::kRenameat2, EINVAL);

  EXPECT_EQ(Packets{"kept"}, Load(path_));
  EXPECT_TRUE(Exists(path_));
}

TEST_P(CacheNamesTest, AFileSystemWithoutLocksIsRefused) {
  FileCalls::FailEach(Call::kFcntl, ENOLCK);

  ExpectRefused(path_, {path_, "lock", std::strerror(ENOLCK)});
}

TEST_P(CacheNamesTest, ANewFileIsForItsUserAloneWhateverTheUmask) {
  for (const mode_t mask : {0, 022, 077, 0277, 0777}) {
    const mode_t before = umask(mask);
    const bool saved = SaveAt(path_, {"a"});
    umask(before);

    ASSERT_TRUE(saved) << mask;
    struct stat info;
    ASSERT_EQ(0, lstat(path_.c_str(), &info));
    EXPECT_EQ(0600u, info.st_mode & 07777) << mask;
    ASSERT_EQ(0, unlink(path_.c_str()));
  }
}

TEST_P(CacheNamesTest, AnEmptyFileIsANewOne) {
  ASSERT_TRUE(WriteWholeFile(path_, ""));

  EXPECT_EQ(Packets{}, Load(path_));
  EXPECT_TRUE(SaveAt(path_, {"a"}));

  EXPECT_EQ(Packets{"a"}, Load(path_));
  EXPECT_FALSE(Exists(SetAside(path_))) << "there was nothing to keep";
  EXPECT_EQ(0, LinesWith(2, ""));
}

TEST_P(CacheNamesTest, PathsThatLeadAstrayAreRefused) {
  ASSERT_EQ(0, mkdir(folder_.File("below").c_str(), 0700));
  for (const std::string& path : {folder_.File("below/../channel"), folder_.File(".."),
                                  std::string(".."), std::string("../channel")}) {
    ExpectRefused(path, {path, "\"..\""});
  }
  ExpectRefused("", {"empty"});
  ExpectRefused(folder_.path() + std::string("/a\0b", 4), {"NUL"});
  ExpectRefused(folder_.File("missing/channel"), {std::strerror(ENOENT)});
  ExpectRefused("/" + std::string(5000, 'n'), {"shorten"});

  EXPECT_EQ(std::vector<std::string>{"below"}, FileNames(folder_.path()));
  for (const char* const name : {"a..b", "..c", "a..", "...", ".hidden"}) {
    EXPECT_EQ(Packets{}, Load(folder_.File(name))) << name;
  }
}

TEST_P(CacheNamesTest, OnlyTheFolderMayBeASymbolicLink) {
  ASSERT_TRUE(SaveAt(path_, {"kept"}));
  const std::string link = folder_.File("link");
  ASSERT_EQ(0, symlink(path_.c_str(), link.c_str()));

  ExpectRefused(link, {link, "it is a symbolic link, and none is followed; remove it"});
  ASSERT_EQ(0, unlink(link.c_str()));
  ASSERT_EQ(0, symlink(folder_.path().c_str(), link.c_str()));

  EXPECT_EQ(Packets{"kept"}, Load(link + path_.substr(path_.rfind('/'))));
}

TEST_P(CacheNamesTest, AFolderUnderTheNameOfARepairIsNothingToTake) {
  ASSERT_EQ(0, mkdir(recovered().c_str(), 0700));

  EXPECT_TRUE(SaveAt(path_, {"new"}));
  EXPECT_EQ(Packets{"new"}, Load(path_));
}

std::string OfNewerVersion(const Kind& kind) {
  std::string bytes = kind.next_header();
  bytes.resize(16384);
  return bytes;
}

TEST_P(CacheNamesTest, NothingThatWasSetAsideIsReplaced) {
  const std::string newer = OfNewerVersion(GetParam());
  std::vector<std::string> found;
  for (int i = 0; i < 3; ++i) {
    found.push_back(i == 1 ? std::string() : newer + std::to_string(i));
    if (i == 1) {
      ASSERT_NO_FATAL_FAILURE(LeaveDamaged(path_, "kept"));
      found[1] = ReadWholeFile(path_);
    } else {
      ASSERT_TRUE(WriteWholeFile(path_, found[i]));
    }
    RecordingLog::Clear();
    EXPECT_EQ(i == 1 ? Packets{"kept"} : Packets(), Load(path_));
    const std::string name = SetAside(path_) + (i == 0 ? "" : "." + std::to_string(i + 1));
    EXPECT_EQ(1, LinesWith(2, name)) << name;
    unlink(path_.c_str());
  }

  EXPECT_EQ(found[0], ReadWholeFile(SetAside(path_)));
  EXPECT_EQ(found[1], ReadWholeFile(SetAside(path_) + ".2"));
  EXPECT_EQ(found[2], ReadWholeFile(SetAside(path_) + ".3"));
}

TEST_P(CacheNamesTest, WithNoNameLeftTheFileStaysAndTheLineSaysWhatToDo) {
  const std::string newer = OfNewerVersion(GetParam());
  ASSERT_TRUE(WriteWholeFile(path_, newer));
  ASSERT_TRUE(WriteWholeFile(SetAside(path_), "first"));
  for (int i = 2; i <= 99; ++i) {
    ASSERT_TRUE(WriteWholeFile(SetAside(path_) + "." + std::to_string(i), "later"));
  }

  ExpectRefused(path_, {path_, "99 files", "remove", SetAside(path_)});

  EXPECT_EQ(newer, ReadWholeFile(path_));
  EXPECT_EQ("first", ReadWholeFile(SetAside(path_)));
  EXPECT_FALSE(Exists(recovered()));
  ASSERT_EQ(0, unlink((SetAside(path_) + ".50").c_str()));
  EXPECT_EQ(Packets(), Load(path_));
  EXPECT_EQ(newer, ReadWholeFile(SetAside(path_) + ".50"));
}

TEST_P(CacheNamesTest, WhatIsNoFileIsNamedForWhatItIs) {
  const auto make_socket = [&] {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool made =
        fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    if (fd >= 0) close(fd);
    return made;
  };
  const std::vector<std::pair<std::string, std::function<bool()>>> cases = {
      {"FIFO", [&] { return mkfifo(path_.c_str(), 0600) == 0; }},
      {"socket", make_socket},
      // Of no driver: only one who may make devices has this case.
      {"device", [&] { return mknod(path_.c_str(), S_IFCHR | 0600, makedev(240, 77)) == 0; }},
      {"directory", [&] { return mkdir(path_.c_str(), 0700) == 0; }},
      {"symbolic link", [&] { return symlink(target().c_str(), path_.c_str()) == 0; }},
  };
  for (const auto& [word, make] : cases) {
    if (!make()) {
      ASSERT_EQ("device", word);
      continue;
    }
    CacheFileInspector::Summary summary;
    std::string error;

    ExpectRefused(path_, {path_, word, "remove it"});
    EXPECT_EQ(CacheFileInspector::Result::kNotFound,
              CacheFileInspector::Inspect(base::FilePath(path_), nullptr, &summary, &error));

    EXPECT_NE(std::string::npos, error.find(word)) << error;
    ASSERT_EQ(0, remove(path_.c_str()));
  }
  EXPECT_FALSE(Exists(target()));
}

TEST_P(CacheNamesTest, AnotherUsersFileThatEverybodyMayWriteToIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can make a file of another user";
  constexpr uid_t kNobody = 65534;
  ASSERT_TRUE(SaveAt(path_, {"planted"}));
  ASSERT_EQ(0, chmod(path_.c_str(), 0666));
  EXPECT_EQ(Packets{"planted"}, Load(path_)) << "of this user's own";
  ASSERT_EQ(0, chown(path_.c_str(), kNobody, kNobody));
  uint64_t packets = 0;
  std::string error;

  ExpectRefused(path_, {path_, "another user", "remove it"});
  EXPECT_EQ(CacheFileInspector::Result::kNotFound,
            CacheFileInspector::Purge(base::FilePath(path_), &packets, &error));

  // Nor as what a repair has left.
  ASSERT_EQ(0, rename(path_.c_str(), recovered().c_str()));
  EXPECT_EQ(Packets(), Load(path_));
  EXPECT_FALSE(Exists(recovered()));
}

// As long as every name beside it has room, even that of the last file set aside.
TEST_P(CacheNamesTest, TheLongestNameThatIsTakenCanBeRepaired) {
  const size_t longest = static_cast<size_t>(pathconf(folder_.path().c_str(), _PC_NAME_MAX)) - 13;
  const std::string suffix = GetParam().suffix;
  const std::string fits = folder_.File(std::string(longest - suffix.size(), 'c') + suffix);
  ASSERT_NO_FATAL_FAILURE(LeaveDamaged(fits, "kept"));
  ASSERT_TRUE(WriteWholeFile(SetAside(fits), "first"));
  for (int i = 2; i < 99; ++i) {
    ASSERT_TRUE(WriteWholeFile(SetAside(fits) + "." + std::to_string(i), "later"));
  }

  EXPECT_EQ(Packets{"kept"}, Load(fits));

  EXPECT_TRUE(Exists(SetAside(fits) + ".99"));
  for (const size_t more : {size_t{1}, size_t{13}, size_t{50}}) {
    ExpectRefused(folder_.File(std::string(longest - suffix.size() + more, 'c') + suffix),
                  {std::to_string(longest + more) + " bytes", std::to_string(longest),
                   "shorten the channel name by " + std::to_string(more)});
  }
}

// --- Purge ---------------------------------------------------------------------------------------

// Called ahead of every call of one kind.
class AtEach : public CallObserver {
 public:
  AtEach(Call call, std::function<void()> act) : call_(call), act_(std::move(act)) {
    FileCalls::Observe(this);
  }
  ~AtEach() override { FileCalls::Reset(); }
  void Before(const CallInfo& info) override {
    if (info.call == call_) act_();
  }

 private:
  const Call call_;
  const std::function<void()> act_;
};

CacheFileInspector::Result Purge(const std::string& path, uint64_t* packets) {
  std::string error;
  return CacheFileInspector::Purge(base::FilePath(path), packets, &error);
}

TEST_P(CacheNamesTest, APurgeThatIsKilledBringsNothingBack) {
  ASSERT_TRUE(SaveAt(path_, {"old"}));
  ASSERT_TRUE(WriteWholeFile(recovered(), ReadWholeFile(path_)));
  ASSERT_TRUE(SaveAt(path_ + ".set-aside.7", {"older"}));
  uint64_t packets = 0;
  int moments = 0;
  {
    const AtEach look(Call::kUnlink, [&] {
      ++moments;
      EXPECT_TRUE(Exists(path_) || !Exists(recovered())) << "the next start takes it for content";
    });

    EXPECT_EQ(CacheFileInspector::Result::kOk, Purge(path_, &packets));
  }
  EXPECT_GE(moments, 3);
  EXPECT_EQ(1u, packets);
  for (const char* end : {"", ".recovered", ".set-aside.7"}) EXPECT_FALSE(Exists(path_ + end));
}

// As an Open() may that runs at the same time.
TEST_P(CacheNamesTest, ARepairWhoseLastStepSomebodyElseMakesIsDone) {
  ASSERT_NO_FATAL_FAILURE(LeaveDamaged(path_, "kept"));
  bool made = false;
  const AtEach make(Call::kRename,
                    [&] { made = made || rename(recovered().c_str(), path_.c_str()) == 0; });

  EXPECT_EQ(Packets{"kept"}, Load(path_));
  EXPECT_TRUE(made);
}

// The owner writes it anew and goes on there, between the purge's opening and its lock.
TEST_P(CacheNamesTest, APurgeLooksAgainAtAFileThatWasReplacedBeforeItsLock) {
  ASSERT_TRUE(SaveAt(path_, {"old"}));
  ASSERT_TRUE(SaveAt(folder_.File("new"), {"new", "newer"}));
  uint64_t packets = 0;
  bool replaced = false;
  {
    const AtEach replace(Call::kFcntl, [&] {
      if (!std::exchange(replaced, true)) {
        EXPECT_EQ(0, rename(folder_.File("new").c_str(), path_.c_str()));
      }
    });

    EXPECT_EQ(CacheFileInspector::Result::kOk, Purge(path_, &packets));
  }
  EXPECT_TRUE(replaced);
  EXPECT_EQ(2u, packets);
  EXPECT_FALSE(Exists(path_));
}

// The same for whoever opens it to be its owner, whether there is a file, what a repair left, or
// nothing yet.
TEST_P(CacheNamesTest, AFileThatWasReplacedBeforeItsLockIsNotTaken) {
  for (const std::string& existing : {path_, recovered(), std::string()}) {
    SCOPED_TRACE(existing);
    unlink(path_.c_str());
    if (!existing.empty()) {
      ASSERT_TRUE(SaveAt(folder_.File("old"), {"old"}));
      ASSERT_EQ(0, rename(folder_.File("old").c_str(), existing.c_str()));
    }
    ASSERT_TRUE(SaveAt(folder_.File("new"), {"new"}));
    bool replaced = false;
    const AtEach replace(Call::kFcntl, [&] {
      if (std::exchange(replaced, true)) return;
      const std::string at = Exists(path_) ? path_ : recovered();
      EXPECT_EQ(0, rename(folder_.File("new").c_str(), at.c_str()));
    });

    EXPECT_EQ(Packets{"new"}, Load(path_));
    EXPECT_TRUE(replaced);
  }
}

}  // namespace
}  // namespace quenor::test
