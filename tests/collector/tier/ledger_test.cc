// What a sender is told when, in virtual time.
#include "collector/tier/ledger.h"

#include <gtest/gtest.h>

#include <vector>

namespace quenor::collector {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Ids = std::vector<uint64_t>;

class LedgerTest : public ::testing::Test {
 protected:
  LedgerTest() : ledger_(Small()) { ledger_.OnConnected(now_); }

  static HoldOptions Small() {
    HoldOptions options;
    options.max_reports = 20;
    options.max_bytes = 1000;
    return options;
  }

  uint64_t Take(uint64_t size_bytes = 10) { return ledger_.Take(size_bytes, now_, &refusal_); }
  std::optional<Answer> Hear(uint64_t id, StoreOutcome outcome) {
    return ledger_.OnOutcome(id, outcome, now_);
  }
  TierState GetState() const { return ledger_.GetState(now_); }

  Time now_{seconds(1000)};
  Ledger ledger_;
  Answer refusal_ = Answer::kStored;
};

TEST_F(LedgerTest, IsConnectingUntilItIsTold) {
  Ledger ledger{HoldOptions()};

  EXPECT_EQ(ledger.GetState(now_), TierState::kConnecting);
  const uint64_t id = ledger.Take(10, now_, &refusal_);
  EXPECT_NE(id, 0u) << "a report is held while there is no connection";
  EXPECT_TRUE(ledger.Tick(now_ + seconds(19)).publish.empty()) << "nowhere to publish it";
  EXPECT_EQ(ledger.OnConnected(now_ + seconds(19)), Ids{id});
}

TEST_F(LedgerTest, StoredReportIsAnsweredOnce) {
  const uint64_t id = Take();

  EXPECT_EQ(Hear(id, StoreOutcome::kStored), Answer::kStored);
  EXPECT_EQ(Hear(id, StoreOutcome::kStored), std::nullopt);
  EXPECT_TRUE(ledger_.is_empty());
  EXPECT_EQ(ledger_.bytes(), 0u);
}

TEST_F(LedgerTest, IsPublishedAgainAfterTheWait) {
  const uint64_t id = Take();

  now_ += milliseconds(1499);
  EXPECT_TRUE(ledger_.Tick(now_).publish.empty());
  now_ += milliseconds(1);
  EXPECT_EQ(ledger_.Tick(now_).publish, Ids{id});
  EXPECT_TRUE(ledger_.Tick(now_).publish.empty()) << "once";
  now_ += milliseconds(1500);
  EXPECT_EQ(ledger_.Tick(now_).publish, Ids{id});
}

TEST_F(LedgerTest, OfThoseThatAreLateTheEldestArePublishedAgain) {
  Ids ids;
  for (int i = 0; i < 10; ++i) ids.push_back(Take());

  now_ += milliseconds(1500);
  EXPECT_EQ(ledger_.Tick(now_).publish, Ids(ids.begin(), ids.begin() + 8));
  EXPECT_TRUE(ledger_.Tick(now_).publish.empty()) << "what is late may yet be stored";
  Hear(ids[9], StoreOutcome::kStored);
  EXPECT_TRUE(ledger_.Tick(now_).publish.empty()) << "it was published no later than they";
}

TEST_F(LedgerTest, WhatTheStoreHasLostIsPublishedAgain) {
  Ids ids;
  for (int i = 0; i < 10; ++i) ids.push_back(Take());
  now_ += milliseconds(1499);
  const uint64_t early = Take();
  now_ += milliseconds(1);
  const uint64_t later = Take();
  ledger_.Tick(now_);

  Hear(early, StoreOutcome::kStored);
  EXPECT_TRUE(ledger_.Tick(now_).publish.empty());
  Hear(later, StoreOutcome::kStored);
  EXPECT_EQ(ledger_.Tick(now_).publish, (Ids{ids[8], ids[9]})) << "the others are under way again";
  EXPECT_TRUE(ledger_.Tick(now_).publish.empty());
}

TEST_F(LedgerTest, WhatWasTurnedAwayIsPublishedAgainHoweverMuchItIs) {
  Ids ids;
  for (int i = 0; i < 10; ++i) ids.push_back(Take());
  for (const uint64_t id : ids) Hear(id, StoreOutcome::kAbsent);

  now_ += milliseconds(250);
  EXPECT_EQ(ledger_.Tick(now_).publish, ids);
  now_ += milliseconds(1500);
  EXPECT_EQ(ledger_.Tick(now_).publish.size(), 8u) << "not turned away since";
}

TEST_F(LedgerTest, NobodyResponsibleIsAskedAgainSoon) {
  const uint64_t id = Take();

  EXPECT_EQ(Hear(id, StoreOutcome::kAbsent), std::nullopt);
  EXPECT_TRUE(ledger_.Tick(now_).publish.empty()) << "not in a circle";
  now_ += milliseconds(250);
  EXPECT_EQ(ledger_.Tick(now_).publish, Ids{id});
  EXPECT_EQ(Hear(id, StoreOutcome::kFailed), std::nullopt);
  now_ += milliseconds(250);
  EXPECT_EQ(ledger_.Tick(now_).publish, Ids{id});
}

TEST_F(LedgerTest, NewConnectionGetsAllAtOnce) {
  const Ids all = {Take(), Take(), Take()};

  ledger_.OnDisconnected();
  EXPECT_EQ(GetState(), TierState::kConnecting);
  now_ += seconds(3);
  EXPECT_TRUE(ledger_.Tick(now_).publish.empty());
  EXPECT_EQ(ledger_.OnConnected(now_), all);
  EXPECT_TRUE(ledger_.Tick(now_).publish.empty()) << "they are under way";
}

TEST_F(LedgerTest, HoldEndsEachReportInItsTurn) {
  const uint64_t first = Take();
  now_ += seconds(1);
  const uint64_t second = Take();

  now_ += seconds(19) - milliseconds(1);
  EXPECT_TRUE(ledger_.Tick(now_).late.empty());
  now_ += milliseconds(1);
  EXPECT_EQ(ledger_.Tick(now_).late, Ids{first});
  EXPECT_EQ(Hear(first, StoreOutcome::kStored), std::nullopt) << "it has been answered";
  now_ += seconds(1);
  EXPECT_EQ(ledger_.Tick(now_).late, Ids{second});
}

TEST_F(LedgerTest, HoldEndsWithoutAConnectionToo) {
  const uint64_t id = Take();
  ledger_.OnDisconnected();

  now_ += seconds(20);
  EXPECT_EQ(ledger_.Tick(now_).late, Ids{id});
}

TEST_F(LedgerTest, AfterALateReportFewerAreHeldUntilOneIsStored) {
  HoldOptions options = Small();
  options.max_reports = 10'000;
  options.max_bytes = 1'000'000;
  Ledger ledger(options);
  ledger.OnConnected(now_);
  ledger.Take(10, now_, &refusal_);
  now_ += seconds(20);
  ledger.Tick(now_);
  EXPECT_EQ(ledger.GetState(now_), TierState::kStalled);

  Ids held;
  while (const uint64_t id = ledger.Take(10, now_, &refusal_)) held.push_back(id);
  EXPECT_EQ(held.size(), 512u);
  EXPECT_EQ(refusal_, Answer::kLate);
  EXPECT_EQ(ledger.OnOutcome(held[0], StoreOutcome::kStored, now_), Answer::kStored);
  EXPECT_EQ(ledger.GetState(now_), TierState::kReady);
  for (int i = 0; i < 1'000; ++i) EXPECT_NE(ledger.Take(10, now_, &refusal_), 0u) << i;
}

TEST_F(LedgerTest, StallsWhileItStillHoldsAll) {
  const uint64_t id = Take();

  now_ += milliseconds(2999);
  EXPECT_EQ(GetState(), TierState::kReady);
  now_ += milliseconds(1);
  EXPECT_EQ(GetState(), TierState::kStalled);
  EXPECT_NE(Take(), 0u) << "an election takes longer than this";
  Hear(id, StoreOutcome::kStored);
  EXPECT_EQ(GetState(), TierState::kReady);
}

TEST_F(LedgerTest, MoreThanMayBeHeldIsBusy) {
  for (int i = 0; i < 20; ++i) EXPECT_NE(Take(), 0u) << i;

  EXPECT_EQ(Take(), 0u);
  EXPECT_EQ(refusal_, Answer::kBusy);
  EXPECT_EQ(GetState(), TierState::kReady);
  Hear(1, StoreOutcome::kStored);
  EXPECT_NE(Take(), 0u);
}

TEST_F(LedgerTest, MoreBytesThanMayBeHeldAreBusy) {
  const uint64_t id = Take(990);

  EXPECT_EQ(Take(11), 0u);
  EXPECT_EQ(refusal_, Answer::kBusy);
  EXPECT_NE(Take(10), 0u);
  Hear(id, StoreOutcome::kStored);
  EXPECT_NE(Take(990), 0u);
}

TEST_F(LedgerTest, FullStoreIsAskedOnceASecond) {
  EXPECT_EQ(Hear(Take(), StoreOutcome::kFull), Answer::kFull);

  EXPECT_EQ(GetState(), TierState::kFull);
  EXPECT_EQ(Take(), 0u);
  EXPECT_EQ(refusal_, Answer::kFull);
  now_ += seconds(1);
  const uint64_t probe = Take();
  EXPECT_NE(probe, 0u);
  EXPECT_EQ(Take(), 0u) << "one is enough";
  EXPECT_EQ(Hear(probe, StoreOutcome::kStored), Answer::kStored);
  EXPECT_EQ(GetState(), TierState::kReady);
  EXPECT_NE(Take(), 0u);
}

TEST_F(LedgerTest, WhatIsNeverTakenEndsAndChangesNothing) {
  EXPECT_EQ(Hear(Take(), StoreOutcome::kRejected), Answer::kRejected);
  EXPECT_EQ(GetState(), TierState::kReady);
  EXPECT_TRUE(ledger_.is_empty());
}

TEST_F(LedgerTest, DrainingTakesNothingAndFinishesTheRest) {
  const uint64_t id = Take();
  ledger_.Drain();

  EXPECT_EQ(GetState(), TierState::kDraining);
  EXPECT_EQ(Take(), 0u);
  EXPECT_EQ(refusal_, Answer::kDraining);
  now_ += milliseconds(1500);
  EXPECT_EQ(ledger_.Tick(now_).publish, Ids{id});
  EXPECT_EQ(Hear(id, StoreOutcome::kStored), Answer::kStored);
  EXPECT_TRUE(ledger_.is_empty());
}

}  // namespace
}  // namespace quenor::collector
