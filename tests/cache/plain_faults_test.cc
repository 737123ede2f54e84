// Every system call of the plain file fails once, at every place where it is made: no packet that
// was taken is lost, the content of the last whole save stays until the next one is whole, and that
// one works.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>
#include <string>

#include "tests/cache/faults_bench.h"
#include "tests/cache/support/cache_files.h"
#include "tests/cache/support/file_calls.h"
#include "tests/support/fakes/recording_log.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {
namespace {

using Bag = std::multiset<std::string>;

bool Includes(const Packets& packets, const Packets& wanted) {
  const Bag has(packets.begin(), packets.end()), wants(wanted.begin(), wanted.end());
  return std::includes(has.begin(), has.end(), wants.begin(), wants.end());
}

// Each packet as often as it is in the one that has more of it.
Packets Union(const Packets& a, const Packets& b) {
  Bag all(a.begin(), a.end());
  for (const std::string& packet : Bag(b.begin(), b.end())) {
    const auto wanted = std::count(b.begin(), b.end(), packet);
    while (all.count(packet) < static_cast<size_t>(wanted)) all.insert(packet);
  }
  return Packets(all.begin(), all.end());
}

// One life of a file with one fault in it.
class PlainLife {
 public:
  static constexpr char kKind[] = "plain";

  PlainLife(const std::string& path, const Packets& content) : path_(path), content_(content) {
    Know(content);
  }

  void Arm(const Fault& fault, int nth) {
    fault_ = fault;
    FileCalls::Fail(fault.call, nth, fault.error);
  }

  void Open() {
    for (int attempt = 0; error_.empty(); ++attempt) {
      file_ = std::make_unique<ReliableReportCacheFile>();
      RecordingLog::Clear();
      if (!OpenFile(*file_, path_)) {
        Expect(FileCalls::HasFailed() && attempt == 0, "Open() fails without a reason");
        Expect(LinesWith(2, path_) > 0 || IsMemory(fault_.call), "Open() fails without a line");
        Expect(!IsRepeated(fault_) && !IsHarmless(fault_.call), "Open() fails without need");
        continue;
      }
      const Packets found = ReadAll(*file_);
      if (Includes(found, content_)) {
        // More only where a fault has kept a save from being completed: then once again.
        Expect(FileCalls::HasFailed() ? IsKnown(found) : found == content_,
               "the content is another", found);
        content_ = found;
        return;
      }
      // Cut short by the fault: then nothing may be replaced, and the next start finds it all.
      Expect(FileCalls::HasFailed() && attempt == 0, "the content is another", found);
      Expect(LinesWith(2, path_) > 0, "a packet is not read and no line says so");
      Expect(!Save(*file_, {"must not be"}), "a save replaces what could not be read");
    }
  }

  void SaveAs(const Packets& packets) {
    if (!error_.empty()) return;
    Know(packets);
    RecordingLog::Clear();
    const bool had_failed = FileCalls::HasFailed();
    Packets taken;
    bool complete = file_->Clear();
    for (const std::string& packet : packets) {
      const bool is_taken = Append(*file_, packet);
      if (is_taken) taken.push_back(packet);
      complete = complete && is_taken;
    }
    const bool sealed = file_->IsSaveComplete();
    Expect(complete || !sealed, "a save is not complete and says otherwise");
    if (sealed) {
      content_ = packets;
      return CheckKilled("after a save that worked", packets, true);
    }
    Expect(FileCalls::HasFailed() && !had_failed, "a save fails without a reason");
    Expect(!IsRepeated(fault_) && !IsHarmless(fault_.call), "a save fails without need");
    Expect(LinesWith(2, path_) > 0, "a save fails without a line");
    ++failed_saves_;
    CheckKilled("after a failed save", Union(content_, taken), false);
    Expect(Save(*file_, packets), "the save after the failed one fails too");
    content_ = packets;
    CheckKilled("after the second attempt", packets, true);
  }

  // After somebody took the file away: until a save works there is nothing at its path.
  void SaveAnew(const Packets& packets) {
    if (!error_.empty()) return;
    Know(packets);
    if (!Save(*file_, packets)) {
      Expect(FileCalls::HasFailed(), "a save fails without a reason");
      Expect(Save(*file_, packets), "the save after the failed one fails too");
    }
    content_ = packets;
    CheckKilled("after the file was made anew", packets, true);
  }

  void Close() { file_.reset(); }

  void Expect(bool holds, const std::string& what, const Packets& found = {}) {
    if (holds || !error_.empty()) return;
    error_ = what + (found.empty() ? "" : "; found " + Show(found));
    for (const std::string& line : RecordingLog::Texts()) error_ += "\n  log: " + line;
  }

  const std::string& path() const { return path_; }
  const std::string& error() const { return error_; }
  uint64_t failed_saves() const { return failed_saves_; }

 private:
  void Know(const Packets& packets) { known_.insert(packets.begin(), packets.end()); }
  bool IsKnown(const Packets& packets) const {
    return std::all_of(packets.begin(), packets.end(),
                       [&](const std::string& packet) { return known_.count(packet) > 0; });
  }

  // What a save that failed was to drop may come back, what a complete one dropped may not.
  void CheckKilled(const std::string& when, const Packets& wanted, bool is_whole) {
    const FileCalls::Unseen unseen;
    if (IsMemory(fault_.call) && !FileCalls::HasFailed()) return;  // It would be hit instead.
    const std::string copy = path_ + ".killed";
    CopyAsIfKilled(path_, copy);
    const Packets found = LoadPlain(copy);
    Expect(is_whole ? found == wanted : Includes(found, wanted) && IsKnown(found),
           "killed " + when + ", another content", found);
  }

  const std::string path_;
  Fault fault_ = {Call::kOpen, 0};
  Packets content_;
  std::set<std::string> known_;
  std::unique_ptr<ReliableReportCacheFile> file_;
  uint64_t failed_saves_ = 0;
  std::string error_;
};

std::string ImageOf(const Packets& packets) {
  const TempFolder folder;
  {
    ReliableReportCacheFile file;
    EXPECT_TRUE(OpenFile(file, folder.File("f")) && Save(file, packets));
  }
  return ReadWholeFile(folder.File("f"));
}

void OpenSaveGrowRewriteReopen(PlainLife& life) {
  life.Open();
  Packets packets = NamedPackets("old", 8, 300);
  packets.erase(packets.begin());
  packets.push_back(NamedPacket("new", 1, 500));
  life.SaveAs(packets);
  std::swap(packets.front(), packets.back());
  life.SaveAs(packets);
  for (const std::string& packet : NamedPackets("grown", 20, 4000)) packets.push_back(packet);
  packets.push_back(NamedPacket("longer than is copied", 1, 100000));
  life.SaveAs(packets);
  // Now the file is much longer than its content, and is written anew.
  life.SaveAs({NamedPacket("shrunk", 1, 200)});
  life.SaveAs({NamedPacket("shrunk", 1, 200), NamedPacket("shrunk", 2, 200)});
  life.SaveAs({});
  life.SaveAs({"last"});
  life.Close();
  life.Open();
  life.SaveAs({"last", "and new"});
  life.Close();
  life.Open();
  life.Close();
}

TEST(PlainFileFaultsTest, AnyFailingCallLosesNothingThatWasTaken) {
  const Packets content = NamedPackets("old", 8, 300);
  for (const uint64_t durability : {2, 1, 0}) {
    if (durability != 2 && !FullLength()) break;
    FailEveryCall<PlainLife>("open, save, grow, write anew",
                             {ImageOf(content), content, OpenSaveGrowRewriteReopen}, durability);
  }
}

TEST(PlainFileFaultsTest, AnyFailingCallInANewFileLosesNothing) {
  FailEveryCall<PlainLife>("a new file",
                           {"",
                            {},
                            [](PlainLife& life) {
                              life.Open();
                              life.SaveAs({"a"});
                              life.SaveAs({"a", "b"});
                              life.Close();
                              life.Open();
                              life.Close();
                            }},
                           2);
}

TEST(PlainFileFaultsTest, AnyFailingCallInARepairLosesNoIntactPacket) {
  Packets content = NamedPackets("old", 8, 300);
  std::string image = ImageOf(content);
  const size_t hit = image.find(content[2]);
  ASSERT_NE(std::string::npos, hit);
  image[hit] = static_cast<char>(image[hit] ^ 1);
  content.erase(content.begin() + 2);

  FailEveryCall<PlainLife>("repair",
                           {image, content,
                            [image](PlainLife& life) {
                              life.Open();
                              life.Expect(ReadWholeFile(SetAside(life.path())) == image,
                                          "the file as it was is not set aside");
                              life.SaveAs({"a"});
                              life.Close();
                              life.Open();
                              life.Close();
                            }},
                           2);
}

TEST(PlainFileFaultsTest, AnyFailingCallAfterARepairWasKilledLosesNothing) {
  const Packets content = NamedPackets("old", 8, 300);
  const std::string image = ImageOf(content);

  FailEveryCall<PlainLife>("a repair that was killed between its renames",
                           {image, content,
                            [](PlainLife& life) {
                              {
                                const FileCalls::Unseen unseen;
                                std::rename(life.path().c_str(),
                                            (life.path() + ".recovered").c_str());
                              }
                              life.Open();
                              life.SaveAs({"a"});
                              life.Close();
                              life.Open();
                              life.Close();
                            }},
                           2);
}

TEST(PlainFileFaultsTest, AnyFailingCallAfterTheFileWasDeletedLosesNothing) {
  FailEveryCall<PlainLife>("deleted while open",
                           {"",
                            {},
                            [](PlainLife& life) {
                              life.Open();
                              life.SaveAs(NamedPackets("p", 20, 1000));
                              life.Expect(std::remove(life.path().c_str()) == 0, "cannot delete");
                              life.SaveAnew({"a", "b"});
                              life.SaveAs({"b", "c"});
                              life.Close();
                              life.Open();
                              life.Close();
                            }},
                           0);
}

}  // namespace
}  // namespace quenor::test
