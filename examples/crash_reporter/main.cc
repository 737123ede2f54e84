// crash_reporter URL FOLDER [crash]: a signal handler leaves a record of a crash in FOLDER, the
// next start sends it. With "crash" it crashes.
#include <fcntl.h>
#include <quenor_base/reporter/reporter.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <iostream>
#include <vector>

namespace {

// Open from the start on: whoever crashes may have no descriptor, memory or stack left. One process
// at a time may have FOLDER: the record of another would be cleared with ours.
int g_record = -1;

// What follows calls nothing but what a signal handler may: see signal-safety(7). The reporter is
// not among it, nor is anything that allocates or locks.
char* Append(char* to, const char* text) {
  while (*text != '\0') *to++ = *text++;
  return to;
}

char* AppendNumber(char* to, uint64_t number, unsigned base) {
  char digits[64];
  int count = 0;
  do {
    digits[count++] = "0123456789abcdef"[number % base];
    number /= base;
  } while (number != 0);
  while (count > 0) *to++ = digits[--count];
  return to;
}

void OnCrash(int number, siginfo_t* info, void*) {
  char line[160];
  char* end = AppendNumber(Append(line, "crash signal="), static_cast<uint64_t>(number), 10);
  end = AppendNumber(Append(end, " address=0x"), reinterpret_cast<uintptr_t>(info->si_addr), 16);
  end = AppendNumber(Append(end, " process="), static_cast<uint64_t>(getpid()), 10);
  end = AppendNumber(Append(end, " time="), static_cast<uint64_t>(time(nullptr)), 10);
  end = Append(end, "\n");
  // Nothing can be done about a full disk here.
  if (write(g_record, line, static_cast<size_t>(end - line)) > 0) fsync(g_record);
  raise(number);  // SA_RESETHAND: now the process ends as it would have, with its core file.
}

void Watch() {
  static char stack[1 << 16];  // Of its own: the crash may be that of a stack that is full.
  stack_t alternative = {};
  alternative.ss_sp = stack;
  alternative.ss_size = sizeof stack;
  sigaltstack(&alternative, nullptr);  // Of this thread; another one has to set its own.
  struct sigaction action = {};
  action.sa_sigaction = OnCrash;
  action.sa_flags = static_cast<int>(SA_SIGINFO | SA_ONSTACK | SA_RESETHAND);
  for (const int number : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) {
    sigaction(number, &action, nullptr);
  }
}

std::string ReadRecord() {
  struct stat status = {};
  if (fstat(g_record, &status) != 0) return "";
  std::string text(static_cast<size_t>(status.st_size), '\0');
  const ssize_t count = pread(g_record, text.data(), text.size(), 0);
  text.resize(count > 0 ? static_cast<size_t>(count) : 0);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return std::cerr << "usage: crash_reporter URL FOLDER [crash]\n", 64;
  quenor::Reporter::Options options;
  options.name = "crashes";
  options.url = argv[1];
  options.shared.folder = argv[2];
  std::string error;
  const auto reporter = quenor::Reporter::Create(options, &error);  // Makes the folder, too.
  if (reporter == nullptr) return std::cerr << error << '\n', 2;
  const std::string path = std::string(argv[2]) + "/crashes.record";
  g_record = open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (g_record < 0) return perror(path.c_str()), 73;

  const std::string record = ReadRecord();
  const bool is_sent = !record.empty() && reporter->Send(record.data(), record.size());
  Watch();
  if (argc > 3) {
    int* volatile nowhere = nullptr;
    *nowhere = 1;
  }

  // Here the application runs.
  const auto all = reporter->Stop(std::chrono::seconds(2));
  // What is acknowledged or kept is the reporter's; before that the record must stay. A crash in
  // between sends it twice, none loses it.
  const bool is_safe = all.dropped + all.out == 0;
  if (is_sent && is_safe && ftruncate(g_record, 0) != 0) perror(path.c_str());
  std::cout << all.acknowledged << " acknowledged, " << all.kept << " kept for the next start\n";
  return is_safe ? 0 : 1;
}
