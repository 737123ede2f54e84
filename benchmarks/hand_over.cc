// What SendPacket costs its caller, against other ways to hand bytes over to a thread, round by
// round in turn.
#include <pthread.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/hand_over/contenders.h"
#include "benchmarks/hand_over/facts.h"
#include "benchmarks/support/area.h"

namespace quenor::bench {
namespace {

constexpr char kOurs[] = "SendPacket";
constexpr char kMutex[] = "copy + mutex + deque + condition variable";
constexpr char kLockFree[] = "copy + lock-free queue (moodycamel)";
constexpr char kFixedParts[] = "the class's fixed parts + the lock-free queue";
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
  all.push_back({kFixedParts, MakeFixedParts()});
  all.push_back({kAsio, MakeAsio()});
  all.push_back({kSpdlog, MakeSpdlog()});
  return all;
}

void MeasureBursts(Area* area) {
  for (const int threads : {1, 4, 8}) {
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
      row.targets = {{Target::Kind::kAtMost, 1.3, {kFixedParts}}};
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

double Point(Area* area, HandOver* contender, const Work& work) {
  std::vector<double> rounds;
  for (int i = 0; i < area->Scale(5, 2); ++i) rounds.push_back(Bursts(contender, work));
  return Median(rounds);
}

// A kind of contender, and its line in the pictures.
struct Kind {
  const char* name;
  std::unique_ptr<HandOver> (*make)();
};
constexpr Kind kCompared[] = {
    {kOurs, &MakeChannel}, {kMutex, &MakeMutexDeque}, {kFixedParts, &MakeFixedParts}};

void DrawSizes(Area* area) {
  Plot plot{"hand_over_size", "Hand-over against the message's size", "bytes", "us per call"};
  if (!area->Wants(plot.name)) return;
  for (const Kind& kind : kCompared) {
    const std::unique_ptr<HandOver> contender = kind.make();
    Plot::Line line{kind.name, {}};
    for (const uint32_t kib : {0u, 4u, 16u, 32u, 64u, 96u, 128u, 192u, 256u, 512u, 768u, 1024u}) {
      const uint32_t size = kib == 0 ? 1 : kib * 1024;
      const Work work{size, 1, area->Scale(20, 5), kib < 64 ? 100 : 10};
      line.points.emplace_back(size, Point(area, contender.get(), work) / 1000);
    }
    plot.lines.push_back(std::move(line));
  }
  plot.note =
      "The cost is the copy and, from 100 to 250 KiB on, the kernel's: memory that the allocator "
      "gave back after the burst before has to be mapped and cleared again, page by page (glibc "
      "maps blocks of 128 KiB and more one by one until the first of them is freed, and trims its "
      "heap). It is the same for everyone who copies into memory of malloc's.";
  area->Draw(plot);
}

void DrawChannels(Area* area) {
  Plot plot{"hand_over_channels", "Hand-over against the number of channels, in turn", "channels",
            "ns per call"};
  if (!area->Wants(plot.name)) return;
  Plot::Line line{kOurs, {}};
  for (const int channels : {1, 2, 5, 10, 20, 50, 100}) {
    const std::unique_ptr<HandOver> contender = MakeChannels(channels);
    const Work work{256, 1, area->Scale(50, 10), 1000};
    line.points.emplace_back(channels, Point(area, contender.get(), work));
  }
  plot.lines.push_back(std::move(line));
  plot.note =
      "Each channel's queue has a thread of its own. With more channels in turn, a message finds "
      "its "
      "queue asleep more often and pays for the wake-up, which takes 2 to 6 us; from some 20 "
      "channels on, more than 20 us lie between two messages of one channel, which its queue takes "
      "for no burst, and every message pays.";
  area->Draw(plot);
}

void DrawThreads(Area* area) {
  Plot plot{"hand_over_threads", "Hand-over against the number of calling threads", "threads",
            "ns per call"};
  if (!area->Wants(plot.name)) return;
  for (const Kind& kind : kCompared) {
    const std::unique_ptr<HandOver> contender = kind.make();
    Plot::Line line{kind.name, {}};
    for (const int threads : {1, 2, 3, 4, 6, 8}) {
      const Work work{256, threads, area->Scale(60, 10), 100};
      line.points.emplace_back(threads, Point(area, contender.get(), work));
    }
    plot.lines.push_back(std::move(line));
  }
  plot.note =
      "Times of the calls as their callers see them. Two callers that run at once take five cache "
      "lines from each other in every call (the channel's pointer to its queue, its count, the "
      "queue's count, its lock, the end of its list), a step at the second thread; beyond "
      "that, on two processors, callers take turns.";
  area->Draw(plot);
}

void DrawPending(Area* area) {
  Plot plot{"hand_over_pending", "Hand-over against the messages that the channel holds",
            "pending messages", "ns per call"};
  if (!area->Wants(plot.name)) return;
  Plot::Line line{kOurs, {}};
  for (const int pending : {0, 25, 50, 100, 150, 199}) {
    const std::unique_ptr<HandOver> contender = MakeChannelWithPending(pending);
    const Work work{256, 1, area->Scale(100, 10), 100};
    line.points.emplace_back(pending, Point(area, contender.get(), work));
  }
  plot.lines.push_back(std::move(line));
  plot.note = "Level: the caller never meets the store. (At 200 the oldest 50 go.)";
  area->Draw(plot);
}

}  // namespace
}  // namespace quenor::bench

int main(int argc, char** argv) {
  using namespace quenor::bench;
  Area area(argc, argv, "hand_over", "Hand-over: what SendPacket costs its caller");
  MeasureBursts(&area);
  MeasureSleeper(&area);
  TellFacts(&area);
  DrawSizes(&area);
  DrawChannels(&area);
  DrawThreads(&area);
  DrawPending(&area);
  return area.Finish();
}
