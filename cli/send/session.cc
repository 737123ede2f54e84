#include "cli/send/session.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>

#include "cli/send/summary.h"
#include "cli/text.h"
#include "quenor_base/platform/base/monotonic_time.h"
#include "quenor_base/platform/base/time.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/thread_manager.h"
#include "quenor_base/reporter/exposition.h"

namespace quenor::cli {
namespace {

constexpr uint32_t kNoLimit = std::numeric_limits<uint32_t>::max();
constexpr double kPatienceWithoutWaitS = 30;
constexpr base::TimeDelta kDrainTime = base::TimeDelta::FromSeconds(10);

Progress::Time::duration Seconds(double seconds) {
  return std::chrono::duration_cast<Progress::Time::duration>(
      std::chrono::duration<double>(seconds));
}

const uint8_t* Data(const std::string& bytes) {
  return reinterpret_cast<const uint8_t*>(bytes.data());
}

}  // namespace

Session::Session(const Options& options, const CacheUse& cache, Input& input, Console& console,
                 const ChannelLog& log, SavedList* saved_list, Wakeup& wakeup,
                 const StopSignals& signals)
    : options_(options),
      cache_(cache),
      input_(input),
      console_(console),
      log_(log),
      saved_list_(saved_list),
      wakeup_(wakeup),
      signals_(signals),
      ledger_(LedgerOptions()),
      channel_(std::make_shared<ReliableReportChannelHttps>(options.channel, /*url=*/"", 0,
                                                            !options.http1, options.compress)) {}

Ledger::Options Session::LedgerOptions() {
  Ledger::Options ledger;
  ledger.send_now = options_.send_now;
  ledger.compress = options_.compress;
  ledger.interval_ms = options_.interval_ms.value_or(0);
  ledger.max_resend = options_.max_resend;
  ledger.list_saved = saved_list_ != nullptr;
  ledger.wake = [this] { wakeup_.Notify(); };
  ledger.lift_resend_limit = [this] { channel_->SetMaxResendCount(kNoLimit); };
  return ledger;
}

ExitCode Session::Run() {
  if (!options_.metrics_file.empty()) metrics_file_.emplace(options_.metrics_file);
  const std::string failure = WriteMetrics(base::MonotonicNow());
  if (!failure.empty()) throw Fatal(kExitUsage, failure + "; nothing was sent");
  Start();
  while (Step()) {
  }
  return Stop();
}

void Session::Start() {
  ReportEvents::SetListener(&ledger_);
  channel_->Initialize();
  channel_->SetMaxResendCount(options_.max_resend.value_or(kNoLimit));
  if (options_.interval_ms) channel_->SetResendInterval(*options_.interval_ms);
  channel_->SendPacket(nullptr, 0, /*need_cache=*/false,
                       /*send_now=*/false);  // As the ledger asks.
  channel_->SetServerDomain(options_.url);
  channel_->FlushPacket();  // What the load brought is not sent by itself.
  if (options_.send_now && options_.interval_ms.value_or(0) > 0) {
    console_.Line("--send-now is off while an interval is set, here by --interval " +
                  std::to_string(*options_.interval_ms));
  }
}

bool Session::IsLoadOver() {
  if (load_over_) return true;
  if (!ledger_.IsLoadOver()) return false;
  load_over_ = true;
  if (log_.cache_failed()) console_.Line(CacheFailedLine(cache_));
  const uint64_t loaded = ledger_.GetCounts().loaded;
  if (loaded > 0) {
    console_.Line("delivering " + CountOf(loaded, "message") + " that earlier runs left in " +
                  Printable(cache_.file));
  }
  return true;
}

bool Session::Step() {
  wakeup_.Clear();  // Before anything is looked at: what happens from here on wakes again.
  PrintNotices();
  if (signals_.received() != 0 || ledger_.IsBroken()) return false;
  bool poll_input = false;
  if (IsLoadOver()) {
    HandOverAgain();
    if (Feed(&poll_input)) {
      ShowProgress(base::MonotonicNow());
      WriteMetricsWhenDue(base::MonotonicNow());
      return true;
    }
  }
  if (input_state_ != InputState::kOpen && ledger_.GetCounts().left == 0) return false;
  const Time now = base::MonotonicNow();
  if (WaitIsOver(now)) return false;
  ShowProgress(now);
  WriteMetricsWhenDue(now);
  Sleep(now, poll_input);
  return true;
}

bool Session::Feed(bool* poll_input) {
  *poll_input = false;
  if (input_state_ != InputState::kOpen || ledger_.IsBroken() || !ledger_.HasRoom()) return false;
  Message message;
  try {
    switch (input_.Next(&message)) {
      case Input::Result::kMessage:
        HandOver(message);
        return true;
      case Input::Result::kWouldBlock:
        *poll_input = true;
        return false;
      case Input::Result::kEnd:
        OnInputOver(InputState::kEnded);
        return false;
    }
  } catch (const InputError& error) {
    OnInputFailed(error);
  }
  return false;
}

void Session::HandOver(const Message& message) {
  patience_ends_.reset();
  if (first_name_.empty()) first_name_ = message.name;
  last_name_ = message.name;
  ledger_.Expect(message);
  channel_->SendPacket(Data(message.bytes), static_cast<uint32_t>(message.bytes.size()),
                       NeedsCache(message.bytes), options_.send_now);
}

void Session::HandOverAgain() {
  while (const std::optional<Ledger::Again> again = ledger_.TakeToHandOverAgain()) {
    // In turn with the others: a server that fails is not to be hammered.
    channel_->SendPacket(Data(again->bytes), static_cast<uint32_t>(again->bytes.size()),
                         again->need_cache, /*send_now=*/false);
  }
}

void Session::OnInputFailed(const InputError& error) {
  std::string line = error.what();
  if (first_name_.empty()) {
    line += "; nothing was handed over before it; correct it and start again";
  } else {
    line += "; handed over before it: " + first_name_ +
            (first_name_ == last_name_ ? "" : " to " + last_name_) +
            "; correct it and hand over the rest";
  }
  console_.Line(line);
  OnInputOver(InputState::kFailed);
}

void Session::OnInputOver(InputState state) {
  input_state_ = state;
  patience_ends_.reset();
  wait_ends_ = base::MonotonicNow() + Seconds(options_.wait_s);
}

bool Session::WaitIsOver(Time now) {
  if (wait_ends_) return now >= *wait_ends_;
  if (ledger_.HasRoom() || !ledger_.IsFailing()) {
    patience_ends_.reset();
    return false;
  }
  // No room, and the server fails: the input cannot end, so the wait cannot wait for its end.
  if (!patience_ends_) {
    patience_ends_ = now + Seconds(options_.wait_s > 0 ? options_.wait_s : kPatienceWithoutWaitS);
  }
  if (now < *patience_ends_) return false;
  console_.Line("the input was not read to its end, " +
                (last_name_.empty() ? "nothing of it" : "but up to " + last_name_) +
                ": the server has failed for longer than --wait; " +
                (last_name_.empty() ? "hand it over" : "hand over what follows") +
                " when it answers again, or allow more time with --wait");
  return true;
}

void Session::PrintNotices() {
  for (const std::string& notice : ledger_.TakeNotices()) console_.Line(notice);
  if (saved_list_ == nullptr) return;
  const std::string failure = saved_list_->Append(ledger_.TakeSaved());
  if (!failure.empty()) console_.Line(failure);
}

void Session::PrintLeft(const Counts& counts) {
  const std::string failure = ledger_.LastFailure();
  if (counts.kept > 0) {
    console_.Line(LeftLine(counts.kept, ledger_.LeftNames(/*kept=*/true, kMaxLeftNames),
                           Printable(cache_.file), failure));
  }
  if (counts.left > counts.kept) {
    console_.Line(LeftLine(counts.left - counts.kept,
                           ledger_.LeftNames(/*kept=*/false, kMaxLeftNames), "", failure));
  }
}

std::string Session::WriteMetrics(Time now) {
  if (!metrics_file_) return "";
  return metrics_file_->Write(now, Exposition({{options_.channel, ledger_.ReadBooks()}}));
}

void Session::WriteMetricsWhenDue(Time now) {
  if (!metrics_file_ || now < metrics_file_->due()) return;
  const std::string failure = WriteMetrics(now);
  if (!failure.empty() && failure != metrics_failure_) {
    console_.Line(failure + "; it stays as it was, and is tried again");
  }
  metrics_failure_ = failure;
}

void Session::ShowProgress(Time now) {
  if (!console_.is_terminal() || now < progress_.due()) return;
  ledger_.WakeOnNextEvent();  // Before the counts are read, so that no later change is missed.
  const std::optional<std::string> line = progress_.Update(now, ledger_.GetCounts());
  if (line) console_.ShowProgress(*line);
}

void Session::Sleep(Time now, bool poll_input) {
  std::optional<Time> until = wait_ends_ ? wait_ends_ : patience_ends_;
  if (console_.is_terminal() && progress_.due() > now) {
    until = std::min(until.value_or(progress_.due()), progress_.due());
  }
  if (metrics_file_) until = std::min(until.value_or(metrics_file_->due()), metrics_file_->due());
  int timeout_ms = -1;
  if (until) {
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(*until - now).count();
    timeout_ms = static_cast<int>(std::clamp<int64_t>(ms, 0, std::numeric_limits<int>::max()));
  }
  pollfd fds[2] = {{wakeup_.fd(), POLLIN, 0}, {poll_input ? input_.fd() : -1, POLLIN, 0}};
  ::poll(fds, 2, timeout_ms);  // Woken for whatever reason, Step() looks at everything.
}

ExitCode Session::Stop() {
  const bool broken = ledger_.IsBroken();
  ledger_.Close();
  channel_->Terminate();
  if (!core::ThreadManager::WaitForDrain(kDrainTime)) {
    console_.Line("the channel has not come to its end within 10 s; what it was doing is left");
  }
  ReportEvents::SetListener(nullptr);
  PrintNotices();
  const Counts counts = ledger_.GetCounts();
  if (console_.is_terminal()) {
    console_.ShowProgress(progress_.Line(base::MonotonicNow(), counts));
    console_.EndProgress();
  }
  PrintLeft(counts);
  const std::string failure = WriteMetrics(base::MonotonicNow());
  if (!failure.empty()) console_.Line(failure + "; it stays as it was");
  const bool told = WriteAll(STDOUT_FILENO, ClosingLine(counts) + "\n");
  if (!told) {
    console_.Line("cannot write to standard output: " + ErrnoText(errno) + "; " +
                  ClosingLine(counts));
  }
  if (broken) {
    throw Fatal(kExitInternal, "the channel has no thread; raise the limit on processes or memory");
  }
  return told ? ExitCodeFor(counts, input_state_ == InputState::kFailed) : kExitIo;
}

}  // namespace quenor::cli
