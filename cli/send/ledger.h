// What becomes of the messages of one run, by name: the reporters' books, kept from the channel's
// events, beside what people and scripts are told. A message is known by its id. Threads:
// OnReportEvent() on any thread; everything else on the main thread.
// See docs/guide/quenor-report.md for what the numbers mean.
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
#include <vector>

#include "cli/send/input.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/reporter/books.h"

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
  // Of all failed attempts; kNone when there are none, or several reasons.
  HttpReason only_reason = HttpReason::kNone;
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

  // Announces the next message that is handed to the channel.
  void Expect(const Message& message);

  void OnReportEvent(const ReportEvent& event) override;

  // True when one more message may be handed over.
  bool HasRoom() const;

  struct Again {
    std::string bytes;
    bool need_cache;  // As it had it before.
  };
  // A message that the channel gave up although none is to be: the next one that is handed to the
  // channel. Empty when there is none, or no room for it.
  std::optional<Again> TakeToHandOverAgain();

  // The ids of the messages that, since the last call, a completed save of the cache came to hold,
  // or that were delivered before one did: none of them needs to be handed over again, should the
  // process die. Each once. Only with `list_saved`.
  std::vector<std::string> TakeSaved();

  // From now on the channel is being terminated: what it gives up is left, not dropped.
  void Close();

  Counts GetCounts() const;

  // Any thread. The same as the channel tells it; a message that is handed over again counts once.
  BooksEntry ReadBooks() const { return books_.Read(); }

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
  struct Entry {
    std::string name;
    std::string id;     // Empty: of an earlier run.
    std::string bytes;  // As it was handed over.
    bool need_cache = false;
    bool to_save = false;  // In the channel's store, and for the cache.
    bool saved = false;    // In the cache's last completed save.
    bool kept = false;     // The channel left it there at its end.
    bool listed = false;   // By TakeSaved().
    bool is_cut = false;   // In the store, but dropped already.
  };
  // Outstanding messages by the ids that they had first, and so oldest first.
  using Entries = std::map<uint64_t, Entry>;

  // With mutex_ held. True when the main thread has something to look at.
  bool Account(const ReportEvent& event);
  bool AccountFor(const ReportEvent& event, Entries::iterator entry);
  void Note(const ReportEvent& event);
  bool OnHandedOver(const ReportEvent& event);
  bool OnProbeRefused(ReportEventCause cause);
  bool OnLoaded(const ReportEvent& event);
  bool OnSaved();
  bool OnAdmitted(const ReportEvent& event, Entries::iterator entry);
  bool OnRefused(const ReportEvent& event, Entries::iterator entry);
  bool OnAcknowledged(const ReportEvent& event, Entries::iterator entry);
  bool OnFailed(const ReportEvent& event);
  bool OnDropped(const ReportEvent& event, Entries::iterator entry);
  bool OnResendLimit(const ReportEvent& event, Entries::iterator entry);
  bool OnRetuned(const ReportEvent& event);
  // True when there is something new to list.
  bool List(Entry* entry);
  Entries::iterator Find(uint64_t message_id);
  void Add(uint64_t message_id, Entry entry);
  bool Drop(const std::string& reason, Entries::iterator entry);
  void Remove(Entries::iterator entry);
  bool HasRoomLocked() const;

  const Options options_;
  Books books_;
  mutable std::mutex mutex_;  // Guards everything below; never held while the options' calls run.
  Entries entries_;
  // The first id of a message that was handed over again, by the one that it has now.
  std::map<uint64_t, uint64_t> first_ids_;
  uint64_t bytes_ = 0;  // Of all entries.
  uint64_t cut_ = 0;    // Entries that are.
  uint64_t kept_ = 0;
  uint64_t probe_id_ = 0;
  std::optional<Message> expected_;
  std::optional<uint64_t> expected_again_;  // Its first id.
  std::deque<uint64_t> again_;              // Outstanding, but not in the channel; by first id.
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
