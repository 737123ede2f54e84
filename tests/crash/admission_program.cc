// A channel with the default cache that admits messages and has them answered, on one thread and on
// virtual time: for whoever counts what it asks of the system. Marks stand between the phases.
//   PROGRAM FOLDER               its folder of cache files
//   PROGRAM FOLDER allocations   without marks; prints how often the admissions asked for memory
#include "tests/crash/admission_program.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "quenor_base/data_report/https/reliable_report_channel_https.h"
#include "quenor_base/platform/base/path_service.h"
#include "tests/support/fakes/fake_http_client.h"
#include "tests/support/fakes/virtual_time.h"
#include "tests/support/memory_faults.h"

namespace quenor::test {
namespace {

void Mark() {
  static const pid_t self = getpid();
  kill(self, SIGSTOP);
}

class Sender {
 public:
  Sender() : http_([this](base::OnceClosure task) { time_.PostToNetwork(std::move(task)); }) {
    channel_->Initialize();
    time_.RunUntilIdle();
  }
  ~Sender() {
    channel_->Terminate();
    time_.RunUntilIdle();
  }

  void HandOver() {
    std::string body = "message " + std::to_string(number_++) + " ";
    body.resize(kAdmissionBytes, 'x');
    channel_->SendPacket(reinterpret_cast<const uint8_t*>(body.data()),
                         static_cast<uint32_t>(body.size()), true, false);
  }
  void RunQueue() { time_.RunUntilIdle(); }
  // The send timer's next tick.
  void Send() { time_.AdvanceBy(base::TimeDelta::FromSeconds(1)); }
  void Answer(size_t index) {
    (void)http_.Answer(index, 200, "{\"bytes_errinfo\":\"success\"}");
    time_.RunUntilIdle();
  }

 private:
  VirtualTime time_;
  FakeHttp http_;
  const std::shared_ptr<ReliableReportChannelHttps> channel_ =
      std::make_shared<ReliableReportChannelHttps>("channel", "https://collector.example/", 0,
                                                   false, false);
  int number_ = 0;
};

int Run(const char* folder, bool counts_allocations) {
  if (!base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath(folder))) return 1;
  Sender sender;
  size_t answered = 0;
  // Until the file has its size and every buffer its place.
  for (int i = 0; i < 1000; ++i) {
    sender.HandOver();
    sender.RunQueue();
    if (i <= kAdmissionPending + kAdmissions) continue;
    sender.Send();
    sender.Answer(answered++);
  }
  for (int i = 0; i < kAdmissions; ++i) {
    sender.Send();
    sender.Answer(answered++);
  }
  if (counts_allocations) {
    sender.HandOver();
    sender.RunQueue();  // Which starts the send timer again.
    for (int i = 0; i < kAdmissions; ++i) sender.HandOver();
    const MemoryFaults::Counter counter;
    sender.RunQueue();
    std::printf("%zu\n", counter.count());
    return 0;
  }
  Mark();
  for (int i = 0; i < kAdmissions; ++i) sender.HandOver();
  Mark();
  sender.RunQueue();
  Mark();
  for (int i = 0; i < kAdmissions; ++i) sender.Send();
  Mark();
  for (int i = 0; i < kAdmissions; ++i) sender.Answer(answered++);
  Mark();
  return 0;
}

}  // namespace
}  // namespace quenor::test

int main(int argc, char** argv) {
  const bool counts_allocations = argc == 3 && std::strcmp(argv[2], "allocations") == 0;
  if (argc != 2 && !counts_allocations) {
    std::fprintf(stderr, "usage: %s FOLDER [allocations]\n", argv[0]);
    return 64;
  }
  return quenor::test::Run(argv[1], counts_allocations);
}
