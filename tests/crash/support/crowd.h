// Several processes at work on one cache file, each of them killed now and then, and the books of
// what became of every message. Threads: the test's own.
#ifndef QUENOR_TESTS_CRASH_SUPPORT_CROWD_H_
#define QUENOR_TESTS_CRASH_SUPPORT_CROWD_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/crash/support/job.h"

namespace quenor::test {

class Crowd {
 public:
  // What one process is to do: send the messages first, first + 1, ... With count 0 it sends
  // nothing but what it finds in the file, and ends when that is delivered.
  struct Task {
    std::string incarnation;
    uint64_t first = 0;
    uint64_t count = 0;
  };
  struct Plan {
    int processes = 1;
    uint64_t messages = 0;  // Of each place; of one that is killed, its successor goes on.
    int kills = 0;          // Of all processes together.
    // If not 0: for so long, as many messages as they manage, killed and stopped at random.
    int seconds = 0;
    std::function<void()> look;       // Now and then; may be null.
    unsigned events_per_message = 1;  // About so many, to spread the kills over the run.
    // Whether a process may end in order while it waits for answers: these messages come again.
    bool may_end_in_flight = false;
    // Whether a save without a message may bring it back until the next save begins: the plain
    // file's are complete only then.
    bool completes_with_next_save = false;
    // How often a message may be sent, to be printed; 0 where there is no such limit.
    uint32_t resend_limit = 0;
    std::function<std::unique_ptr<Job>(const Task&)> start;
  };

  Crowd(Plan plan, unsigned seed);
  ~Crowd();

  // Runs until every message is sent, and then one process after the other until nothing is left.
  void Run();
  // How often each message arrived, by its number; 0 stands for what is no message.
  void Count(const std::map<uint64_t, int>& arrivals);
  // One line.
  void Print(const std::string& name) const;
  // Fails the test unless the books close.
  void ExpectNothingLost() const;

 private:
  struct Place;
  // What one process had of one message when it ended.
  enum class Had { kWaiting, kSent, kAcknowledged, kRetired };

  void Start(Place* place);
  void ChooseNextKill();
  bool WaitForEvents();
  void TakeEvent(Place* place);
  void Note(const JobEvent& event, Place* place);
  size_t* CauseOfReturn(uint64_t number, const std::string& incarnation, Had had);
  void KillAndRestart(Place* place);
  void StopOne();
  void ContinueDue();
  void KillAll();
  void DrainTheRest();

  const Plan plan_;
  std::minstd_rand random_;
  std::vector<std::unique_ptr<Place>> places_;
  uint64_t events_to_kill_ = 0;

  int incarnations_ = 0;
  int kills_ = 0;
  int stops_ = 0;
  int failures_ = 0;
  uint64_t taken_over_ = 0;
  std::set<std::string> killed_;
  std::set<uint64_t> saved_;
  std::map<uint64_t, std::map<std::string, Had>> had_;  // By number, then incarnation.

  // By incarnation: the message that its last save dropped, or 0.
  std::map<std::string, uint64_t> dropped_last_;

  size_t arrived_ = 0;
  size_t damaged_ = 0;
  size_t lost_ = 0;
  size_t unconfirmed_ = 0;
  size_t again_waiting_ = 0;
  size_t again_sent_ = 0;
  size_t again_acknowledged_ = 0;
  size_t again_unsealed_ = 0;
  size_t again_ended_ = 0;
  size_t again_needlessly_ = 0;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CRASH_SUPPORT_CROWD_H_
