// The process is killed between any two calls that change the disk, and in the middle of a write.
// What either kind of cache file has promised is there afterwards.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <utility>

#include "tests/cache/support/cache_kind.h"

namespace quenor::test {
namespace {

bool IsSubsequence(const Packets& part, const Packets& whole) {
  size_t i = 0;
  for (const std::string& packet : whole) {
    if (i < part.size() && part[i] == packet) ++i;
  }
  return i == part.size();
}

// Random saves; at every change on the disk the folder is looked at as a kill would leave it.
template <typename Kind>
class KilledSaves : public CallObserver {
 public:
  explicit KilledSaves(uint64_t seed) : random_(seed) { Restart(std::make_unique<TempFolder>()); }
  ~KilledSaves() override { FileCalls::Reset(); }

  void Step() {
    // Somebody else's bytes; what a save that was given up has written stays in front of them.
    if (Kind::kIsPlain && Chance(20)) AppendLitter();
    next_ = NextStore();
    const size_t given_up_at = Chance(4) ? Below(random_, next_.size() + 1) : next_.size();
    ASSERT_TRUE(BeginSave(*file_, next_));
    before_last_ = saved_;
    appended_.clear();
    while (appended_.size() < given_up_at) {
      in_flight_ = {next_[appended_.size()]};
      ASSERT_TRUE(Append(*file_, in_flight_[0]));
      appended_.push_back(in_flight_[0]);
      in_flight_.clear();
      if (Chance(400)) return Kill();
    }
    const bool is_whole = given_up_at == next_.size();
    // Of the plain file, one that nobody asks about is completed by the next Clear().
    if (is_whole && (!Kind::kIsPlain || !Chance(4))) {
      ASSERT_TRUE(file_->IsSaveComplete());
      before_last_ = appended_;  // From here on nothing of it comes back.
    }
    if (Kind::kIsPlain || is_whole) saved_ = appended_;
    next_ = saved_;
    Look();
    if (Chance(15)) return Kill();
    if (Chance(30)) Close();
  }
  size_t looks() const { return looks_; }
  size_t kills() const { return kills_; }

 private:
  bool Chance(uint64_t one_in) { return Below(random_, one_in) == 0; }

  std::string NewPacket() {
    if (Chance(10)) return "twin " + std::to_string(Below(random_, 3));
    const size_t size =
        Chance(50) ? 70000 + Below(random_, 70000) : 9 + Below(random_, Chance(4) ? 3000 : 100);
    return NamedPacket("p", next_packet_++, size);
  }
  // What a channel does to its store, and more.
  Packets NextStore() {
    Packets store = saved_;
    if (Chance(60)) store.clear();
    for (size_t n = Below(random_, 4); n > 0 && !store.empty(); --n) {
      store.erase(store.begin() + static_cast<long>(Chance(2) ? 0 : Below(random_, store.size())));
    }
    if (Chance(6) && store.size() > 1) std::swap(store[0], store[Below(random_, store.size())]);
    for (size_t n = Below(random_, 4); n > 0; --n) store.push_back(NewPacket());
    if (store.size() > 40) store.erase(store.begin(), store.begin() + 20);
    return store;
  }

  // Not at open() and mmap(): the library holds its lock against forks there.
  void Before(const CallInfo& info) override {
    switch (info.call) {
      case Call::kPwrite:
        Look();
        for (const size_t part : {uint64_t{1}, info.size / 2, info.size - 1}) {
          if (part == 0 || part >= info.size) continue;
          const auto written = pwrite(info.fd, info.address, part, static_cast<off_t>(info.offset));
          ASSERT_EQ(static_cast<ssize_t>(part), written);
          Look();
        }
        break;
      case Call::kPosixFallocate:
      case Call::kFallocate:
      case Call::kFtruncate:
      case Call::kRename:
      case Call::kRenameat2:
      case Call::kUnlink:
      case Call::kFcntl:
        Look();
        break;
      default:
        break;
    }
  }
  void Look() {
    ++looks_;
    const FileCalls::Unseen unseen;
    const Packets found = Kind::Load(Copy()->File("channel"));
    ASSERT_TRUE(IsPromised(found)) << Show(found) << "; saved " << Show(saved_) << ", before "
                                   << Show(before_last_) << ", now " << Show(appended_);
  }
  bool IsPromised(const Packets& found) const {
    if (!Kind::kIsPlain) return found == saved_ || found == next_;
    Packets with = appended_;
    with.insert(with.end(), in_flight_.begin(), in_flight_.end());
    return Includes(found, Union(saved_, appended_)) &&
           Includes(Union(before_last_, Union(saved_, with)), found) &&
           IsSubsequence(appended_, found);
  }

  void AppendLitter() {
    const std::string path = folder_->File("channel");
    ASSERT_TRUE(WriteInto(path, SizeOf(path), std::string(1 + Below(random_, 5000), 'z')));
  }
  std::unique_ptr<TempFolder> Copy() const {
    auto copy = std::make_unique<TempFolder>();
    std::filesystem::copy(folder_->path(), copy->path(), std::filesystem::copy_options::recursive);
    return copy;
  }
  void Kill() {
    ++kills_;
    Restart(Copy());
  }
  void Close() {
    const Packets saved = saved_;
    FileCalls::Observe(nullptr);
    file_.reset();
    Reopen();
    ASSERT_EQ(saved_, saved);
  }
  void Restart(std::unique_ptr<TempFolder> folder) {
    FileCalls::Observe(nullptr);
    file_.reset();
    folder_ = std::move(folder);
    Reopen();
  }
  void Reopen() {
    file_ = std::make_unique<typename Kind::File>();
    ASSERT_TRUE(OpenFile(*file_, folder_->File("channel")));
    next_ = saved_ = appended_ = before_last_ = ReadAll(*file_);
    FileCalls::Observe(this);
  }

  Random random_;
  std::unique_ptr<TempFolder> folder_;
  std::unique_ptr<typename Kind::File> file_;
  Packets before_last_;  // Plain: what the last save may still have to drop; else that save.
  Packets saved_;        // The last complete save.
  Packets next_;         // All of the save under way,
  Packets appended_;     // and what was appended of it.
  Packets in_flight_;    // At most one.
  size_t next_packet_ = 0;
  size_t looks_ = 0;
  size_t kills_ = 0;
};

template <typename Kind>
class CacheKillsTest : public CacheKindTest<Kind> {};
TYPED_TEST_SUITE(CacheKillsTest, CacheKinds, CacheKindName);

TYPED_TEST(CacheKillsTest, RandomSavesKilledAnywhereLoseNothing) {
  const uint64_t seed = TestSeed();
  const uint64_t saves = FullLength() ? 20000 : 200;
  std::cout << "QUENOR_TEST_SEED=" << seed << std::endl;

  KilledSaves<TypeParam> killed(seed);
  for (uint64_t i = 0; i < saves && !this->HasFailure(); ++i) killed.Step();

  std::cout << TypeParam::kName << ": " << saves << " saves, " << killed.looks()
            << " moments looked at, " << killed.kills() << " restarts" << std::endl;
  EXPECT_GT(killed.looks(), saves);
}

using PlainKillsTest = CacheKindTest<Plain>;

TEST_F(PlainKillsTest, EveryAppendThatReturnedTrueComesBackInItsOrder) {
  ASSERT_TRUE(SaveAt(path_, {"a", "b", "c"}));
  ReliableReportCacheFile file;
  const auto after_kill = [&] {
    CopyAsIfKilled(path_, path_ + ".killed");
    return LoadPlain(path_ + ".killed");
  };
  ASSERT_TRUE(OpenFile(file, path_) && file.Clear());
  EXPECT_EQ((Packets{"a", "b", "c"}), after_kill());

  ASSERT_TRUE(Append(file, "b"));
  EXPECT_EQ((Packets{"a", "b", "c"}), after_kill()) << "a packet that is known costs no write";
  ASSERT_TRUE(Append(file, "new"));
  EXPECT_EQ((Packets{"b", "new", "a", "c"}), after_kill());
  ASSERT_TRUE(Append(file, "a"));
  EXPECT_EQ((Packets{"b", "new", "a", "c"}), after_kill());
}

}  // namespace
}  // namespace quenor::test
