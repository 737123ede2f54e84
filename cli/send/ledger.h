// The books of one run: what was handed over, what the channel's cache brought back, and what
// became of it, known from the channel's events alone. Messages are told apart by their bytes; of
// equal ones the oldest name goes first. A channel that compresses tells its events with the
// compressed bytes once a message is in its store. Threads: OnReportEvent() on any thread;
// everything else on the main thread. See docs/guide/quenor-report.md for what the numbers mean.
#ifndef CLI_SEND_LEDGER_H_
#define CLI_SEND_LEDGER_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/send/input.h"
#include "quenor_base/platform/report_events.h"

namespace quenor::cli {

// loaded + handed_over = delivered + dropped + left, always.
struct Counts {
  uint64_t loaded = 0;  // Brought back from the cache: what earlier runs left.
  uint64_t handed_over = 0;
  uint64_t delivered = 0;
  uint64_t failed_attempts = 0;
  uint64_t dropped = 0;
  uint64_t left = 0;       // Neither delivered nor dropped, so far.
  uint64_t kept = 0;       // Of `left`, once the channel has ended: safe in the cache.
  uint64_t in_flight = 0;  // Of `left`: at the HTTP client.
  uint64_t retries = 0;    // Failed attempts that are, or were, followed by another.
};

class Ledger : public ReportEventListener {
 public:
  // The channel removes its oldest messages when 200 wait; below this many nothing is ever removed.
  static constexpr uint64_t kMaxOutstanding = 149;
  // Nor is more input than this taken in, unless one message alone is larger.
  static constexpr uint64_t kMaxOutstandingBytes = uint64_t{32} << 20;

  struct Options {
    bool send_now = false;
    bool compress = false;
    uint32_t interval_ms = 0;            // The run's own send interval; 0: none.
    std::optional<uint32_t> max_resend;  // Empty: no message is given up for failing.
    bool list_saved = false;             // TakeSaved() has something to say.
    // Any thread; must not block. The main thread has something to look at.
    std::function<void()> wake = [] {};
    // The channel's queue thread, inside an event; must not block. The server has set a resend
    // limit although none was asked for: take it back.
    std::function<void()> lift_resend_limit = [] {};
  };

  explicit Ledger(Options options);

  // The first message handed to the channel must be an empty one, unannounced, while the channel
  // has no URL: it is no part of the books. Its refusal, on the queue behind the load of the cache
  // and before anything is trimmed, tells that the load is over.
  bool IsLoadOver() const;

  // Announces the next message that is handed to the channel under this name. Borrows nothing.
  void Expect(const Message& message);

  void OnReportEvent(const ReportEvent& event) override;

  // True when one more message may be handed over.
  bool HasRoom() const;

  struct Again {
    std::string bytes;
    bool need_cache;  // As it had it before.
  };
  // A message that the channel gave up although none is to be; it goes to the channel again without
  // being announced. Empty when there is none, or no room for it.
  std::optional<Again> TakeToHandOverAgain();

  // The ids of the messages that, since the last call, a completed save of the cache came to hold,
  // or that were delivered before one did: none of them needs to be handed over again, should the
  // process die. Each once. Only with `list_saved`.
  std::vector<std::string> TakeSaved();

  // From now on the channel is being terminated: what it gives up is left, not dropped.
  void Close();

  Counts GetCounts() const;

  // True when the channel refuses messages although nobody has terminated it: it has no thread.
  bool IsBroken() const;

  // True while the last attempt that ended has failed.
  bool IsFailing() const;

  // How the last failed attempt failed; empty when none did.
  std::string LastFailure() const;

  // The lines for people since the last call: what was dropped, what the server changed.
  std::vector<std::string> TakeNotices();

  // The names of what is left and kept in the cache, or of what is left and not, oldest first; at
  // most `limit`.
  std::vector<std::string> LeftNames(bool kept, size_t limit) const;

  // Has the next event, whatever it is, wake the main thread.
  void WakeOnNextEvent();

 private:
  struct Name {
    uint64_t order;
    std::string text;
    std::string id;  // Empty: of an earlier run.
    bool listed;     // By TakeSaved().
  };
  // Messages of equal bytes. Which of the names goes with which copy nobody can tell.
  struct Equal {
    std::deque<Name> names;  // Oldest first; never empty.
    uint64_t to_save = 0;    // Copies in the channel's store that are for the cache.
    uint64_t saved = 0;      // Copies in the cache's last completed save that are still owed.
    uint64_t kept = 0;       // Copies that the channel left there at its end.
  };
  // Outstanding messages by their bytes.
  using Outstanding = std::map<std::string, Equal, std::less<>>;

  // What the channel keeps under bytes that are not the message's own.
  struct Compressed {
    const std::string* original;  // The key in outstanding_; null: cut, and dropped already.
    uint64_t count;
  };
  using InStore = std::map<std::string, Compressed, std::less<>>;

  // With mutex_ held. True when the main thread has something to look at.
  bool Account(const ReportEvent& event);
  bool OnHandedOver(std::string_view bytes);
  bool OnProbeRefused(ReportEventCause cause);
  bool OnLoaded(const ReportEvent& event);
  bool OnSaved();
  bool OnKept(Outstanding::iterator entry);
  // A copy that was for the cache is in the store no more, and with the next save not in the cache.
  void ForgetSaved(Outstanding::iterator entry);
  // True when there is something new to list.
  bool List(Name* name);
  bool OnAdmitted(const ReportEvent& event);
  // The message is in the channel's store, under whatever bytes.
  bool OnInStore(const ReportEvent& event, Outstanding::iterator entry);
  bool OnRefused(const ReportEvent& event, Outstanding::iterator entry);
  bool OnAcknowledged(Outstanding::iterator entry);
  bool OnFailed(const ReportEvent& event);
  bool OnDropped(const ReportEvent& event, Outstanding::iterator entry);
  bool OnResendLimit(const ReportEvent& event, Outstanding::iterator entry);
  // The message is in the store no more.
  void Release(InStore::iterator stored);
  bool OnRetuned(const ReportEvent& event);
  Equal& Add(std::string_view bytes, std::string name, std::string id);
  void Drop(const std::string& reason, Outstanding::iterator entry);
  // Answers the oldest name; the entry is gone when that was the last one.
  Name Remove(Outstanding::iterator entry);
  bool HasRoomLocked() const;

  const Options options_;
  mutable std::mutex mutex_;  // Guards everything below; never held while the options' calls run.
  Outstanding outstanding_;
  InStore in_store_;        // Empty unless the channel compresses.
  uint64_t cut_count_ = 0;  // Messages in the store that are off the books; likewise below.
  uint64_t cut_bytes_ = 0;
  uint64_t outstanding_count_ = 0;
  uint64_t outstanding_bytes_ = 0;
  uint64_t next_order_ = 0;
  std::optional<Message> expected_;
  std::deque<Again> again_;  // Outstanding, but not in the channel.
  Counts counts_;            // But for `left`.
  bool load_over_ = false;
  bool unsaved_ = false;            // Something was admitted for the cache since the last save.
  std::vector<std::string> saved_;  // What TakeSaved() is to return.
  bool closed_ = false;
  bool broken_ = false;
  bool failing_ = false;
  std::string last_failure_;
  std::vector<std::string> notices_;
  bool wake_on_next_ = false;
  uint32_t noted_interval_ms_;  // What is known to be in force, by option or by a notice.
  uint32_t noted_limit_;
};

}  // namespace quenor::cli

#endif  // CLI_SEND_LEDGER_H_
