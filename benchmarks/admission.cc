// What the admission of one message costs the channel's queue thread, up to the completed save in
// the cache: beside stores that keep the same messages on the same disk, and beside what the
// processor needs to look at the whole content once.
//   --count SIZExPENDING   only 2000 admissions, for callgrind: see docs/design/performance.md
#define XXH_INLINE_ALL
#include <stdlib.h>
#include <xxhash.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "benchmarks/admission/channel.h"
#include "benchmarks/admission/contents.h"
#include "benchmarks/admission/rivals.h"
#include "benchmarks/support/area.h"
#include "quenor_base/platform/base/path_service.h"

namespace quenor::bench {
namespace {

constexpr char kLevelDb[] = "LevelDB, put + delete, no sync";
constexpr char kMemcmp[] = "memcmp of the whole";
constexpr char kCopyAndCheck[] = "memcpy + XXH3-64 of the whole";

// A new folder on a disk, not in memory: the process's, removed with all that is in it.
class Folder {
 public:
  Folder() {
    if (mkdtemp(path_.data()) == nullptr) {
      std::perror("mkdtemp");
      std::exit(1);
    }
  }
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  const std::string& path() const { return path_; }
  // A new folder in it.
  std::string Make() {
    const std::string made = path_ + "/" + std::to_string(++made_);
    std::filesystem::create_directory(made);
    return made;
  }

 private:
  std::string path_ = "/var/tmp/quenor-bench-XXXXXX";
  int made_ = 0;
};

// The floors: what must be read, or read and written, of the whole content.
class Whole {
 public:
  Whole(size_t count, size_t size) : messages_(RandomMessages(count, size, 3)) {
    for (const Bytes& message : messages_) {
      copy_.insert(copy_.end(), message.begin(), message.end());
    }
  }

  void Compare() const {
    int difference = 0;
    size_t at = 0;
    for (const Bytes& message : messages_) {
      difference |= std::memcmp(message.data(), copy_.data() + at, message.size());
      at += message.size();
    }
    Keep(difference);
  }
  void Copy() {
    size_t at = 0;
    for (const Bytes& message : messages_) {
      std::memcpy(copy_.data() + at, message.data(), message.size());
      at += message.size();
    }
    Keep(copy_[0]);
  }
  void CopyAndCheck() {
    Copy();
    const uint64_t check = XXH3_64bits(copy_.data(), copy_.size());
    Keep(check);
  }

 private:
  std::vector<Bytes> messages_;
  Bytes copy_;
};

class Admission {
 public:
  Admission(Area* area, Folder* folder) : area_(area), folder_(folder) {}

  // Our mapped cache in the shipped channel beside its rivals and floors.
  void MeasureMapped(size_t size, size_t pending, std::vector<Target> targets,
                     const std::string& note = {});
  void MeasurePlain(size_t size, size_t pending);
  void DrawAgainstPending();
  void DrawAgainstSize();
  void DrawFirstAdmissions();

 private:
  double LeastNs() const { return area_->quick() ? 1e6 : 6e6; }
  std::string NewName() { return "channel" + std::to_string(++names_); }
  Contender Channel(size_t size, size_t pending);
  Contender OfRival(const std::string& name, std::unique_ptr<Rival> rival, size_t size,
                    size_t pending);
  Contender Floor(const std::string& name, const std::shared_ptr<Whole>& whole,
                  void (*call)(Whole*));
  void AddFloors(size_t size, size_t pending, std::vector<Contender>* contenders);

  Area* const area_;
  Folder* const folder_;
  int names_ = 0;
};

Contender Admission::Channel(size_t size, size_t pending) {
  const auto channel = std::make_shared<AdmittingChannel>(NewName());
  channel->Fill(pending + 1, size);
  return {"UpdateCacheAndSend of the channel, mapped cache", [this, channel, size, pending] {
            return channel->SteadyNs(pending, size, LeastNs()) / 1000;
          }};
}

Contender Admission::OfRival(const std::string& name, std::unique_ptr<Rival> rival, size_t size,
                             size_t pending) {
  const std::shared_ptr<Rival> shared = std::move(rival);
  for (const Bytes& message : RandomMessages(pending + 1, size, 5)) shared->Replace(message);
  const auto random = std::make_shared<std::mt19937_64>(11);
  return {name, [this, shared, random, size] {
            const std::vector<Bytes>* messages = nullptr;
            return MeanNsOfFresh(
                       size, LeastNs(), random.get(),
                       [&](const std::vector<Bytes>& fresh) { messages = &fresh; },
                       [&](size_t i) { shared->Replace((*messages)[i]); }) /
                   1000;
          }};
}

Contender Admission::Floor(const std::string& name, const std::shared_ptr<Whole>& whole,
                           void (*call)(Whole*)) {
  return {name, [this, whole, call] {
            double spent = 0;
            int count = 0;
            while (spent < LeastNs()) {
              spent += MeanNs(kBatch, [&] { call(whole.get()); }) * kBatch;
              count += kBatch;
            }
            return spent / count / 1000;
          }};
}

void Admission::AddFloors(size_t size, size_t pending, std::vector<Contender>* contenders) {
  const auto whole = std::make_shared<Whole>(pending + 1, size);
  contenders->push_back(Floor(kMemcmp, whole, [](Whole* it) { it->Compare(); }));
  contenders->push_back(Floor("memcpy of the whole", whole, [](Whole* it) { it->Copy(); }));
  contenders->push_back(Floor(kCopyAndCheck, whole, [](Whole* it) { it->CopyAndCheck(); }));
}

void Admission::MeasureMapped(size_t size, size_t pending, std::vector<Target> targets,
                              const std::string& note) {
  Row row{std::to_string(size) + " bytes, " + std::to_string(pending) + " pending", "us"};
  if (!area_->Wants(row.name)) return;
  const size_t count = pending + 1;
  row.contenders.push_back(Channel(size, pending));
  const auto add = [&](const std::string& name, std::unique_ptr<Rival> rival) {
    row.contenders.push_back(OfRival(name, std::move(rival), size, pending));
  };
  add(kLevelDb, MakeLevelDb(folder_->Make(), count));
  add("SQLite, WAL, synchronous=OFF", MakeSqlite(folder_->Make(), count, "OFF"));
  add("SQLite, WAL, synchronous=NORMAL", MakeSqlite(folder_->Make(), count, "NORMAL"));
  add("a file each, written + renamed", MakeFiles(folder_->Make(), count));
  add("all in one file, written + renamed", MakeWholeFile(folder_->Make(), count));
  AddFloors(size, pending, &row.contenders);
  row.targets = std::move(targets);
  row.note = note;
  area_->Measure(row);
}

void Admission::MeasurePlain(size_t size, size_t pending) {
  Row row{"plain cache file: " + std::to_string(size) + " bytes, " + std::to_string(pending) +
              " pending",
          "us"};
  if (!area_->Wants(row.name)) return;
  const size_t count = pending + 1;
  row.contenders.push_back(OfRival("Clear + appends of the plain cache file",
                                   MakePlainCacheFile(folder_->Make(), count), size, pending));
  row.contenders.push_back(OfRival(kLevelDb, MakeLevelDb(folder_->Make(), count), size, pending));
  AddFloors(size, pending, &row.contenders);
  row.note =
      "The class alone: a process has one kind of cache. A save writes one new packet, its place "
      "in the order and the seal of the save before, each with a system call.";
  area_->Measure(row);
}

// Medians of many single admissions; a median leaves out the few that grow or tidy the file.
void Admission::DrawAgainstPending() {
  Plot plot{"admission_pending", "Admission against messages pending", "messages pending",
            "us, median"};
  const int each = area_->Scale(400, 20);
  for (const size_t size : {size_t{256}, size_t{1024}}) {
    const std::string bytes = std::to_string(size) + " bytes";
    Plot::Line line{"admission, " + bytes, {}};
    Plot::Line floor{"memcmp of the whole, " + bytes, {}};
    AdmittingChannel channel(NewName());
    for (size_t pending = 0; pending < 200; pending += pending == 180 ? 19 : 20) {
      channel.Fill(pending + 1, size);
      channel.EachNs(static_cast<size_t>(each) / 4, pending, size);
      const double x = static_cast<double>(pending);
      line.points.push_back(
          {x, Median(channel.EachNs(static_cast<size_t>(each), pending, size)) / 1000});
      Whole whole(pending + 1, size);
      floor.points.push_back({x, MeanNs(each, [&] { whole.Compare(); }) / 1000});
    }
    std::vector<double> trims;
    for (int i = 0; i < each / 4; ++i) {
      channel.Fill(200, size);
      trims.push_back(channel.EachNs(1, 200, size)[0]);
    }
    line.points.push_back({200, Median(trims) / 1000});
    plot.lines.push_back(line);
    plot.lines.push_back(floor);
  }
  plot.note =
      "The cost follows the bytes: every message that stays is compared with what the file has of "
      "it, only the new one is written. The slope is steeper from some 60 messages of 256 bytes "
      "on, "
      "when they and the file's pages no longer fit the first-level cache together. At 200 the "
      "admission first drops the 50 oldest: they are not compared, but freed and marked as dropped "
      "in the file, which costs more.";
  area_->Draw(plot);
}

void Admission::DrawAgainstSize() {
  Plot plot{"admission_size", "Admission against message size, 10 pending", "bytes of a message",
            "us"};
  Plot::Line median{"admission, median", {}};
  Plot::Line mean{"admission, mean", {}};
  Plot::Line floor{"memcpy + XXH3-64 of the whole", {}};
  AdmittingChannel channel(NewName());
  constexpr size_t kPending = 10;
  for (const size_t size : {size_t{1}, size_t{64}, size_t{256}, size_t{1024}, size_t{4096},
                            size_t{16384}, size_t{65536}, size_t{262144}, size_t{1048576}}) {
    const int each = size > 16384 ? area_->Scale(100, 5) : area_->Scale(400, 20);
    channel.Fill(kPending + 1, size);
    channel.EachNs(static_cast<size_t>(each) / 4, kPending, size);
    const std::vector<double> costs = channel.EachNs(static_cast<size_t>(each), kPending, size);
    double sum = 0;
    for (const double ns : costs) sum += ns;
    Whole whole(kPending + 1, size);
    const double x = static_cast<double>(size);
    median.points.push_back({x, Median(costs) / 1000});
    mean.points.push_back({x, sum / each / 1000});
    floor.points.push_back({x, MeanNs(each, [&] { whole.CopyAndCheck(); }) / 1000});
  }
  plot.lines = {median, mean, floor};
  plot.note =
      "Flat up to some 256 bytes, where the call that asks whether the file is still there is "
      "about "
      "half of it; then the bytes count: ten messages are compared, one is copied and checked. The "
      "mean shows what the median leaves out: an area that is full, whose packets are then copied "
      "into the other area.";
  area_->Draw(plot);
}

void Admission::DrawFirstAdmissions() {
  Plot plot{"admission_first", "The first admissions of a new channel, 150 pending at most",
            "admission", "us"};
  const size_t count = static_cast<size_t>(area_->Scale(600, 60));
  for (const size_t size : {size_t{256}, size_t{1024}}) {
    // The best of some runs: what is left is the library's, not the machine's.
    std::vector<double> least(count, 1e12);
    for (int run = 0; run < area_->Scale(9, 2); ++run) {
      AdmittingChannel channel(NewName());
      const std::vector<double> each = channel.EachNs(count, 150, size);
      for (size_t i = 0; i < count; ++i) least[i] = std::min(least[i], each[i]);
    }
    Plot::Line line{std::to_string(size) + " bytes", {}};
    for (size_t i = 0; i < count; ++i) {
      line.points.push_back({static_cast<double>(i), least[i] / 1000});
    }
    plot.lines.push_back(line);
  }
  plot.note =
      "Each admission by itself, the least of nine channels. The peaks on the way up are new "
      "extents, each of room for several times the content: the file grows, is mapped, and what it "
      "held is copied. The teeth on the level part are the moves to the extent's other area once "
      "one is full, with one copy of the content.";
  area_->Draw(plot);
}

Target AtMost(double limit, const char* against) {
  return {Target::Kind::kAtMost, limit, {against}};
}

int Run(Area* area, Folder* folder) {
  Admission admission(area, folder);
  admission.MeasureMapped(256, 0, {});
  for (const size_t size : {size_t{256}, size_t{1024}, size_t{4096}, size_t{16384}}) {
    for (const size_t pending : {size_t{50}, size_t{150}}) {
      admission.MeasureMapped(size, pending, {AtMost(2, kMemcmp)});
    }
  }
  admission.MeasureMapped(1024, 199, {});
  admission.MeasurePlain(256, 50);
  admission.MeasurePlain(256, 150);
  admission.MeasurePlain(1024, 50);
  admission.MeasurePlain(1024, 150);
  if (area->Wants("plots")) {
    admission.DrawAgainstPending();
    admission.DrawAgainstSize();
    admission.DrawFirstAdmissions();
  }
  return area->Finish();
}

// For callgrind: --toggle-collect='*UpdateCacheAndSend*'.
int Count(const char* what) {
  size_t size = 0;
  size_t pending = 0;
  if (std::sscanf(what, "%zux%zu", &size, &pending) != 2) {
    std::fprintf(stderr, "admission: --count takes SIZExPENDING, such as 256x150\n");
    return 64;
  }
  AdmittingChannel channel("count");
  channel.Fill(pending + 1, size);
  channel.EachNs(2000, pending, size);
  return 0;
}

}  // namespace
}  // namespace quenor::bench

int main(int argc, char** argv) {
  quenor::bench::Folder folder;
  if (!quenor::base::PathService::Override(quenor::base::DIR_RELIABLE_REPORT,
                                           quenor::base::FilePath(folder.path()))) {
    std::fprintf(stderr, "admission: cannot use %s\n", folder.path().c_str());
    return 1;
  }
  if (argc == 3 && std::strcmp(argv[1], "--count") == 0) return quenor::bench::Count(argv[2]);
  quenor::bench::Area area(argc, argv, "admission",
                           "Admission: one message comes, the oldest goes, the cache is saved");
  return quenor::bench::Run(&area, &folder);
}
