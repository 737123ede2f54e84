#include "tests/crash/support/promises.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>

#include "tests/support/fakes/recording_log.h"

namespace quenor::test {
namespace {

using Bag = std::multiset<std::string>;

Bag BagOf(const Content& content) { return Bag(content.begin(), content.end()); }

bool Includes(const Bag& whole, const Bag& part) {
  return std::includes(whole.begin(), whole.end(), part.begin(), part.end());
}

// Nothing that is in neither of them, nothing more often than in the one that has it more often.
bool IsMadeOf(const Bag& found, const Bag& old, const Bag& now) {
  for (const std::string& message : found) {
    if (found.count(message) > std::max(old.count(message), now.count(message))) return false;
  }
  return true;
}

std::string LogOfTrouble() {
  std::string text;
  for (const LogLine& line : RecordingLog::Lines()) {
    if (line.level > 0) text += "; logged: " + line.text;
  }
  return text;
}

}  // namespace

Found Judge(FileKind kind, const Expected& expected, const Content& found) {
  if (found == expected.now) return Found::kNow;
  if (found == expected.old) return Found::kOld;
  if (kind == FileKind::kMapped) return Found::kBroken;
  const Bag old = BagOf(expected.old);
  const Bag now = BagOf(expected.now);
  const Bag has = BagOf(found);
  Bag both;
  std::set_intersection(old.begin(), old.end(), now.begin(), now.end(),
                        std::inserter(both, both.end()));
  const bool kept = Includes(has, both) && (Includes(has, old) || Includes(has, now));
  return kept && IsMadeOf(has, old, now) ? Found::kBetween : Found::kBroken;
}

std::string Successor::PathIn(const std::string& folder, FileKind kind) {
  return folder + (kind == FileKind::kMapped ? "/c.mmap" : "/c.cache");
}

std::string Successor::Check(const FolderState& state, const Expected& expected, Found* found,
                             bool is_damaged) {
  state.WriteTo(folder_.path());
  RecordingLog::Clear();
  std::string wrong = CheckContent(expected, found);
  if (wrong.empty()) wrong = CheckNextSave();
  if (is_damaged) return wrong;
  wrong += LogOfTrouble();
  if (HasSetAside(folder_.path())) wrong += "; the file was set aside";
  return wrong;
}

std::string Successor::CheckContent(const Expected& expected, Found* found) {
  const std::unique_ptr<CacheFile> file = CacheFile::Create(kind_);
  if (!file->Open(PathIn(folder_.path(), kind_))) return "cannot be opened";
  const Content content = file->Load();
  const Found judged = Judge(kind_, expected, content);
  if (found != nullptr) *found = judged;
  if (judged != Found::kBroken) return "";
  return "has " + Describe(content) + ", not " + Describe(expected.old) + " or " +
         Describe(expected.now);
}

std::string Successor::CheckNextSave() {
  static const Content next = ContentOf("900001-900003x100");
  const std::unique_ptr<CacheFile> file = CacheFile::Create(kind_);
  if (!file->Open(PathIn(folder_.path(), kind_))) return "cannot be opened again";
  file->Load();
  if (!file->Save(next)) return "cannot be saved to";
  file->Close();
  if (!file->Open(PathIn(folder_.path(), kind_))) return "cannot be opened after the next save";
  const Content content = file->Load();
  return content == next ? "" : "has " + Describe(content) + " after the next save";
}

bool IsFullRun() {
  const char* const value = std::getenv("QUENOR_CRASH_FULL");
  return value != nullptr && std::string(value) == "1";
}

unsigned Seed() {
  const char* const chosen = std::getenv("QUENOR_CRASH_SEED");
  const unsigned seed = chosen != nullptr ? static_cast<unsigned>(std::strtoul(chosen, nullptr, 10))
                                          : std::random_device()();
  std::printf("QUENOR_CRASH_SEED=%u\n", seed);
  return seed;
}

}  // namespace quenor::test
