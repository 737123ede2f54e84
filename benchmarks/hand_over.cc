// What SendPacket costs its caller, against other ways to hand bytes over to a thread, round by
// round in turn.
#include <pthread.h>
#include <sys/prctl.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/hand_over/contenders.h"
#include "benchmarks/support/area.h"

namespace quenor::bench {
namespace {

constexpr char kOurs[] = "SendPacket";
constexpr char kMutex[] = "copy + mutex + deque + condition variable";
constexpr char kLockFree[] = "copy + lock-free queue (moodycamel)";
constexpr char kAsio[] = "copy + asio::post";
constexpr char kSpdlog[] = "spdlog, asynchronous";

struct Work {
  uint32_t size;
  int threads;
  int bursts;
  int burst_size;  // Calls of each thread.
};

// One thread's share: the time of its calls, without the pauses in which the receiver catches up.
double SpentByOne(HandOver* contender, const Work& work, pthread_barrier_t* together) {
  const std::vector<uint8_t> bytes(work.size, 0x5a);
  const std::unique_ptr<Sender> sender = contender->MakeSender();
  double spent = 0;
  for (int burst = 0; burst < work.bursts; ++burst) {
    if (together != nullptr) pthread_barrier_wait(together);
    const double begin = NowNs();
    for (int i = 0; i < work.burst_size; ++i) sender->Send(bytes.data(), work.size);
    spent += NowNs() - begin;
    std::this_thread::sleep_for(std::chrono::microseconds(200 * work.threads));
  }
  return spent;
}

// Mean nanoseconds per call.
double Bursts(HandOver* contender, const Work& work) {
  const double calls = static_cast<double>(work.threads) * work.bursts * work.burst_size;
  if (work.threads == 1) return SpentByOne(contender, work, nullptr) / calls;
  pthread_barrier_t together;
  pthread_barrier_init(&together, nullptr, static_cast<unsigned>(work.threads));
  std::vector<double> spent(static_cast<size_t>(work.threads));
  std::vector<std::thread> threads;
  for (double& one : spent) {
    threads.emplace_back([&] { one = SpentByOne(contender, work, &together); });
  }
  double sum = 0;
  for (size_t t = 0; t < threads.size(); ++t) {
    threads[t].join();
    sum += spent[t];
  }
  pthread_barrier_destroy(&together);
  return sum / calls;
}

// Mean nanoseconds of one call every 50 us, to a receiver that has gone to sleep, or may have.
double OneByOne(HandOver* contender, int calls) {
  constexpr double kPeriodNs = 50000;
  const std::vector<uint8_t> bytes(256, 0x5a);
  const std::unique_ptr<Sender> sender = contender->MakeSender();
  double spent = 0;
  double due = NowNs() + kPeriodNs;
  for (int i = 0; i < calls; ++i) {
    while (NowNs() < due) {
    }
    const double begin = NowNs();
    sender->Send(bytes.data(), 256);
    spent += NowNs() - begin;
    due = begin + kPeriodNs;
  }
  return spent / calls;
}

struct Entry {
  std::string name;
  std::unique_ptr<HandOver> contender;
};

std::vector<Entry> MakeAll() {
  std::vector<Entry> all;
  all.push_back({kOurs, MakeChannel()});
  all.push_back({kMutex, MakeMutexDeque()});
  all.push_back({kLockFree, MakeLockFree()});
  all.push_back({kAsio, MakeAsio()});
  all.push_back({kSpdlog, MakeSpdlog()});
  return all;
}

void MeasureBursts(Area* area) {
  for (const int threads : {1, 4}) {
    for (const uint32_t size : {256u, 4096u}) {
      const Work work{size, threads, area->Scale(threads == 1 ? 200 : 60, 20), 100};
      Row row{std::to_string(size) + " bytes, " + std::to_string(threads) +
                  (threads == 1 ? " thread" : " threads") + ", bursts of 100",
              "ns"};
      if (!area->Wants(row.name)) continue;
      const std::vector<Entry> all = MakeAll();
      for (const Entry& entry : all) {
        HandOver* const contender = entry.contender.get();
        row.contenders.push_back({entry.name, [=] { return Bursts(contender, work); }});
      }
      row.targets = {{Target::Kind::kAtMost, 1.0, {kMutex}},
                     {Target::Kind::kAtMost, 1.3, {kLockFree}}};
      area->Measure(row);
    }
  }
}

void MeasureSleeper(Area* area) {
  Row row{"256 bytes, one every 50 us, to a sleeping queue", "ns"};
  if (!area->Wants(row.name)) return;
  std::vector<Entry> all = MakeAll();
  all.pop_back();
  const int calls = area->Scale(2000, 300);
  for (const Entry& entry : all) {
    HandOver* const contender = entry.contender.get();
    row.contenders.push_back({entry.name, [=] { return OneByOne(contender, calls); }});
  }
  row.targets = {{Target::Kind::kAtMost, 1.3, {kMutex, kAsio, kLockFree}}};
  area->Measure(row);
}

}  // namespace
}  // namespace quenor::bench

int main(int argc, char** argv) {
  using namespace quenor::bench;
  Area area(argc, argv, "hand_over", "Hand-over: what SendPacket costs its caller");
  MeasureBursts(&area);
  MeasureSleeper(&area);
  return area.Finish();
}
