#include <quenor_base/reporter/reporter.h>

#include <iostream>

int main(int argc, char** argv) {
  std::string error;
  const char* url = argc > 1 ? argv[1] : "https://collector.example/reports";
  const auto reporter = quenor::Reporter::Create({"usage", url}, &error);
  if (reporter == nullptr) return std::cerr << error << '\n', 2;
  const auto sent = reporter->Send("started", 7);  // Copied; the application goes on.
  if (!sent) std::cerr << "not taken: " << quenor::Reporter::TextOf(sent.refusal) << '\n';
  const auto all = reporter->Stop(std::chrono::seconds(2));  // Waits no longer than that.
  std::cout << all.acknowledged << " acknowledged, " << all.kept << " kept for the next start, "
            << all.rejected + all.dropped + all.out << " lost\n";
  return sent && all.all_delivered() ? 0 : 1;
}
