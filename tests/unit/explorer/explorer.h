// Explorer: leads a channel and its model through the same random life and compares them after each
// task. Threads: the test's own. Life cycle: one life each, made anew with a seed that repeats it.
// Page: docs/design/explorer.md.
#ifndef QUENOR_TESTS_UNIT_EXPLORER_EXPLORER_H_
#define QUENOR_TESTS_UNIT_EXPLORER_EXPLORER_H_

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "quenor_base/reporter/books.h"
#include "tests/support/channel_test_fixture.h"
#include "tests/unit/explorer/channel_model.h"

namespace quenor::test {

// How often each thing has happened, so that a life that never got there shows.
using Sightings = std::map<std::string, uint64_t>;

class Explorer {
 public:
  // Borrows `sightings`, to which it adds, until it is destroyed. The process's cache option says
  // whether the channel has a cache: 0 none, 2 the mapped file.
  Explorer(uint64_t seed, Sightings* sightings);
  ~Explorer();
  Explorer(const Explorer&) = delete;
  Explorer& operator=(const Explorer&) = delete;

  // Once. That many steps, then a termination. Answers what went wrong, with the last 30 steps;
  // empty when nothing did.
  std::string Run(uint64_t steps);

  static bool HasCache();

  uint64_t steps() const { return steps_; }
  uint64_t tasks() const { return tasks_; }

 private:
  using TimeDelta = base::TimeDelta;
  using Peer = ReliableReportChannelHttpsTestPeer;
  using Kind = ReportEventKind;
  using Cause = ReportEventCause;

  // What this life is like.
  struct Character {
    bool compress;
    bool http2;
    uint32_t success_percent;  // Of the answers.
    uint32_t answers;          // Per thousand steps; likewise below.
    uint32_t messages;
    uint32_t longest_pause_ms;
    uint32_t act_in_hook_one_in;
  };
  static Character MakeCharacter(std::mt19937_64* random);

  Peer peer() { return Peer(channel_.get()); }
  uint64_t Below(uint64_t bound) { return random_() % bound; }
  bool OneIn(uint64_t n) { return Below(n) == 0; }

  // --- Steps ---
  void Step();
  void Act();  // What may be done between any two tasks.
  void PassTime();
  void HandOver();
  std::string MakeBody();
  void HandOverMany();
  void AnswerOne();
  void AnswerOutOfTurn();
  ModelResponse MakeResponse();
  std::shared_ptr<const ModelReply> MakeReply();
  uint32_t MakeField(const char* name, std::string* text);
  static std::unique_ptr<HttpClient::Response> RealResponse(const ModelResponse& response);
  void Retune();
  void Disturb();
  void DisturbCache();
  void Terminate();
  void Initialize();
  void End();

  // --- The world's answers ---
  void OnSend(const HttpClient::Request& request);
  int64_t ChooseId();
  TimeDelta ChooseAnswerDelay();
  void OnEvent(const ReportEvent& event);

  // --- Checks ---
  void AfterTask();
  void Check();
  void CheckEvents();
  void CheckLog();
  void CheckState();
  void CheckTimers();
  void CheckStore();
  void CheckCache();
  void CheckKept(std::vector<std::string> content);
  void CheckBooks();
  void CheckClock();
  template <typename A, typename B>
  void Same(const char* what, const A& is, const B& ought_to_be);
  void Expect(bool holds, const char* what) {
    if (!holds) Fail(what);
  }
  void Fail(const std::string& what) {
    if (error_.empty()) error_ = what;
  }
  void Note(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void Saw(const char* what) { ++(*sightings_)[what]; }
  std::string LastSteps() const;

  std::mt19937_64 random_;
  Sightings* const sightings_;
  const Character character_;
  uint64_t steps_ = 0;
  uint64_t tasks_ = 0;
  std::deque<std::string> notes_;
  std::string error_;
  uint64_t next_number_ = 0;
  int64_t next_id_ = 1;
  bool refuses_ = false;
  Books books_;
  // Once more, and as plainly as can be.
  uint64_t handed_over_ = 0;
  uint64_t refused_ = 0;
  uint64_t acknowledged_ = 0;
  uint64_t kept_ = 0;
  uint64_t loaded_ = 0;
  uint64_t dropped_ = 0;
  std::vector<std::string> kept_now_;  // By the task that runs.
  // Since the last statistics line, from the events alone.
  std::array<uint32_t, 5> counted_{};
  WorldAnswers world_;
  std::unique_ptr<ChannelModel> model_;
  RecordingReportEvents events_;  // Outlives the tasks that tell events as they are destroyed.
  VirtualTime time_;
  FakeHttp http_;
  std::shared_ptr<ReliableReportChannelHttps> channel_;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_UNIT_EXPLORER_EXPLORER_H_
