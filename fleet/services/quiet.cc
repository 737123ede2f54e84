// No log: a fleet's lines are its books. So nothing asks the throttle either. And report events to
// the one listener, on the one thread.
#include "quenor_base/platform/local_log.h"
#include "quenor_base/platform/report_events.h"
#include "quenor_base/platform/throtter.h"

QUENOR_NAMESPACE_BEGIN
namespace {

ReportEventListener* g_listener = nullptr;

}  // namespace

void LocalLog(int, const char*, int, const char*, ...) {}
void SetLogSink(LogSink, void*) {}
const char* LocalLogImplementationName() { return "none"; }

Throtter::Throtter(uint32_t) : state_(nullptr) {}
Throtter::~Throtter() = default;
bool Throtter::ShouldGo() { return false; }
const char* Throtter::ImplementationName() { return "none"; }

void ReportEvents::SetListener(ReportEventListener* listener) {
  g_listener = listener;
  has_listener_.store(listener != nullptr, std::memory_order_relaxed);
}
bool ReportEvents::AddListener(ReportEventListener*, uint64_t*) { return false; }
void ReportEvents::RemoveListener(ReportEventListener*) {}
void ReportEvents::Tell(const ReportEvent& event) {
  if (g_listener != nullptr) g_listener->OnReportEvent(event);
}
const char* ReportEvents::ImplementationName() { return "one"; }

QUENOR_NAMESPACE_END
