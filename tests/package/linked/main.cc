// What the shared library exports of C++ is what a host of Reporter needs.
#include <quenor_base/reporter/exposition.h>
#include <quenor_base/reporter/reporter.h>

#include <iostream>

int main(int, char** argv) {
  std::string error;
  quenor::Reporter::Options options;
  options.name = "linked_too";
  options.url = "https://127.0.0.1:1/";
  options.shared.folder = argv[1];
  options.on_update = [](const quenor::Reporter::Update& update) {
    std::cerr << NameOf(update.cause) << '\n';
  };
  const auto reporter = quenor::Reporter::Create(options, &error);
  if (reporter == nullptr) return std::cerr << error << '\n', 1;
  if (!reporter->Send("started", 7)) return 2;
  reporter->Flush(std::chrono::milliseconds(0));
  reporter->SetSendInterval(reporter->ReportIntervalMs());
  reporter->SetUrl(options.url);
  const auto all = reporter->Stop(std::chrono::milliseconds(0));
  std::cerr << quenor::Reporter::TextOf(reporter->Send("late", 4).refusal) << '\n';
  std::cerr << quenor::Reporter::Metrics() << quenor::Reporter::ReadProcessBooks().Refused()
            << '\n';
  if (!reporter->ReadBooks().Closes() || reporter->Now().kept != all.kept) return 3;
  std::cout << all.acknowledged << " acknowledged, " << all.kept << " kept\n";
}
