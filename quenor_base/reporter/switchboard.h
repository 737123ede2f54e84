// Switchboard: the process's one listener of its channels, which passes each event on to the
// reporter whose channel it is of, and keeps the process's books.
// Threads: any. Life cycle: made with the first reporter, never destroyed; a forked child begins
// with an empty one.
#ifndef QUENOR_BASE_REPORTER_SWITCHBOARD_H_
#define QUENOR_BASE_REPORTER_SWITCHBOARD_H_

#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "quenor_base/platform/base/fork.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/reporter/books.h"

QUENOR_NAMESPACE_BEGIN

class EventReceiver {
 public:
  virtual ~EventReceiver() = default;
  // As ReportEventListener::OnReportEvent(). Notes the event in `process_books`, too, before
  // anybody learns of it, unless it is of no message of anybody's.
  virtual void OnEvent(const ReportEvent& event, int64_t now_ns, Books* process_books) = 0;
  virtual BooksEntry ReadBooks() const = 0;
};

class Switchboard {
 public:
  explicit Switchboard(Switchboard* parents);  // For OfProcess().
  static Switchboard& OfProcess();

  enum class Joined { kDone, kNameTaken, kNoListener };
  Joined Join(const std::string& channel_name, std::shared_ptr<EventReceiver> receiver);
  void Leave(const std::string& channel_name);
  // The process's.
  BooksEntry ReadBooks() const { return books_.Read(); }
  // Of every receiver, by its name, behind the process's, whose name is empty.
  std::vector<std::pair<std::string, BooksEntry>> ReadAllBooks();

 private:
  struct Listener;
  void Pass(const ReportEvent& event);

  std::shared_mutex mutex_;
  std::map<std::string, std::shared_ptr<EventReceiver>> receivers_;  // Guarded by `mutex_`.
  Books books_;
};

QUENOR_NAMESPACE_END

#endif  // QUENOR_BASE_REPORTER_SWITCHBOARD_H_
