// Exit 0 when a message was acknowledged by the client that this project brought.
#include <quenor_base/data_report/https/reliable_report_channel_https.h>
#include <quenor_base/platform/http_client.h>
#include <quenor_base/platform/report_events.h>
#include <quenor_base/platform/thread_manager.h>

#include <cstring>
#include <future>

class Listener : public quenor::ReportEventListener {
 public:
  void OnReportEvent(const quenor::ReportEvent& event) override {
    if (event.kind == quenor::ReportEventKind::kAcknowledged) acknowledged.set_value();
  }
  std::promise<void> acknowledged;
};

int main() {
  if (std::strcmp(quenor::HttpClientFactory::ImplementationName(), "my own") != 0) return 2;
  Listener listener;
  quenor::ReportEvents::SetListener(&listener);
  auto channel = std::make_shared<quenor::ReliableReportChannelHttps>(
      "custom", "https://nowhere.invalid/", 0, false, false);
  channel->Initialize();
  const uint8_t body[] = {1, 2, 3};
  channel->SendPacket(body, sizeof(body), false, true);
  listener.acknowledged.get_future().wait();
  channel->Terminate();
  const bool drained =
      quenor::core::ThreadManager::WaitForDrain(quenor::base::TimeDelta::FromSeconds(30));
  quenor::ReportEvents::SetListener(nullptr);
  return drained ? 0 : 1;
}
