// FakePaths: the path service while quenor_fake_path_service is linked: folders in memory, failures
// on demand. Threads: any. Life cycle: process-wide, never destroyed; a test begins with Clear().
#ifndef QUENOR_TESTS_SUPPORT_FAKES_FAKE_PATH_SERVICE_H_
#define QUENOR_TESTS_SUPPORT_FAKES_FAKE_PATH_SERVICE_H_

#include <string>
#include <vector>

namespace quenor::test {

class FakePaths {
 public:
  // What PathService::Get() answers for DIR_RELIABLE_REPORT unless it is overridden or fails.
  static constexpr char kReports[] = "/reports";

  // Nothing exists, nothing fails, nothing is overridden.
  static void Clear();
  // Something exists at the path from now on.
  static void Add(const std::string& path);
  static void FailGet(bool fail);
  static void FailCreate(bool fail);

  // The keys that Get() was asked for, and the folders that CreateDirectory() was asked for.
  static std::vector<int> Asked();
  static std::vector<std::string> Created();
};

}  // namespace quenor::test

#endif  // QUENOR_TESTS_SUPPORT_FAKES_FAKE_PATH_SERVICE_H_
