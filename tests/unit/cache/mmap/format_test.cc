// The bytes on the disk are the documented ones: docs/formats/mmap-file.md.
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>
#include <vector>

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

TEST_F(MmapFileFormatTest, AFileOfThisVersionIsRead) {
  WriteExample();

  EXPECT_EQ(LoadMapped(path_), (Packets{"hi", "you!"}));
  EXPECT_EQ(LinesWith(2, "cache:"), 0);
  EXPECT_FALSE(Exists(SetAside(path_)));
}

TEST_F(MmapFileFormatTest, AFileOfThisVersionIsSavedIn) {
  WriteExample();

  Leave({"you!", "three"});

  EXPECT_EQ(LoadMapped(path_), (Packets{"you!", "three"}));
  EXPECT_FALSE(Exists(SetAside(path_)));
}

// The saves ("hi") and ("hi", "you!") as that version wrote them: the second in its area 1, the
// first one's packet marked as dropped.
TEST_F(MmapFileFormatTest, AFileOfVersionOneGivesItsPackets) {
  const std::pair<size_t, std::vector<uint64_t>> parts[] = {
      {0x0, {0x1a4d726f6e657571, 0x400000000001, 0x3f00000100, 0x25a5766d079c6e90, 5}},
      {0x100, {4, 0, 0x4000, 0x4000, 2, 0x100, 2, 0x33a3cb1b6445ef85, 0x1c15de516d524af3}},
      {0x148, {3, 0, 0x4000, 0x4000, 2, 0x100000100, 1, 0x87c8142f24037c78, 0xb2b03db04de4c444}},
      {0x4000, {0x1a58726f6e657571, 0x10000000001, 0x4000, 2, 0x303e02e9b068a2f}},
      {0x4028, {0x657375206e697c21, 0, 0, 0x2820, 0x2840}},
      {0x5040, {0x444145441a504e51, 0x861ec06a00000002, 0x2a2300bbd7ea6e9a, 0x6968}},
      {0x6820, {0x4556494c1a504e51, 0x861ec06a00000002, 0x2a2300bbd7ea6e9a, 0x6968}},
      {0x6840, {0x4556494c1a504e51, 0xb80b6dc100000004, 0x14f2a0886f1c1cb1, 0x21756f79}},
  };
  std::string bytes(0x8000, '\0');
  for (const auto& [at, words] : parts) {
    std::memcpy(&bytes[at], words.data(), words.size() * sizeof words[0]);
  }
  ASSERT_TRUE(WriteWholeFile(path_, bytes));

  EXPECT_EQ(LoadMapped(path_), (Packets{"hi", "you!"}));
  EXPECT_TRUE(Exists(SetAside(path_)));
  EXPECT_EQ(LinesWith(2, "its 2 intact packets are kept"), 1);
}

}  // namespace
}  // namespace quenor::test
