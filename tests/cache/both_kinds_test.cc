// The two kinds of cache file do the same wherever both promise the same: every short sequence of
// operations, and long random ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "tests/cache/support/cache_files.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

// The last one, which announces more than is appended, is for the random sequences only.
enum class Step { kClear, kAppend, kAppendEmpty, kReopen, kKill, kClearForMore };
constexpr size_t kSteps = 5;

std::string Name(const std::vector<Step>& steps) {
  std::string name;
  for (const Step step : steps) name += "CAEOKM"[static_cast<int>(step)];
  return name;
}

// What so many calls answer: an empty packet and the end are the same.
template <typename File>
Packets ReadCalls(File& file, size_t calls) {
  Packets read;
  for (size_t i = 0; i < calls; ++i) {
    const auto packet = file.GetNextDataPacket();
    const bool is_end = packet.data == nullptr || packet.size == 0;
    read.push_back(is_end ? std::string()
                          : std::string(reinterpret_cast<const char*>(packet.data), packet.size));
  }
  return read;
}

Packets Padded(Packets packets, size_t size) {
  packets.resize(std::max(size, packets.size()));
  return packets;
}

// One file of each kind, led through the same steps.
class Twins {
 public:
  explicit Twins(size_t packet_size) : packet_size_(packet_size) { OpenBoth(); }

  // Empty, or what they did not agree on.
  std::string Run(const std::vector<Step>& steps) {
    for (size_t i = 0; i < steps.size() && error_.empty(); ++i) {
      switch (steps[i]) {
        case Step::kClear:
        case Step::kClearForMore:
          Clear(steps, i);
          break;
        case Step::kAppend:
          ++number_;
          Append(NamedPacket("p", number_ % 5, packet_size_ + number_ % 3));
          break;
        case Step::kAppendEmpty:
          Append(std::string());
          break;
        case Step::kReopen:
          CloseBoth();
          OpenBoth();
          CheckBoth();
          break;
        case Step::kKill:
          Kill();
          break;
      }
    }
    return error_;
  }

 private:
  void OpenBoth() {
    mapped_ = std::make_unique<MultiProcessSafetyMmapFile>();
    plain_ = std::make_unique<ReliableReportCacheFile>();
    Expect(OpenFile(*mapped_, mapped_path_), "the mapped file is not opened");
    Expect(OpenFile(*plain_, plain_path_), "the plain file is not opened");
    is_saving_ = false;
  }

  void CloseBoth() {
    mapped_.reset();
    plain_.reset();
  }

  void Clear(const std::vector<Step>& steps, size_t at) {
    next_.clear();
    announced_ = 0;
    size_t number = number_;
    int64_t announced = 0;
    for (size_t i = at + 1; i < steps.size(); ++i) {
      if (steps[i] != Step::kAppend && steps[i] != Step::kAppendEmpty) break;
      ++announced_;
      if (steps[i] == Step::kAppend) {
        ++number;
        announced += static_cast<int64_t>(packet_size_ + number % 3) + 4;
      } else {
        announced += 4;
      }
    }
    is_for_more_ = steps[at] == Step::kClearForMore;
    const bool mapped = mapped_->Clear(announced + (is_for_more_ ? 1 + 20000 * (at % 2) : 0));
    const bool plain = plain_->Clear();
    is_saving_ = true;
    Expect(mapped && plain, "Clear() is refused");
    AskWhenComplete();
  }

  void Append(const std::string& packet) {
    const bool mapped = quenor::test::Append(*mapped_, packet);
    const bool plain = quenor::test::Append(*plain_, packet);
    Expect(mapped == is_saving_ && plain == is_saving_, "an append answers otherwise");
    if (!is_saving_) return;
    next_.push_back(packet);
    AskWhenComplete();
  }

  // As the channel does, when it has appended what it has announced.
  void AskWhenComplete() {
    if (next_.size() < announced_) return;
    Expect(mapped_->IsSaveComplete() != is_for_more_,
           "the mapped file takes no whole save for one");
    Expect(plain_->IsSaveComplete(), "a whole save is not complete");
    plain_content_ = next_;
    if (!is_for_more_) mapped_content_ = next_;
  }

  void CheckBoth() {
    const size_t calls = std::max(mapped_content_.size(), plain_content_.size()) + 2;
    const Packets mapped = ReadCalls(*mapped_, calls);
    const Packets plain = ReadCalls(*plain_, calls);
    Expect(mapped == Padded(mapped_content_, calls), "the mapped file reads", mapped);
    Expect(plain == Padded(plain_content_, calls), "the plain file reads", plain);
    Expect(mapped_->IsSaveComplete() && plain_->IsSaveComplete(), "no save, and not complete");
  }

  void Kill() {
    const std::string suffix = "." + std::to_string(++kills_);
    const std::string mapped_copy = folder_.File("m" + suffix),
                      plain_copy = folder_.File("p" + suffix);
    CopyAsIfKilled(mapped_path_, mapped_copy);
    CopyAsIfKilled(plain_path_, plain_copy);
    mapped_.reset();
    plain_.reset();
    std::remove(mapped_path_.c_str());
    std::remove(plain_path_.c_str());
    mapped_path_ = mapped_copy;
    plain_path_ = plain_copy;
    OpenBoth();
    if (!error_.empty()) return;
    CheckBoth();
  }

  void Expect(bool holds, const std::string& what, const Packets& found = {}) {
    if (holds || !error_.empty()) return;
    error_ =
        what + " " + Show(found) + "; saved " + Show(mapped_content_) + ", next " + Show(next_);
    for (const std::string& line : RecordingLog::Texts()) error_ += "\n  log: " + line;
  }

  const size_t packet_size_;
  TempFolder folder_;
  std::string mapped_path_ = folder_.File("m");
  std::string plain_path_ = folder_.File("p");
  std::unique_ptr<MultiProcessSafetyMmapFile> mapped_;
  std::unique_ptr<ReliableReportCacheFile> plain_;
  bool is_saving_ = false;
  // Of the last complete save; the plain file, to which nothing is announced, has more of them.
  Packets mapped_content_;
  Packets plain_content_;
  bool is_for_more_ = false;
  Packets next_;
  size_t announced_ = 0;  // Packets, of `next_`.
  size_t number_ = 0;
  int kills_ = 0;
  std::string error_;
};

TEST(BothKindsTest, AgreeOnEveryShortSequence) {
  const size_t longest = FullLength() ? 7 : 5;
  uint64_t sequences = 0;
  for (size_t length = 1; length <= longest; ++length) {
    std::vector<Step> steps(length, Step::kClear);
    for (;;) {
      RecordingLog::Clear();
      Twins twins(30);
      ASSERT_EQ("", twins.Run(steps)) << Name(steps);
      ++sequences;
      size_t at = 0;
      while (at < length && steps[at] == Step::kKill) steps[at++] = Step::kClear;
      if (at == length) break;
      steps[at] = static_cast<Step>(static_cast<int>(steps[at]) + 1);
    }
  }
  std::cout << "both kinds: " << sequences << " sequences, all of up to " << longest << " steps of "
            << kSteps << std::endl;
}

TEST(BothKindsTest, AgreeOnLongRandomSequences) {
  const uint64_t seed = TestSeed();
  Random random(seed);
  const int sequences = FullLength() ? 1500 : 20;
  for (int i = 0; i < sequences; ++i) {
    std::vector<Step> steps(300);
    for (Step& step : steps) {
      const uint64_t draw = Below(random, 20);
      step = draw < 3    ? Step::kClear
             : draw < 16 ? Step::kAppend
             : draw < 17 ? Step::kAppendEmpty
             : draw < 18 ? Step::kReopen
             : draw < 19 ? Step::kClearForMore
                         : Step::kKill;
    }
    RecordingLog::Clear();
    Twins twins(Below(random, 4) == 0 ? 9000 : 1 + Below(random, 200));
    ASSERT_EQ("", twins.Run(steps)) << Name(steps);
  }
  std::cout << "both kinds: " << sequences
            << " random sequences of 300 steps; QUENOR_TEST_SEED=" << seed << std::endl;
}

}  // namespace
}  // namespace quenor::test
