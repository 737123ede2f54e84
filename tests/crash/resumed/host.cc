// The host of host.c in C++: the same arguments, letters and book.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "quenor_base/reporter/reporter.h"

namespace {

using quenor::Reporter;
using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;

constexpr int kMostAtOnce = 4;
constexpr uint64_t kMostOutstanding = 8;

void Tell(char what) {
  if (write(STDOUT_FILENO, &what, 1) != 1) _exit(4);  // Nobody listens.
}

[[noreturn]] void Fail(const std::string& why) {
  std::fprintf(stderr, "failed: %s\n", why.c_str());
  _exit(3);
}

void OnUpdate(const Reporter::Update& update) {
  using State = Reporter::State;
  if (update.state == State::kRejected || update.state == State::kDropped) Fail("a message");
  Tell("LASFARDK"[static_cast<int>(update.state)]);
}

void SendOne(Reporter* reporter, const std::string& name, int number) {
  std::string body = name + " " + std::to_string(number) + " ";
  body.resize(40 + number * 37 % 700, '.');
  Reporter::SendOptions options;
  options.now = number % 2 != 0;
  Tell('H');
  const Reporter::Sent sent = reporter->Send(body.data(), body.size(), options);
  if (!sent) Fail(Reporter::TextOf(sent.refusal));
}

void Run(Reporter* reporter, const std::string& name, int count, int book) {
  int written = static_cast<int>(lseek(book, 0, SEEK_END));
  int next = written;
  while (written < count) {
    const Reporter::Outcome all = reporter->Flush(1ms);
    if (all.out != 0) continue;
    if (next > written) {
      const std::string dots(static_cast<size_t>(next - written), '.');
      if (write(book, dots.data(), dots.size()) != next - written) Fail("the book");
      written = next;
      Tell('W');
    }
    if (all.kept > kMostOutstanding) continue;
    while (next < count && next - written < 1 + written % kMostAtOnce)
      SendOne(reporter, name, next++);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 64;
  const std::string folder = argv[1];
  Reporter::Options options;
  options.shared.folder = folder;
  options.url = argv[2];
  options.name = argv[3];
  options.on_update = OnUpdate;
  const int book =
      open((folder + "/" + options.name + ".book").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  std::string error = "the book";
  const auto reporter = book >= 0 ? Reporter::Create(options, &error) : nullptr;
  if (reporter == nullptr) Fail(error);
  Run(reporter.get(), options.name, std::stoi(argv[4]), book);
  return reporter->Stop(100s).all_delivered() ? 0 : 1;
}
