// The processes that the crash tests start, and kill. What each does: see the functions.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "quenor_base/platform/base/check.h"
#include "quenor_base/platform/config_center.h"
#include "tests/crash/support/cache_files.h"
#include "tests/crash/support/contents.h"
#include "tests/crash/support/job.h"
#include "tests/support/patience.h"

namespace quenor::test {
namespace {

void Mark() {
  static const pid_t self = getpid();
  kill(self, SIGSTOP);
}

void SaveOnDisk() {
  config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_durability,
                                                           uint64_t{2});
}

// steps KIND PATH COMMAND...: does to one file what each command says, once all are understood.
//   open, load, close
//   on-disk        from the next open on, a save returns when it is on the disk
//   save:CONTENT   as ContentOf() has it
//   mark           stops itself for whoever watches
// Exits with the number of the first command that fails.
int Steps(const std::vector<std::string>& arguments) {
  const std::unique_ptr<CacheFile> file = CacheFile::Create(FileKindOf(arguments[0]));
  const std::string& path = arguments[1];
  std::vector<std::function<bool()>> steps;
  for (size_t i = 2; i < arguments.size(); ++i) {
    const std::string& command = arguments[i];
    if (command == "open") {
      steps.push_back([&] { return file->Open(path); });
    } else if (command == "load") {
      steps.push_back([&] { return file->Load(), true; });
    } else if (command == "close") {
      steps.push_back([&] { return file->Close(), true; });
    } else if (command == "on-disk") {
      steps.push_back([] { return SaveOnDisk(), true; });
    } else if (command == "mark") {
      steps.push_back([] { return Mark(), true; });
    } else {
      QUENOR_CHECK(command.compare(0, 5, "save:") == 0, "no such command");
      steps.push_back([&, content = ContentOf(command.substr(5))] { return file->Save(content); });
    }
  }
  for (size_t i = 0; i < steps.size(); ++i) {
    if (!steps[i]()) return static_cast<int>(i + 1);
  }
  return 0;
}

void Report(JobEvent::Kind kind, uint64_t number) {
  const JobEvent event = {kind, number};
  if (write(STDOUT_FILENO, &event, sizeof(event)) != sizeof(event)) _exit(3);  // Nobody listens.
}

// Blocks until standard input ends.
void AwaitRelease() {
  char byte;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
}

// saver KIND PATH FIRST: saves ContentOfSave(FIRST), that of the next number, and so on for ever,
// and reports each number once the save has returned.
int Saver(const std::vector<std::string>& arguments) {
  const std::unique_ptr<CacheFile> file = CacheFile::Create(FileKindOf(arguments[0]));
  if (!file->Open(arguments[1])) return 1;
  Report(JobEvent::kReady, file->Load().size());
  for (uint64_t number = std::stoull(arguments[2]);; ++number) {
    if (!file->Save(ContentOfSave(number))) return 2;
    Report(JobEvent::kSaved, number);
  }
}

// holder KIND PATH OWNERS [CONTENT]: opens the file so many times, saves the content with the last
// of them if there is one, and holds all until it is released.
int Holder(const std::vector<std::string>& arguments) {
  std::vector<std::unique_ptr<CacheFile>> owners(std::stoull(arguments[2]));
  size_t packets = 0;
  for (auto& owner : owners) {
    owner = CacheFile::Create(FileKindOf(arguments[0]));
    if (!owner->Open(arguments[1])) return 1;
    packets += owner->Load().size();
  }
  if (arguments.size() > 3 && !owners.back()->Save(ContentOf(arguments[3]))) return 2;
  Report(JobEvent::kReady, packets);
  AwaitRelease();
  return 0;
}

// A sender, as one of several processes of one file. Everything that it has is in the file after
// each change; what it has delivered is a line "NUMBER INCARNATION" in a file that all write to.
class Worker {
 public:
  // How many events it may be ahead of who reads them; each byte of standard input is one more.
  static constexpr int kCredit = 8;

  // `is_patient`: what is refused is tried again, because another process may be stopped with the
  // table's lock.
  Worker(const std::string& path, const std::string& delivered, std::string incarnation,
         bool is_patient)
      : delivered_(open(delivered.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC)),
        incarnation_(std::move(incarnation)),
        random_(static_cast<unsigned>(std::hash<std::string>()(incarnation_))),
        patience_(is_patient ? kPatience : std::chrono::seconds(0)) {
    Require(delivered_ >= 0 && Try([&] { return file_->Open(path); }));
    const Content left = file_->Load();
    messages_.assign(left.begin(), left.end());
    for (const std::string& message : left) Report(JobEvent::kLoaded, NumberOf(message));
    Report(JobEvent::kReady, left.size());
  }

  void Send(uint64_t number) {
    messages_.push_back(Message(number, 40 + number * 37 % 700));
    Require(Save());
    Tell(JobEvent::kSaved, number);
    while (messages_.size() > random_() % 30) Deliver();
  }

  void DeliverAll() {
    while (!messages_.empty()) Deliver();
  }

 private:
  void Deliver() {
    // Answers come out of order.
    const size_t at = random_() % std::min<size_t>(messages_.size(), 4);
    const uint64_t number = NumberOf(messages_[at]);
    // Of a length of which pages are multiples: a kill cuts a write only between two pages.
    std::string line = std::to_string(number) + " " + incarnation_;
    line.resize(31, ' ');
    line += '\n';
    Require(write(delivered_, line.data(), line.size()) == static_cast<ssize_t>(line.size()));
    Tell(JobEvent::kAcknowledged, number);
    messages_.erase(messages_.begin() + static_cast<std::ptrdiff_t>(at));
    Require(Save());
    Tell(JobEvent::kRetired, number);
  }

  void Tell(JobEvent::Kind kind, uint64_t number) {
    char byte;
    if (credit_ > 0) {
      --credit_;
    } else if (read(STDIN_FILENO, &byte, 1) <= 0) {
      _exit(3);
    }
    Report(kind, number);
  }

  template <typename Call>
  bool Try(Call call) const {
    const auto end = Now() + patience_;
    do {
      if (call()) return true;
    } while (Now() < end);
    return false;
  }
  bool Save() {
    return Try([&] { return file_->Save(Content(messages_.begin(), messages_.end())); });
  }

  void Require(bool good) {
    if (good) return;
    Report(JobEvent::kFailed, 0);
    _exit(1);
  }

  std::unique_ptr<CacheFile> file_ = CacheFile::Create(FileKind::kMapped);
  int credit_ = kCredit;
  int delivered_;
  std::string incarnation_;
  std::minstd_rand random_;
  const std::chrono::seconds patience_;
  std::deque<std::string> messages_;
};

// worker PATH DELIVERED INCARNATION FIRST COUNT: sends messages FIRST, FIRST + 1, ... and leaves
// what it has not delivered by then; delivers everything when COUNT is 0.
int Work(const std::vector<std::string>& arguments, bool is_patient) {
  Worker worker(arguments[0], arguments[1], arguments[2], is_patient);
  const uint64_t first = std::stoull(arguments[3]);
  const uint64_t end = first + std::stoull(arguments[4]);
  for (uint64_t number = first; number < end; ++number) worker.Send(number);
  if (first == end) worker.DeliverAll();
  return 0;
}

int Run(const std::vector<std::string>& arguments) {
  const std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
  if (arguments[0] == "steps") return Steps(rest);
  if (arguments[0] == "saver") return Saver(rest);
  if (arguments[0] == "holder") return Holder(rest);
  if (arguments[0] == "worker") return Work(rest, false);
  if (arguments[0] == "patient-worker") return Work(rest, true);
  QUENOR_CHECK(false, "no such job");
}

}  // namespace
}  // namespace quenor::test

int main(int argc, char** argv) {
  QUENOR_CHECK(argc > 1, "which job?");
  return quenor::test::Run(std::vector<std::string>(argv + 1, argv + argc));
}
