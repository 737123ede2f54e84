// The bytes on the disk are the documented ones: docs/formats/mmap-file.md.
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include "tests/unit/cache/mmap/mmap_file_fixture.h"

namespace quenor::test {
namespace {

std::string WholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class MmapFileFormatTest : public MmapFileTest {
 protected:
  // The lines "00000040  71 75 65  text" of the page, in the order of their offsets; zeros between
  // them and up to the last, which names the length and no byte.
  static std::string DocumentedExample() {
    std::ifstream page(std::string(QUENOR_SOURCE_DIR) + "/docs/formats/mmap-file.md");
    std::string bytes;
    for (std::string line; std::getline(page, line);) {
      if (line.size() < 10 || line.compare(5, 2, "  ") != 0 || std::isxdigit(line[0]) == 0)
        continue;
      const size_t offset = std::strtoul(line.substr(0, 5).c_str(), nullptr, 16);
      EXPECT_GE(offset, bytes.size()) << line;
      bytes.resize(offset);
      for (size_t at = 7; at + 2 <= line.size() && std::isxdigit(line[at]) != 0; at += 3) {
        bytes += static_cast<char>(std::strtoul(line.substr(at, 2).c_str(), nullptr, 16));
      }
    }
    return bytes;
  }
  void WriteExample() { std::ofstream(path_, std::ios::binary) << DocumentedExample(); }
};

// Where two contents differ first, in a text that can be read.
std::string FirstDifference(const std::string& a, const std::string& b) {
  size_t at = 0;
  while (at < a.size() && at < b.size() && a[at] == b[at]) ++at;
  if (at == a.size() && at == b.size()) return std::string();
  std::ostringstream text;
  text << "at " << std::hex << at << " of " << a.size() << " and " << b.size() << " bytes";
  return text.str();
}

TEST_F(MmapFileFormatTest, TheDocumentedExampleIsWhatIsWritten) {
  {
    MultiProcessSafetyMmapFile file;
    ASSERT_TRUE(OpenFile(file, path_));
    ASSERT_TRUE(Save(file, {"hi"}));
    ASSERT_TRUE(Save(file, {"hi", "you!"}));
  }

  ASSERT_FALSE(DocumentedExample().empty());
  EXPECT_EQ(FirstDifference(WholeFile(path_), DocumentedExample()), "");
}

TEST_F(MmapFileFormatTest, AFileOfVersionOneIsRead) {
  WriteExample();

  EXPECT_EQ(LoadMapped(path_), (Packets{"hi", "you!"}));
  EXPECT_EQ(LinesWith(2, "cache:"), 0);
  EXPECT_FALSE(Exists(SetAside(path_)));
}

TEST_F(MmapFileFormatTest, AFileOfVersionOneIsSavedIn) {
  WriteExample();

  Leave({"you!", "three"});

  EXPECT_EQ(LoadMapped(path_), (Packets{"you!", "three"}));
  EXPECT_FALSE(Exists(SetAside(path_)));
}

}  // namespace
}  // namespace quenor::test
