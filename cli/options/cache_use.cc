#include "cli/options/cache_use.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "cli/fatal.h"
#include "cli/text.h"
#include "quenor_base/platform/base/file_path.h"
#include "quenor_base/platform/base/path_service.h"
#include "quenor_base/platform/config_center.h"

namespace quenor::cli {
namespace {

constexpr char kFolderName[] = "quenor_report";

[[noreturn]] void RefuseFolder(const std::string& path, const std::string& reason) {
  throw Fatal(kExitUsage, "cannot use the folder \"" + Printable(path) + "\" for the cache: " +
                              reason + "; give --cache-dir a folder that this user may write to");
}

// The folder itself, or the nearest one above it, which it would be made in.
std::filesystem::path NearestThatExists(std::filesystem::path path) {
  struct stat status;
  while (::stat(path.c_str(), &status) != 0 && (errno == ENOENT) && path.has_relative_path()) {
    path = path.parent_path();
  }
  return path;
}

CacheKind KindInForce() {
  constexpr auto kDefault = static_cast<uint64_t>(CacheKind::kMmap);
  const base::Optional<uint64_t> value =
      config::ConfigCenterImpl::GetInstance()->GetValueWithPriority(config::BaseCfg().cache_option,
                                                                    kDefault);
  // The low 32 bits count, as for the channel.
  return static_cast<CacheKind>(static_cast<uint32_t>(value.value_or(kDefault)));
}

const char* Suffix(CacheKind kind) {
  switch (kind) {
    case CacheKind::kFile:
      return ".cache";
    case CacheKind::kMmap:
      return ".mmap";
    default:
      return nullptr;
  }
}

}  // namespace

std::string CacheFolder(const std::string& path) {
  if (path.empty()) RefuseFolder(path, "the name is empty");
  std::error_code error;
  const std::filesystem::path whole =
      std::filesystem::weakly_canonical(std::filesystem::absolute(path, error), error);
  if (error) RefuseFolder(path, error.message());
  const std::filesystem::path nearest = NearestThatExists(whole);
  struct stat status;
  if (::stat(nearest.c_str(), &status) != 0) RefuseFolder(path, ErrnoText(errno));
  if (!S_ISDIR(status.st_mode)) {
    RefuseFolder(path, Printable(nearest.string()) + ": " + ErrnoText(ENOTDIR));
  }
  if (::access(nearest.c_str(), W_OK | X_OK) != 0) {
    RefuseFolder(path, Printable(nearest.string()) + ": " + ErrnoText(errno));
  }
  return whole.string();
}

CacheUse ApplyCache(const Options& options) {
  if (options.cache) {
    config::ConfigCenterImpl::GetInstance()->SetHostOverride(config::BaseCfg().cache_option,
                                                             static_cast<uint64_t>(*options.cache));
  }
  if (options.cache_dir &&
      !base::PathService::Override(base::DIR_RELIABLE_REPORT, base::FilePath(*options.cache_dir))) {
    RefuseFolder(*options.cache_dir, "it is no absolute path");
  }
  CacheUse use;
  use.kind = KindInForce();
  base::FilePath folder;
  const char* const suffix = Suffix(use.kind);
  if (suffix != nullptr && base::PathService::Get(base::DIR_RELIABLE_REPORT, &folder)) {
    use.file = folder.AppendASCII(kFolderName).AppendASCII(options.channel + suffix).value();
  }
  return use;
}

std::string CacheFailedLine(const CacheUse& cache) {
  std::string line = "the cache" + (cache.file.empty() ? "" : " " + Printable(cache.file)) +
                     " could not be opened: this run keeps its messages in memory only, and "
                     "what an earlier run left in the cache stays there";
  if (cache.kind == CacheKind::kFile) {
    line +=
        "; if another run has it open, give each a --channel of its own, or share with "
        "--cache mmap";
  }
  return line;
}

}  // namespace quenor::cli
