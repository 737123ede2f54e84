#include "cli/send/input.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/temp_folder.h"

namespace quenor::cli {
namespace {

using NamesAndBytes = std::vector<std::pair<std::string, std::string>>;

// A pipe whose ends never block.
class Pipe {
 public:
  Pipe() {
    if (::pipe2(fds_, O_CLOEXEC | O_NONBLOCK) != 0) std::abort();
  }
  ~Pipe() {
    ::close(fds_[0]);
    CloseWriter();
  }

  int reader() const { return fds_[0]; }

  // Writes what fits and answers how much that was.
  size_t Write(const std::string& text) {
    const ssize_t written = ::write(fds_[1], text.data(), text.size());
    return written > 0 ? static_cast<size_t>(written) : 0;
  }

  void CloseWriter() {
    if (fds_[1] >= 0) ::close(fds_[1]);
    fds_[1] = -1;
  }

 private:
  int fds_[2];
};

class InputFolder : public test::TempFolder {
 public:
  std::string Write(const std::string& name, const std::string& content) const {
    EXPECT_TRUE(test::WriteWholeFile(File(name), content));
    return File(name);
  }
};

// Everything that is there at once; ends at kEnd or kWouldBlock.
NamesAndBytes TakeAll(Input* input, Input::Result* result) {
  NamesAndBytes messages;
  Message message;
  while ((*result = input->Next(&message)) == Input::Result::kMessage) {
    messages.emplace_back(message.name, message.bytes);
  }
  return messages;
}

NamesAndBytes Lines(const std::string& text) {
  Pipe pipe;
  EXPECT_EQ(text.size(), pipe.Write(text));
  pipe.CloseWriter();
  LineInput input(pipe.reader(), "standard input");
  Input::Result result;
  NamesAndBytes messages = TakeAll(&input, &result);
  EXPECT_EQ(Input::Result::kEnd, result);
  return messages;
}

std::string ErrorOf(Input* input) {
  Message message;
  try {
    while (input->Next(&message) == Input::Result::kMessage) {
    }
    return "";
  } catch (const InputError& error) {
    return error.what();
  }
}

TEST(LineInputTest, AnEmptyInputHasNoMessage) { EXPECT_EQ(NamesAndBytes(), Lines("")); }

TEST(LineInputTest, NumbersLinesFromOne) {
  EXPECT_EQ((NamesAndBytes{{"line 1", "a"}, {"line 2", "b"}}), Lines("a\nb\n"));
}

TEST(LineInputTest, GivesScriptsTheNumberAlone) {
  Pipe pipe;
  pipe.Write("a\n");
  LineInput input(pipe.reader(), "standard input");
  Message message;
  ASSERT_EQ(Input::Result::kMessage, input.Next(&message));

  EXPECT_EQ("1", message.id);
}

TEST(LineInputTest, ALastLineWithoutLineEndIsAMessage) {
  EXPECT_EQ((NamesAndBytes{{"line 1", "a"}, {"line 2", "b"}}), Lines("a\nb"));
}

TEST(LineInputTest, AnEmptyLineIsAnEmptyMessage) {
  EXPECT_EQ((NamesAndBytes{{"line 1", ""}, {"line 2", ""}, {"line 3", "x"}}), Lines("\n\nx"));
}

TEST(LineInputTest, KeepsCarriageReturnsAndNulBytes) {
  const std::string nul("\0a\0", 3);
  EXPECT_EQ((NamesAndBytes{{"line 1", "a\r"}, {"line 2", nul}, {"line 3", "\r"}}),
            Lines("a\r\n" + nul + "\n\r"));
}

TEST(LineInputTest, KeepsEveryByteButTheLineEnd) {
  std::string all;
  for (int byte = 0; byte < 256; ++byte) {
    if (byte != '\n') all += static_cast<char>(byte);
  }
  EXPECT_EQ((NamesAndBytes{{"line 1", all}}), Lines(all + "\n"));
}

TEST(LineInputTest, TakesALineThatIsLargerThanThePipe) {
  const std::string line(383 << 10, 'x');
  const std::string text = "first\n" + line + "\nlast";
  Pipe pipe;
  LineInput input(pipe.reader(), "standard input");
  NamesAndBytes messages;
  Input::Result result = Input::Result::kWouldBlock;

  for (size_t written = 0; written < text.size();) {
    written += pipe.Write(text.substr(written));
    for (auto& message : TakeAll(&input, &result)) messages.push_back(std::move(message));
  }
  pipe.CloseWriter();
  for (auto& message : TakeAll(&input, &result)) messages.push_back(std::move(message));

  EXPECT_EQ((NamesAndBytes{{"line 1", "first"}, {"line 2", line}, {"line 3", "last"}}), messages);
}

TEST(LineInputTest, WouldBlockUntilALineIsWhole) {
  Pipe pipe;
  LineInput input(pipe.reader(), "standard input");
  Message message;

  EXPECT_EQ(Input::Result::kWouldBlock, input.Next(&message));
  pipe.Write("ha");
  EXPECT_EQ(Input::Result::kWouldBlock, input.Next(&message));
  pipe.Write("lf\n");
  EXPECT_EQ(Input::Result::kMessage, input.Next(&message));

  EXPECT_EQ("half", message.bytes);
  EXPECT_EQ(pipe.reader(), input.fd());
}

TEST(LineInputTest, TakesNoMoreFromAnEndlessPipeThanItIsAskedFor) {
  Pipe pipe;
  LineInput input(pipe.reader(), "standard input");
  const std::string flood(1 << 20, '\n');
  Message message;
  const size_t pipe_bytes = pipe.Write(flood);
  size_t offered = pipe_bytes;

  for (int taken = 0; taken < 1000; ++taken) {
    ASSERT_EQ(Input::Result::kMessage, input.Next(&message));
    offered += pipe.Write(flood);
  }

  const size_t one_read = 64 << 10;
  EXPECT_LE(offered, pipe_bytes + one_read);
  EXPECT_EQ("line 1000", message.name);
}

TEST(LineInputTest, RefusesALineThatNeverEnds) {
  const int zeros = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);
  LineInput input(zeros, "standard input");

  const std::string error = ErrorOf(&input);

  ::close(zeros);
  EXPECT_EQ("cannot read line 1: it is longer than 64 MiB, the most that one message may have",
            error);
}

TEST(LineInputTest, NamesAnInputThatFails) {
  InputFolder folder;
  const int fd = ::open(folder.path().c_str(), O_RDONLY | O_CLOEXEC);
  LineInput input(fd, "standard input");

  const std::string error = ErrorOf(&input);

  ::close(fd);
  EXPECT_EQ("cannot read standard input: Is a directory", error);
}

TEST(FileInputTest, EachFileWholeIsAMessage) {
  InputFolder folder;
  const std::string bytes("\0\n\xff\r\n", 5);
  const std::string a = folder.Write("a", bytes);
  const std::string b = folder.Write("b", "");
  FileInput input({a, b, a});
  Input::Result result;

  const NamesAndBytes messages = TakeAll(&input, &result);

  EXPECT_EQ((NamesAndBytes{{a, bytes}, {b, ""}, {a, bytes}}), messages);
  EXPECT_EQ(Input::Result::kEnd, result);
}

TEST(FileInputTest, GivesScriptsTheNameOfTheFile) {
  InputFolder folder;
  const std::string a = folder.Write("a", "1");
  FileInput input({a});
  Message message;
  ASSERT_EQ(Input::Result::kMessage, input.Next(&message));

  EXPECT_EQ(a, message.id);
}

TEST(FileInputTest, WaitsForANamedPipeWithoutBlocking) {
  InputFolder folder;
  const std::string path = folder.File("pipe");
  ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
  FileInput input({path});
  Message message;

  EXPECT_EQ(Input::Result::kWouldBlock, input.Next(&message));
  const int writer = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(writer, 0);
  ASSERT_EQ(4, ::write(writer, "a\nb\n", 4));
  EXPECT_EQ(Input::Result::kWouldBlock, input.Next(&message));
  ::close(writer);
  EXPECT_EQ(Input::Result::kMessage, input.Next(&message));

  EXPECT_EQ("a\nb\n", message.bytes);
}

TEST(FileInputTest, NamesAFileThatHasVanished) {
  InputFolder folder;
  const std::string a = folder.Write("a", "1");
  const std::string b = folder.Write("b", "2");
  EXPECT_NO_THROW(CheckFiles({a, b}));
  ::unlink(b.c_str());
  FileInput input({a, b});

  EXPECT_EQ("cannot read " + b + ": No such file or directory", ErrorOf(&input));
}

TEST(FileInputTest, RefusesAFileThatNeverEnds) {
  FileInput input({"/dev/zero"});

  EXPECT_EQ("cannot read /dev/zero: it is longer than 64 MiB, the most that one message may have",
            ErrorOf(&input));
}

TEST(CheckFilesTest, NamesTheFirstThatCannotBeRead) {
  InputFolder folder;
  const std::string good = folder.Write("good", "x");
  const std::string huge = folder.Write("huge", "");
  ASSERT_EQ(0, ::truncate(huge.c_str(), off_t{kMaxMessageBytes} + 1));
  const auto error_of = [](const std::vector<std::string>& paths) -> std::string {
    try {
      CheckFiles(paths);
      return "";
    } catch (const InputError& error) {
      return error.what();
    }
  };

  EXPECT_EQ("", error_of({good, good}));
  EXPECT_EQ("cannot read /no\\x0afile: No such file or directory", error_of({good, "/no\nfile"}));
  EXPECT_EQ("cannot read " + folder.path() + ": Is a directory", error_of({folder.path()}));
  EXPECT_EQ("cannot read : No such file or directory", error_of({""}));
  EXPECT_NE(std::string::npos, error_of({huge}).find("64 MiB"));
}

}  // namespace
}  // namespace quenor::cli
