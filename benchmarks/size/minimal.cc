// The least that an application does with a channel: URL and one message from the command line.
#include <cstring>
#include <memory>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/thread_manager.h"

int main(int argc, char** argv) {
  if (argc != 3) return 64;
  const auto channel =
      std::make_shared<quenor::ReliableReportChannelHttps>("minimal", argv[1], 0, true, true);
  channel->Initialize();
  channel->SendPacket(reinterpret_cast<const uint8_t*>(argv[2]),
                      static_cast<uint32_t>(std::strlen(argv[2])), true, true);
  channel->Terminate();
  return quenor::core::ThreadManager::WaitForDrain(quenor::base::TimeDelta::FromSeconds(60)) ? 0
                                                                                             : 1;
}
