#include "cli/cache/command.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "cli/text.h"
#include "quenor_base/platform/cache_file_inspector.h"

namespace quenor::cli {
namespace {

using Owner = CacheFileInspector::Owner;
using Result = CacheFileInspector::Result;

struct Packet {
  uint32_t owner;
  uint32_t index;  // Among the owner's, from 1.
  std::string bytes;
};

// What a file holds, taken whole.
struct Content : public CacheFileInspector::Visitor {
  explicit Content(bool take_packets) : with_packets(take_packets) {}

  void OnOwner(const Owner& owner) override {
    owners.push_back(owner);
    packet_count += owner.packets;
    byte_count += owner.bytes;
    damaged_count += owner.damaged_packets;
    index = 0;
  }
  void OnPacket(const Owner& owner, const uint8_t* data, uint32_t size) override {
    if (!with_packets) return;
    packets.push_back({owner.number, ++index, {reinterpret_cast<const char*>(data), size}});
  }

  const bool with_packets;
  CacheFileInspector::Summary summary;
  std::vector<Owner> owners;
  std::vector<Packet> packets;
  uint64_t packet_count = 0;
  uint64_t byte_count = 0;
  uint64_t damaged_count = 0;
  uint32_t index = 0;  // Of the last packet of the last owner.
};

ExitCode ExitCodeOf(Result result) {
  switch (result) {
    case Result::kOk:
      return kExitOk;
    case Result::kNotFound:
      return kExitNoInput;
    case Result::kNotOurs:
      return kExitUnreadable;
    case Result::kInUse:
      return kExitTempFail;
    default:
      return kExitIo;
  }
}

void Check(Result result, const std::string& error) {
  if (result != Result::kOk) throw Fatal(ExitCodeOf(result), Printable(error));
}

// Absolute and without ".."; the last component stays as it is, be it a link.
base::FilePath PathOf(const CacheCommand& command) {
  std::error_code error;
  const std::filesystem::path given = std::filesystem::absolute(command.file, error);
  if (error || !given.has_filename()) return base::FilePath(command.file);
  const std::filesystem::path folder =
      std::filesystem::weakly_canonical(given.parent_path(), error);
  return base::FilePath(error ? given.string() : (folder / given.filename()).string());
}

Content Read(const CacheCommand& command, bool with_packets) {
  Content content(with_packets);
  std::string error;
  Check(CacheFileInspector::Inspect(PathOf(command), &content, &content.summary, &error), error);
  return content;
}

void Write(int fd, const std::string& text, const std::string& name) {
  if (WriteAll(fd, text)) return;
  const int error = errno;
  throw Fatal(kExitIo, "cannot write to " + name + ": " + ErrnoText(error));
}

void WriteOut(int fd, const std::string& text) { Write(fd, text, "standard output"); }

const char* YesNo(bool value) { return value ? "yes" : "no"; }

std::string OwnerLine(const Owner& owner) {
  return "owner=" + std::to_string(owner.number) + " live=" + YesNo(owner.live) +
         " save=" + std::to_string(owner.save_number) +
         " packets=" + std::to_string(owner.packets) + " bytes=" + std::to_string(owner.bytes) +
         " damaged_packets=" + std::to_string(owner.damaged_packets) + "\n";
}

std::string SummaryLine(const Content& content) {
  const CacheFileInspector::Summary& summary = content.summary;
  return std::string("kind=") + (summary.mapped ? "mmap" : "file") +
         " version=" + std::to_string(summary.version) +
         " owners=" + std::to_string(content.owners.size()) +
         " packets=" + std::to_string(content.packet_count) +
         " bytes=" + std::to_string(content.byte_count) +
         " damaged_packets=" + std::to_string(content.damaged_count) +
         " file_bytes=" + std::to_string(summary.file_bytes) +
         " damaged=" + YesNo(summary.damaged) + "\n";
}

void RemarkOnDamage(const CacheCommand& command, const Content& content, Console& console) {
  if (!content.summary.damaged) return;
  console.Line(Printable(command.file) + " is damaged: " + Printable(content.summary.damage) +
               "; the next run that opens it repairs it and keeps every intact packet");
}

// Unambiguous, on one line, and harmless to a terminal.
std::string Escaped(const std::string& bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      text += "\\\\";
    } else if (c == '\n') {
      text += "\\n";
    } else if (c == '\t') {
      text += "\\t";
    } else if (byte >= 0x20 && byte < 0x7f) {
      text += c;
    } else {
      char escaped[5];
      std::snprintf(escaped, sizeof(escaped), "\\x%02x", byte);
      text += escaped;
    }
  }
  return text;
}

std::string PacketLine(const Packet& packet) {
  return "owner=" + std::to_string(packet.owner) + " packet=" + std::to_string(packet.index) +
         " bytes=" + std::to_string(packet.bytes.size()) + " text=" + Escaped(packet.bytes) + "\n";
}

// Names that sort in the packets' order.
std::string NameOf(const Packet& packet) {
  char name[64];
  std::snprintf(name, sizeof(name), "owner-%02" PRIu32 "-packet-%06" PRIu32, packet.owner,
                packet.index);
  return name;
}

void WriteNewFile(const std::string& path, const std::string& bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    throw Fatal(kExitIo, "cannot create " + Printable(path) + ": " + ErrnoText(errno) +
                             "; give --raw an empty folder that this user may write to");
  }
  const bool written = WriteAll(fd, bytes);
  const int error = errno;
  const bool closed = ::close(fd) == 0;
  if (written && closed) return;
  throw Fatal(kExitIo, "cannot write to " + Printable(path) + ": " +
                           ErrnoText(written ? errno : error) + "; it is not whole");
}

void WriteRaw(const Content& content, const std::string& folder) {
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    throw Fatal(kExitIo, "cannot create the folder " + Printable(folder) + ": " + ErrnoText(errno));
  }
  for (const Packet& packet : content.packets) {
    WriteNewFile(folder + "/" + NameOf(packet), packet.bytes);
  }
}

ExitCode List(const CacheCommand& command, int out_fd, Console& console) {
  const Content content = Read(command, /*with_packets=*/false);
  std::string text;
  for (const Owner& owner : content.owners) text += OwnerLine(owner);
  WriteOut(out_fd, text + SummaryLine(content));
  RemarkOnDamage(command, content, console);
  return kExitOk;
}

ExitCode Dump(const CacheCommand& command, int out_fd, Console& console) {
  const Content content = Read(command, /*with_packets=*/true);
  if (command.raw && *command.raw != "-") {
    WriteRaw(content, *command.raw);
    WriteOut(out_fd, SummaryLine(content));
  } else {
    for (const Packet& packet : content.packets) {
      WriteOut(out_fd, command.raw ? packet.bytes : PacketLine(packet));
    }
  }
  RemarkOnDamage(command, content, console);
  return kExitOk;
}

ExitCode Verify(const CacheCommand& command, int out_fd, Console& console) {
  const Content content = Read(command, /*with_packets=*/false);
  const bool damaged = content.summary.damaged || content.damaged_count > 0;
  WriteOut(out_fd, (damaged ? "damaged " : "whole ") + SummaryLine(content));
  RemarkOnDamage(command, content, console);
  return damaged ? kExitDamaged : kExitOk;
}

ExitCode Purge(const CacheCommand& command, int out_fd) {
  if (!command.yes) {
    const Content content = Read(command, /*with_packets=*/false);
    throw Fatal(kExitUsage, Printable(command.file) + " holds " +
                                CountOf(content.packet_count, "undelivered message") +
                                "; nothing was removed; add --yes to remove the file for good");
  }
  uint64_t packets = 0;
  std::string error;
  Check(CacheFileInspector::Purge(PathOf(command), &packets, &error), error);
  WriteOut(out_fd, "purged_packets=" + std::to_string(packets) + "\n");
  return kExitOk;
}

}  // namespace

ExitCode RunCacheCommand(const CacheCommand& command, int out_fd, Console& console) {
  switch (command.verb) {
    case CacheCommand::Verb::kList:
      return List(command, out_fd, console);
    case CacheCommand::Verb::kDump:
      return Dump(command, out_fd, console);
    case CacheCommand::Verb::kVerify:
      return Verify(command, out_fd, console);
    default:
      return Purge(command, out_fd);
  }
}

}  // namespace quenor::cli
