// DamageBench: opens damaged copies of one file, and holds what comes back against what is intact
// in the bytes. Counts over all copies; says what the first fault was.
// Threads: one.
#ifndef QUENOR_TESTS_CACHE_DAMAGE_BENCH_H_
#define QUENOR_TESTS_CACHE_DAMAGE_BENCH_H_

#include <cstdint>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "tests/cache/support/cache_files.h"
#include "tests/support/temp_folder.h"

namespace quenor::test {

// A kind of cache file, as the bench sees it.
struct FileKind {
  const char* name;
  Packets (*load)(const std::string& path);
  // Where an image holds a packet: the bytes that make it what it is, in one or more ranges.
  std::vector<std::vector<StoredPacket>> (*find)(const std::string& image,
                                                 const std::string& packet);
  // No owner ever wrote to it, as far as its bytes tell.
  bool (*looks_unused)(const std::string& image);
  // A file that is cut off is what a kill in the middle of a save leaves.
  bool a_cut_is_no_damage;
};
extern const FileKind kMappedKind;
extern const FileKind kPlainKind;

class DamageBench {
 public:
  // `content` is what `image` holds, no packet twice; `former` was in it once.
  DamageBench(const FileKind& kind, std::string image, Packets content, Packets former);

  // Opens a file of these bytes twice. An intact packet must come back, nothing else may that was
  // never saved; what is lost makes the file be set aside, and the second Open() finds the same and
  // has nothing to complain about.
  void Try(const std::string& damaged, const std::string& what);

  const std::string& image() const { return image_; }
  const std::string& fault() const { return fault_; }  // The first one; empty: none.
  uint64_t cases() const { return cases_; }
  // One line of counts.
  friend std::ostream& operator<<(std::ostream& out, const DamageBench& bench);

 private:
  void Fault(const std::string& what, const std::string& fault, const Packets& found);
  bool IsIntact(size_t packet, const std::string& damaged) const;

  const FileKind& kind_;
  const std::string image_;
  const Packets content_;
  std::set<std::string> ever_saved_;
  std::vector<std::vector<std::vector<StoredPacket>>> places_;  // Of each packet's copies.
  TempFolder folder_;
  const std::string path_ = folder_.File("damaged");

  uint64_t cases_ = 0;
  uint64_t unnoticed_ = 0;  // Nothing was lost, and the file is used as it is.
  uint64_t repaired_ = 0;
  uint64_t packets_destroyed_ = 0;
  uint64_t packets_intact_ = 0;
  uint64_t intact_lost_ = 0;
  uint64_t lost_unnoticed_ = 0;     // Cases.
  uint64_t came_back_dropped_ = 0;  // Packets that a completed save had dropped.
  uint64_t came_back_twice_ = 0;
  uint64_t out_of_order_ = 0;  // Cases.
  std::string fault_;
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_CACHE_DAMAGE_BENCH_H_
