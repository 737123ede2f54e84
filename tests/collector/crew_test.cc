// Seats of the threads that serve: given away while a task waits for its peer.
#include "collector/http/crew.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/patience.h"

namespace quenor::collector {
namespace {

class CrewTest : public ::testing::Test {
 protected:
  // A task that waits for its peer until `let_go` is set.
  std::function<void()> Waiting(Crew* crew, std::promise<void>* begun, std::promise<void>* let_go) {
    return [crew, begun, let_go] {
      crew->BeginWait();
      begun->set_value();
      let_go->get_future().wait();
      crew->EndWait();
    };
  }

  std::promise<void> begun_[3];
  std::promise<void> let_go_[3];
};

TEST_F(CrewTest, ATaskThatWaitsKeepsNobodyFromBeingServed) {
  Crew crew(/*seats=*/1, /*most_waiting=*/2);
  for (int i = 0; i < 2; ++i) {
    crew.Post(Waiting(&crew, &begun_[i], &let_go_[i]));
    begun_[i].get_future().wait();
  }
  std::promise<void> served;

  crew.Post([&] { served.set_value(); });

  served.get_future().wait();  // For ever, if the waiting had kept the seat.
  for (int i = 0; i < 2; ++i) let_go_[i].set_value();
}

TEST_F(CrewTest, NoMoreThreadsThanAllowedAreMade) {
  Crew crew(/*seats=*/1, /*most_waiting=*/1);
  std::vector<std::thread::id> threads;
  std::mutex mutex;
  std::promise<void> all_done;
  const auto note = [&] {
    const std::lock_guard<std::mutex> lock(mutex);
    threads.push_back(std::this_thread::get_id());
  };
  for (int i = 0; i < 2; ++i) {
    crew.Post([&, i, wait = Waiting(&crew, &begun_[i], &let_go_[i])] {
      note();
      wait();
    });
    begun_[i].get_future().wait();
  }

  crew.Post([&] {  // Both threads there may be wait: it begins when one of them has done.
    note();
    all_done.set_value();
  });
  let_go_[0].set_value();
  all_done.get_future().wait();
  let_go_[1].set_value();

  ASSERT_EQ(3u, threads.size());
  EXPECT_EQ(threads[0], threads[2]);
}

// By their numbers.
std::set<pid_t> Threads() {
  std::set<pid_t> threads;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    threads.insert(std::stoi(entry.path().filename()));
  }
  return threads;
}

TEST_F(CrewTest, NoThreadIsMadeWhileOneRests) {
  std::thread([] {}).join();  // With the first, a sanitizer makes one of its own.
  std::set<pid_t> known = Threads();
  Crew crew(/*seats=*/1, /*most_waiting=*/8);
  std::set<pid_t> made;
  for (const pid_t thread : Threads()) {
    if (known.insert(thread).second) made.insert(thread);
  }
  ASSERT_EQ(1u, made.size());

  for (int task = 0; task < 5; ++task) {
    quenor::test::PollPatiently(
        "rest", [&] { return quenor::test::StatusLine(*made.begin(), "State").front() == 'S'; });
    std::promise<void> served;
    crew.Post([&] { served.set_value(); });
    served.get_future().wait();
  }

  for (const pid_t thread : Threads()) EXPECT_EQ(1u, known.count(thread));
}

TEST_F(CrewTest, WhoHasWaitedNeedsASeatAgain) {
  Crew crew(/*seats=*/1, /*most_waiting=*/1);
  std::promise<void> seated;
  std::promise<void> stand_up;
  std::promise<void> done;
  std::string order;
  crew.Post([&, wait = Waiting(&crew, &begun_[0], &let_go_[0])] {
    wait();
    order += "second";
    done.set_value();
  });
  begun_[0].get_future().wait();
  crew.Post([&] {
    seated.set_value();
    stand_up.get_future().wait();
    order += "first ";
  });
  seated.get_future().wait();

  let_go_[0].set_value();
  stand_up.set_value();

  done.get_future().wait();
  EXPECT_EQ("first second", order);
}

TEST_F(CrewTest, StopDropsWhatHasNotBegunAndLetsTheRestEnd) {
  Crew crew(/*seats=*/1, /*most_waiting=*/0);
  bool dropped_ran = false;
  bool ended = false;
  crew.Post([&, wait = Waiting(&crew, &begun_[0], &let_go_[0])] {
    wait();
    ended = true;
  });
  begun_[0].get_future().wait();
  crew.Post([&] { dropped_ran = true; });

  crew.Stop();
  crew.Post([&] { dropped_ran = true; });
  let_go_[0].set_value();
  crew.Join();

  EXPECT_TRUE(ended);
  EXPECT_FALSE(dropped_ran);
}

}  // namespace
}  // namespace quenor::collector
