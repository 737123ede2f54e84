#include "fleet/model/fleet.h"

#include <algorithm>
#include <array>
#include <utility>

#include "fleet/model/body.h"
#include "fleet/services/http_client.h"
#include "fleet/services/memory_cache.h"

namespace quenor::fleet {
namespace {

using Channel = ReliableReportChannelHttps;

constexpr int64_t kProgressUs = kSecondUs;

// Owners whose channels end before what that posts is run: of a million it would fill the memory.
constexpr size_t kEndedAtOnce = 1000;

// How often owners report at a time: an incident may have another say than the scenario.
int64_t ReportEveryUs(const Scenario& scenario, int64_t now_us) {
  int64_t every_us = scenario.owner.report_every_us;
  for (const Incident& incident : scenario.incidents) {
    if (incident.kind == Incident::Kind::kReport && incident.Holds(now_us)) {
      every_us = static_cast<int64_t>(incident.value);
    }
  }
  return every_us;
}

}  // namespace

// Who owns a channel, starts it and hands its reports over.
class Fleet::Owner final : public Event {
 public:
  void Set(Fleet* fleet, uint32_t index, int64_t start_us) {
    fleet_ = fleet;
    index_ = index;
    Clock::Current().Post(this, start_us);
  }

  bool has_started() const { return channel_ != nullptr; }

  // Its process ends; another takes what the cache kept.
  void Restart() {
    channel_->Terminate();
    channel_.reset();
    StartChannel();
  }

  void End() {
    Clock::Current().Cancel(this);
    if (channel_ == nullptr) return;
    channel_->Terminate();
    channel_.reset();
  }

 private:
  void OnDue() override {
    const int64_t now_us = Clock::Current().now_us();
    int64_t next_us = ReportEveryUs(fleet_->scenario_, now_us);
    if (channel_ == nullptr) {
      StartChannel();
      if (!fleet_->scenario_.owner.same_phase) {
        next_us = static_cast<int64_t>(fleet_->random_.Below(static_cast<uint64_t>(next_us)));
        return Clock::Current().Post(this, next_us);
      }
    }
    Report(now_us);
    if (fleet_->scenario_.owner.obeys) {
      next_us = std::max(next_us, int64_t{channel_->GetReportInterval()} * 1000);
    }
    Clock::Current().Post(this, next_us);
  }

  void StartChannel() {
    const OwnerSettings& settings = fleet_->scenario_.owner;
    channel_ = std::make_shared<Channel>(std::to_string(index_), "http://fleet", 0u, false, false);
    channel_->Initialize();
    if (settings.resend_limit) channel_->SetMaxResendCount(*settings.resend_limit);
    if (settings.interval_ms) {
      const auto [low_ms, high_ms] = *settings.interval_ms;
      channel_->SetResendInterval(Between(low_ms, high_ms));
    }
  }

  // Draws nothing when there is no choice.
  uint32_t Between(uint32_t least, uint32_t most) {
    if (least == most) return least;
    return least + static_cast<uint32_t>(fleet_->random_.Below(uint64_t{1} + most - least));
  }

  void Report(int64_t now_us) {
    const OwnerSettings& settings = fleet_->scenario_.owner;
    static std::vector<uint8_t> bytes;
    const uint32_t size = Between(settings.least_bytes, settings.most_bytes);
    if (bytes.size() < size) bytes.resize(size);
    Body{now_us, index_, number_++}.Write(bytes.data());
    channel_->SendPacket(bytes.data(), size, settings.with_cache, false);
  }

  Fleet* fleet_ = nullptr;
  std::shared_ptr<Channel> channel_;  // Null before its start.
  uint32_t index_ = 0;
  uint32_t number_ = 0;
};

// Ends and starts processes at random.
class Fleet::Restarts final : public Event {
 public:
  explicit Restarts(Fleet* fleet) : fleet_(fleet) { PostNext(); }
  ~Restarts() { Clock::Current().Cancel(this); }

 private:
  void PostNext() {
    const double per_us = fleet_->scenario_.owner.restarts_per_hour *
                          static_cast<double>(fleet_->owner_count_) / (3600.0 * kSecondUs);
    const double wait_us = fleet_->random_.Exponential(per_us);
    Clock::Current().Post(this, static_cast<int64_t>(std::min(wait_us, 1e18)));
  }
  void OnDue() override {
    Owner& owner = fleet_->owners_[fleet_->random_.Below(fleet_->owner_count_)];
    if (owner.has_started()) owner.Restart();
    PostNext();
  }

  Fleet* const fleet_;
};

Fleet::Fleet(const Scenario& scenario, uint64_t seed)
    : scenario_(scenario), books_(scenario), server_(scenario, seed, &books_), random_(seed) {
  SetServer(&server_);
  books_.SetCapacity([this] { return server_.CapacityNow(); });
  for (const Cohort& cohort : scenario.cohorts) owner_count_ += cohort.channels;
  owners_.reset(new Owner[owner_count_]);
  uint32_t index = 0;
  for (const Cohort& cohort : scenario.cohorts) {
    for (uint32_t i = 0; i < cohort.channels; ++i) {
      const int64_t late_us = static_cast<int64_t>(static_cast<double>(cohort.over_us) * i /
                                                   std::max<double>(cohort.channels, 1));
      owners_[index].Set(this, index, cohort.at_us + late_us);
      ++index;
    }
  }
  if (scenario.owner.restarts_per_hour > 0) restarts_ = std::make_unique<Restarts>(this);
}

Fleet::~Fleet() {
  restarts_.reset();
  EndOwners();
  SetServer(nullptr);
  ForgetCacheFiles();
}

void Fleet::Run(const std::function<void(int64_t now_us)>& progress) {
  while (clock_.now_us() < scenario_.length_us) {
    clock_.RunFor(std::min(kProgressUs, scenario_.length_us - clock_.now_us()));
    if (progress) progress(clock_.now_us());
  }
}

void Fleet::EndOwners() {
  for (size_t i = 0; i < owner_count_; ++i) {
    owners_[i].End();
    if (i % kEndedAtOnce == 0) clock_.RunFor(0);
  }
  clock_.RunFor(0);
}

bool Fleet::End() {
  books_.Close();
  restarts_.reset();
  const Totals before = books_.totals();
  waiting_at_end_ = before.Waiting();
  EndOwners();
  const Totals after = books_.totals();
  const uint64_t ended = after.terminated - before.terminated + after.kept - before.kept +
                         after.acknowledged - before.acknowledged;
  return after.Waiting() == 0 && ended == waiting_at_end_;
}

}  // namespace quenor::fleet
