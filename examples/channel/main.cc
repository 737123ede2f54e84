#include <quenor_base/data_report/https/reliable_report_channel_https.h>
#include <quenor_base/platform/thread_manager.h>

int main(int argc, char** argv) {
  const char* url = argc > 1 ? argv[1] : "https://collector.example/reports";
  auto channel = std::make_shared<quenor::ReliableReportChannelHttps>(
      "usage", url, 0, /*http_client_option: HTTP/2*/ true, /*enable_compress*/ false);
  channel->Initialize();
  const uint8_t report[] = {'s', 't', 'a', 'r', 't', 'e', 'd'};
  channel->SendPacket(report, sizeof(report), /*need_cache*/ true, /*send_now*/ true);
  // Here the application runs. What is undelivered when it ends is kept for the next start.
  channel->Terminate();
  return quenor::core::ThreadManager::WaitForDrain(quenor::base::TimeDelta::FromSeconds(2)) ? 0 : 1;
}
