// Pooled arrays: one taken and given back, against a bare free list in two tiers (the floor), the
// list nodes alone, and four general allocators, each in a process of its own.
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <string>

#include "benchmarks/pool/work.h"
#include "benchmarks/pool/worker.h"
#include "benchmarks/support/area.h"
#include "benchmarks/support/instructions.h"
#include "quenor_base/object_pool/alloc_buffer_from_pool.h"

namespace quenor::bench {
namespace {

constexpr int kClasses = static_cast<int>(std::size(internal::kBufferClasses));
constexpr char kOurs[] = "AllocBufferTFromPool";
constexpr char kBare[] = "bare two-tier list";
constexpr char kNodes[] = "std::list: a node made and freed";
constexpr char kSplices[] = "std::list: a node moved and moved back";

struct Rival {
  const char* name;
  const char* who;
  const char* preload;
};
constexpr Rival kContenders[] = {
    {kOurs, "pool", ""},
    {kBare, "bare", ""},
    {kNodes, "nodes", ""},
    {kSplices, "splices", ""},
    {"glibc", "malloc", ""},
    {"jemalloc", "malloc", QUENOR_BENCH_JEMALLOC},
    {"mimalloc", "malloc", QUENOR_BENCH_MIMALLOC},
    {"tcmalloc", "malloc", QUENOR_BENCH_TCMALLOC},
};

std::string SizeName(int class_index) {
  const uint32_t bytes = internal::kBufferClasses[class_index].length_bytes;
  if (bytes < 1024) return std::to_string(bytes) + " B";
  if (bytes < 1048576) return std::to_string(bytes / 1024) + " KiB";
  return std::to_string(bytes / 1048576) + " MiB";
}

class PoolArea {
 public:
  PoolArea(int argc, char** argv) : area_(argc, argv, "pool", "Pooled arrays") {
    for (const Rival& rival : kContenders) {
      workers_[rival.name] = std::make_unique<Worker>(rival.preload);
    }
  }

  int Run() {
    for (int depth : {1, 16}) {
      for (int i = 0; i < kClasses; ++i) MeasurePairs(i, depth);
    }
    for (int i = 0; i < kClasses; ++i) MeasureStream(i);
    TellAllocations();
    TellInstructions();
    return area_.Finish();
  }

 private:
  void Measure(const std::string& name, Work work) {
    work.at_least_ms = area_.Scale(6, 1);
    Row row{name, "ns"};
    for (const Rival& rival : kContenders) {
      // A list belongs to one thread.
      if (work.what == "stream" && (rival.name == kNodes || rival.name == kSplices)) continue;
      work.who = rival.who;
      row.contenders.push_back(
          {rival.name, [this, work, &rival] { return workers_[rival.name]->Do(work).ns_each; }});
    }
    if (internal::kBufferClasses[work.class_index].length_bytes >= 2048) {
      row.targets.push_back({Target::Kind::kAtMost, 1.0, {"glibc"}});
    }
    area_.Measure(row);
  }

  void MeasurePairs(int class_index, int depth) {
    Work work;
    work.what = "pairs";
    work.class_index = class_index;
    work.depth = depth;
    Measure(SizeName(class_index) + ", " + std::to_string(depth) +
                (depth == 1 ? " array" : " arrays") + " at a time",
            work);
  }

  void MeasureStream(int class_index) {
    Work work;
    work.what = "stream";
    work.class_index = class_index;
    Measure(SizeName(class_index) + ", taken on one thread, given back on another", work);
  }

  void TellAllocations() {
    Worker counting(QUENOR_BENCH_HEAP_COUNT);
    const struct {
      const char* what;
      int depth;
      const char* name;
    } kinds[] = {{"pairs", 1, "1 array at a time"},
                 {"pairs", 16, "16 arrays at a time"},
                 {"stream", 1, "from thread to thread"}};
    for (const auto& kind : kinds) {
      double worst = 0;
      for (int i = 0; i < kClasses; ++i) {
        const Work work{"pool", kind.what, i, kind.depth, 1};
        worst = std::max(worst, 1000 * counting.Do(work).allocations_each);
      }
      area_.Tell({std::string("heap allocations per 1000 arrays, ") + kind.name, "", worst, 0.0,
                  "Of all nine classes the worst, in the steady state."});
    }
  }

  void TellInstructions() {
    for (const char* name : {"512", "1048576"}) {
      const double instructions = InstructionsOf(name, area_.Scale(100000, 10000));
      if (instructions >= 0) {
        area_.Tell({std::string("instructions of one array of ") + name + " bytes", "instructions",
                    instructions});
      }
    }
  }

  Area area_;
  std::map<std::string, std::unique_ptr<Worker>> workers_;
};

}  // namespace
}  // namespace quenor::bench

int main(int argc, char** argv) {
  using namespace quenor::bench;
  WorkIfAsked(argc, argv);
  CountIfAsked(argc, argv,
               {{"512", [](int times) { TakeAndGivePooled(512, times); }},
                {"1048576", [](int times) { TakeAndGivePooled(1048576, times); }}});
  return PoolArea(argc, argv).Run();
}
