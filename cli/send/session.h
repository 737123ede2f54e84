// One run of "quenor-report send": feeds the input to a channel, waits for what becomes of it and
// reports. Threads: everything on the main thread, which sleeps in poll() between events.
// Page: docs/guide/quenor-report.md.
#ifndef CLI_SEND_SESSION_H_
#define CLI_SEND_SESSION_H_

#include <memory>
#include <optional>
#include <string>

#include "cli/console.h"
#include "cli/fatal.h"
#include "cli/options/cache_use.h"
#include "cli/options/options.h"
#include "cli/send/channel_log.h"
#include "cli/send/input.h"
#include "cli/send/ledger.h"
#include "cli/send/metrics_file.h"
#include "cli/send/progress.h"
#include "cli/send/saved_list.h"
#include "cli/stop_signals.h"
#include "cli/wakeup.h"
#include "quenor_base/data_report/https/reliable_report_channel_https.h"

namespace quenor::cli {

class Session {
 public:
  // Borrows everything until it is destroyed. `saved_list` may be null.
  Session(const Options& options, const CacheUse& cache, Input& input, Console& console,
          const ChannelLog& log, SavedList* saved_list, Wakeup& wakeup, const StopSignals& signals);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Once. Returns the exit code, after printing the closing line. Throws Fatal with kExitInternal
  // when the channel cannot start.
  ExitCode Run();

 private:
  using Time = Progress::Time;

  enum class InputState {
    kOpen,    // More may come.
    kEnded,   // Everything was handed over.
    kFailed,  // It could not be read on.
  };

  Ledger::Options LedgerOptions();
  void Start();
  // False until the cache is loaded. Then everything that is to be said about it was said.
  bool IsLoadOver();
  // False when the run is over. Else one message was handed over, or everything else was done that
  // can be done at once, and there is something new to look at.
  bool Step();
  // Hands over the next message, if it is there and there is room. False when there was nothing to
  // do; `*poll_input` then tells whether more input is worth waiting for.
  bool Feed(bool* poll_input);
  void HandOver(const Message& message);
  // An empty packet would end the next load: what is saved behind it would be lost.
  bool NeedsCache(const std::string& bytes) const { return options_.persist && !bytes.empty(); }
  void HandOverAgain();
  void OnInputFailed(const InputError& error);
  void OnInputOver(InputState state);
  // True when the wait has lasted as long as it may.
  bool WaitIsOver(Time now);
  // What has happened since the last call, for people and for the saved list.
  void PrintNotices();
  void PrintLeft(const Counts& counts);
  // One line that says what failed, or empty.
  std::string WriteMetrics(Time now);
  void WriteMetricsWhenDue(Time now);
  void ShowProgress(Time now);
  void Sleep(Time now, bool poll_input);
  ExitCode Stop();

  const Options& options_;
  const CacheUse& cache_;
  Input& input_;
  Console& console_;
  const ChannelLog& log_;
  SavedList* const saved_list_;
  Wakeup& wakeup_;
  const StopSignals& signals_;
  Ledger ledger_;
  std::shared_ptr<ReliableReportChannelHttps> channel_;
  Progress progress_;
  std::optional<MetricsFile> metrics_file_;
  std::string metrics_failure_;  // As told last; empty once it has been written again.
  bool load_over_ = false;
  InputState input_state_ = InputState::kOpen;
  std::string first_name_;  // Of what was handed over; empty: nothing.
  std::string last_name_;
  std::optional<Time> wait_ends_;      // Once the input is over.
  std::optional<Time> patience_ends_;  // While the input is held back and the server fails.
};

}  // namespace quenor::cli

#endif  // CLI_SEND_SESSION_H_
