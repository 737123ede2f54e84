// The bytes on the disk are the documented ones, and the reader tells what it saw in them.
#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <sstream>

#include "services/cache_file_posix/format.h"
#include "services/cache_file_posix/reader.h"
#include "tests/unit/cache/plain/plain_file_fixture.h"

namespace quenor::test {
namespace {

using cache_file::Content;

class CacheFileFormatTest : public CacheFileTest {
 protected:
  // The lines "0040  71 75 65  text" of the page, in the order of their offsets.
  static std::string DocumentedExample() {
    std::istringstream page(
        ReadWholeFile(std::string(QUENOR_SOURCE_DIR) + "/docs/formats/cache-file.md"));
    std::string bytes;
    for (std::string line; std::getline(page, line);) {
      if (line.size() < 8 || line.compare(4, 2, "  ") != 0 || std::isxdigit(line[0]) == 0) continue;
      char* end = nullptr;
      EXPECT_EQ(std::strtoul(line.substr(0, 4).c_str(), &end, 16), bytes.size()) << line;
      for (size_t at = 6; at + 2 <= line.size() && line[at] != ' '; at += 3) {
        bytes += static_cast<char>(std::strtoul(line.substr(at, 2).c_str(), &end, 16));
      }
    }
    return bytes;
  }
  void ReadInto(Content* content) {
    const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(cache_file::ReadContent(fd, 1, content), cache_file::ReadResult::kOk);
    close(fd);
  }
};

TEST_F(CacheFileFormatTest, TheDocumentedExampleIsWhatIsWritten) {
  ReliableReportCacheFile file;
  ASSERT_TRUE(OpenFile(file, path_));
  ASSERT_TRUE(SaveUnasked(file, {"hi"}));
  ASSERT_TRUE(SaveUnasked(file, {"hi", "you!"}));
  file.Close();

  EXPECT_FALSE(DocumentedExample().empty());
  EXPECT_EQ(Bytes(), DocumentedExample());
}

TEST_F(CacheFileFormatTest, AFileOfVersionOneIsRead) {
  ASSERT_TRUE(WriteWholeFile(path_, DocumentedExample()));

  EXPECT_EQ(Reopened(), (Packets{"hi", "you!"}));
}

TEST_F(CacheFileFormatTest, TheReaderTellsTheCompletedSaveFromWhatCameAfter) {
  {
    ReliableReportCacheFile file;
    ASSERT_TRUE(OpenFile(file, path_));
    ASSERT_TRUE(SaveUnasked(file, {"a", "b"}));
    ASSERT_TRUE(SaveUnasked(file, {"b", "c"}));
    const std::string bytes = Bytes();  // As a kill leaves it.
    file.Close();
    ASSERT_TRUE(WriteWholeFile(path_, bytes));
  }
  Content content;
  ASSERT_NO_FATAL_FAILURE(ReadInto(&content));

  EXPECT_EQ(content.kind, Content::Kind::kOurs);
  EXPECT_EQ(content.version, cache_file::kVersion);
  EXPECT_FALSE(content.damaged);
  EXPECT_TRUE(content.has_tail);
  EXPECT_EQ(content.save_number, 1u);
  EXPECT_EQ(content.last_number, 3u);
  EXPECT_EQ(content.end, SizeOf(path_));
  ASSERT_EQ(content.packets.size(), 3u);
  const std::vector<std::pair<uint64_t, bool>> expected = {{2, true}, {3, false}, {1, true}};
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(content.packets[i].number, expected[i].first);
    EXPECT_EQ(content.packets[i].sealed, expected[i].second);
    EXPECT_EQ(content.packets[i].size, 1u);
  }
}

TEST_F(CacheFileFormatTest, TheReaderCountsWhatIsMissing) {
  Leave({"aaa", "bbb", "ccc"});
  std::string bytes = Bytes();
  bytes[bytes.find("aaa")] ^= 1;                                  // The body of one
  bytes[bytes.find("bbb") - cache_file::kRecordHeaderSize] ^= 1;  // and the header of another.
  ASSERT_TRUE(WriteWholeFile(path_, bytes));
  Content content;
  ASSERT_NO_FATAL_FAILURE(ReadInto(&content));

  EXPECT_TRUE(content.damaged);
  EXPECT_STREQ(content.damage, "damaged packet at byte 32");
  EXPECT_EQ(content.damaged_packets, 2u);
  ASSERT_EQ(content.packets.size(), 1u);
  EXPECT_EQ(content.packets[0].number, 3u);
}

TEST_F(CacheFileFormatTest, TheReaderNamesTheKindOfFile) {
  const std::vector<std::pair<std::string, Content::Kind>> cases = {
      {"", Content::Kind::kNew},
      {DocumentedExample().substr(0, 20), Content::Kind::kNew},
      {DocumentedExample().substr(0, 32), Content::Kind::kOurs},
      {std::string(32, 'x') + DocumentedExample().substr(32), Content::Kind::kOurs},
      {"x", Content::Kind::kForeign},
      {std::string(1000, 'x'), Content::Kind::kForeign},
  };
  for (const auto& [bytes, kind] : cases) {
    ASSERT_TRUE(WriteWholeFile(path_, bytes));
    Content content;
    ASSERT_NO_FATAL_FAILURE(ReadInto(&content));

    EXPECT_EQ(content.kind, kind) << bytes.size();
  }
}

}  // namespace
}  // namespace quenor::test
