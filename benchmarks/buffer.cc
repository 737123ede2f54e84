// CopyOnWriteBuffer: a body that several holders share, against the least that can share one (a
// pointer to a count), a shared vector, and a string, which copies.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "benchmarks/support/area.h"
#include "benchmarks/support/instructions.h"
#include "quenor_base/buffer/copy_on_write_buffer.h"

namespace quenor::bench {
namespace {

constexpr char kOurs[] = "CopyOnWriteBuffer";
constexpr char kBare[] = "bare intrusive pointer";
constexpr char kShared[] = "std::shared_ptr<vector>";
constexpr char kString[] = "std::string";

// The floor: one atomic addition to share, one subtraction to drop, an exchange to move.
class BarePointer {
 public:
  explicit BarePointer(uint32_t size) : block_(new Block{{1}, std::vector<uint8_t>(size)}) {}
  BarePointer(const BarePointer& other) noexcept : block_(other.block_) {
    block_->count.fetch_add(1, std::memory_order_relaxed);
  }
  BarePointer(BarePointer&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  BarePointer& operator=(const BarePointer&) = delete;
  ~BarePointer() {
    if (block_ != nullptr && block_->count.fetch_sub(1, std::memory_order_acq_rel) == 1)
      delete block_;
  }
  bool IsAlone() const { return block_->count.load(std::memory_order_acquire) == 1; }
  uint8_t* data() { return block_->bytes.data(); }

 private:
  struct Block {
    std::atomic<uint32_t> count;
    std::vector<uint8_t> bytes;
  };
  Block* block_;
};

struct Ours {
  using Body = CopyOnWriteBuffer;
  static Body Make(uint32_t size) { return Body(size, size); }
  static uint8_t* Writable(Body& body) { return body.data<uint8_t>(); }
};
struct Bare {
  using Body = BarePointer;
  static Body Make(uint32_t size) { return Body(size); }
  static uint8_t* Writable(Body& body) { return body.IsAlone() ? body.data() : nullptr; }
};
struct SharedVector {
  using Body = std::shared_ptr<std::vector<uint8_t>>;
  static Body Make(uint32_t size) { return std::make_shared<std::vector<uint8_t>>(size); }
  static uint8_t* Writable(Body& body) {
    if (body.use_count() != 1) body = std::make_shared<std::vector<uint8_t>>(*body);
    return body->data();
  }
};
struct String {
  using Body = std::string;
  static Body Make(uint32_t size) { return Body(size, 'x'); }
  static uint8_t* Writable(Body& body) { return reinterpret_cast<uint8_t*>(body.data()); }
};

// Each of these does its operation `times` times.

template <typename Who>
void Copy(uint32_t size, int times) {
  const typename Who::Body body = Who::Make(size);
  Keep(body);
  for (int i = 0; i < times; ++i) {
    const typename Who::Body copy(body);
    Keep(copy);
  }
}

// There and back: two moves. What was moved from is destroyed.
template <typename Who>
void Move(uint32_t size, int times) {
  std::optional<typename Who::Body> here(Who::Make(size)), there;
  for (int i = 0; i < times; i += 2) {
    Keep(here);
    there.emplace(std::move(*here));
    Keep(there);
    here.emplace(std::move(*there));
  }
}

template <typename Who>
void WriteAlone(uint32_t size, int times) {
  typename Who::Body body = Who::Make(size);
  for (int i = 0; i < times; ++i) {
    Keep(body);
    Who::Writable(body)[0] = static_cast<uint8_t>(i);
  }
}

// A copy is taken, and written to.
template <typename Who>
void WriteShared(uint32_t size, int times) {
  const typename Who::Body body = Who::Make(size);
  Keep(body);
  for (int i = 0; i < times; ++i) {
    typename Who::Body copy(body);
    Who::Writable(copy)[0] = static_cast<uint8_t>(i);
    Keep(copy);
  }
}

using Operation = void (*)(uint32_t size, int times);

double NsEach(Operation operation, uint32_t size, double at_least_ms) {
  constexpr int kChunk = 4096;
  return MedianChunkNs(kChunk, at_least_ms, [&] { operation(size, kChunk); });
}

// A process of several threads, as every one is that embeds us: with one thread a shared pointer
// counts without atomic operations.
class SecondThread {
 public:
  SecondThread() : thread_([this] { Wait(); }) {}
  ~SecondThread() {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      end_ = true;
    }
    changed_.notify_one();
    thread_.join();
  }

 private:
  void Wait() {
    std::unique_lock<std::mutex> hold(mutex_);
    changed_.wait(hold, [this] { return end_; });
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool end_ = false;
  std::thread thread_;
};

struct Contestant {
  const char* name;
  Operation operation;
};

void Measure(Area* area, const std::string& name, uint32_t size,
             const std::vector<Contestant>& contestants, double limit) {
  Row row{name, "ns"};
  const double at_least_ms = area->Scale(8, 1);
  for (const Contestant& one : contestants) {
    row.contenders.push_back(
        {one.name, [one, size, at_least_ms] { return NsEach(one.operation, size, at_least_ms); }});
  }
  if (limit > 0) row.targets = {{Target::Kind::kAtMost, limit, {kBare}}};
  area->Measure(row);
}

int Run(int argc, char** argv) {
  Area area(argc, argv, "buffer", "Shared bodies: CopyOnWriteBuffer");
  const SecondThread second_thread;
  for (const uint32_t size : {256u, 4096u}) {
    Measure(&area, "copy and drop, " + std::to_string(size) + " bytes", size,
            {{kOurs, &Copy<Ours>},
             {kBare, &Copy<Bare>},
             {kShared, &Copy<SharedVector>},
             {kString, &Copy<String>}},
            1.2);
  }
  Measure(&area, "move", 4096,
          {{kOurs, &Move<Ours>},
           {kBare, &Move<Bare>},
           {kShared, &Move<SharedVector>},
           {kString, &Move<String>}},
          0);
  Measure(&area, "write to one that nobody shares", 4096,
          {{kOurs, &WriteAlone<Ours>},
           {kBare, &WriteAlone<Bare>},
           {kShared, &WriteAlone<SharedVector>},
           {kString, &WriteAlone<String>}},
          0);
  Measure(&area, "copy, then write to the copy, 4096 bytes", 4096,
          {{kOurs, &WriteShared<Ours>},
           {kShared, &WriteShared<SharedVector>},
           {kString, &WriteShared<String>}},
          0);
  const double instructions = InstructionsOf("copy", area.Scale(100000, 10000));
  if (instructions >= 0) {
    area.Tell({"instructions of a copy and its drop", "instructions", instructions});
  }
  return area.Finish();
}

}  // namespace
}  // namespace quenor::bench

int main(int argc, char** argv) {
  using namespace quenor::bench;
  CountIfAsked(argc, argv, {{"copy", [](int times) { Copy<Ours>(4096, times); }}});
  return Run(argc, argv);
}
