#include "quenor_base/reporter/switchboard.h"

#include <mutex>
#include <utility>

#include "quenor_base/platform/base/monotonic_time.h"

QUENOR_NAMESPACE_BEGIN

// The same one in a forked child, which finds the child's switchboard.
struct Switchboard::Listener final : ReportEventListener {
  void OnReportEvent(const ReportEvent& event) override { OfProcess().Pass(event); }
};

// In a child the listener is there already; what the parent has handed over is none of its books'.
Switchboard::Switchboard(Switchboard* parents) {
  if (parents != nullptr) *books_.newest_before() = ReportEvents::NewestMessage();
}

Switchboard& Switchboard::OfProcess() {
  static base::OnePerProcess<Switchboard> switchboard;
  return switchboard.Get();
}

Switchboard::Joined Switchboard::Join(const std::string& channel_name,
                                      std::shared_ptr<EventReceiver> receiver) {
  static std::atomic<Listener*> listener{nullptr};
  Listener* const the_one = base::FindOrMake(&listener, [] { return new Listener; });
  if (!ReportEvents::AddListener(the_one, books_.newest_before())) return Joined::kNoListener;
  std::unique_lock<std::shared_mutex> hold(mutex_);
  const bool is_new = receivers_.emplace(channel_name, std::move(receiver)).second;
  return is_new ? Joined::kDone : Joined::kNameTaken;
}

void Switchboard::Leave(const std::string& channel_name) {
  std::unique_lock<std::shared_mutex> hold(mutex_);
  receivers_.erase(channel_name);
}

std::vector<std::pair<std::string, BooksEntry>> Switchboard::ReadAllBooks() {
  std::vector<std::pair<std::string, BooksEntry>> all = {{"", ReadBooks()}};
  std::shared_lock<std::shared_mutex> hold(mutex_);
  for (const auto& [name, receiver] : receivers_) all.emplace_back(name, receiver->ReadBooks());
  return all;
}

void Switchboard::Pass(const ReportEvent& event) {
  const int64_t now_ns = base::MonotonicNs();
  std::shared_ptr<EventReceiver> receiver;
  {
    std::shared_lock<std::shared_mutex> hold(mutex_);
    const auto found = receivers_.find(event.channel_name);
    if (found != receivers_.end()) receiver = found->second;
  }
  if (receiver != nullptr) return receiver->OnEvent(event, now_ns, &books_);
  books_.Note(event, now_ns, /*is_rejected=*/false);
}

QUENOR_NAMESPACE_END
