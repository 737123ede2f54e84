#include "tests/support/fakes/fake_path_service.h"

#include <mutex>
#include <set>

#include "quenor_base/platform/base/file_path.h"
#include "quenor_base/platform/base/path_service.h"
#include "tests/support/mutex_held_at_fork.h"

namespace quenor::test {

namespace {

struct State {
  MutexHeldAtFork mutex;
  std::set<std::string> existing;
  std::string override_path;
  bool get_fails = false;
  bool create_fails = false;
  std::vector<int> asked;
  std::vector<std::string> created;
};

State& TheState() {
  static auto* const state = new State;
  return *state;
}

}  // namespace

void FakePaths::Clear() {
  State& state = TheState();
  std::lock_guard<std::mutex> hold(state.mutex);
  state.existing.clear();
  state.override_path.clear();
  state.get_fails = state.create_fails = false;
  state.asked.clear();
  state.created.clear();
}

void FakePaths::Add(const std::string& path) {
  std::lock_guard<std::mutex> hold(TheState().mutex);
  TheState().existing.insert(path);
}

void FakePaths::FailGet(bool fail) {
  std::lock_guard<std::mutex> hold(TheState().mutex);
  TheState().get_fails = fail;
}

void FakePaths::FailCreate(bool fail) {
  std::lock_guard<std::mutex> hold(TheState().mutex);
  TheState().create_fails = fail;
}

std::vector<int> FakePaths::Asked() {
  std::lock_guard<std::mutex> hold(TheState().mutex);
  return TheState().asked;
}

std::vector<std::string> FakePaths::Created() {
  std::lock_guard<std::mutex> hold(TheState().mutex);
  return TheState().created;
}

}  // namespace quenor::test

QUENOR_NAMESPACE_BEGIN
namespace base {

bool PathExists(const FilePath& path) {
  std::lock_guard<std::mutex> hold(test::TheState().mutex);
  return test::TheState().existing.count(path.value()) > 0;
}

bool CreateDirectory(const FilePath& path) {
  test::State& state = test::TheState();
  std::lock_guard<std::mutex> hold(state.mutex);
  state.created.push_back(path.value());
  if (state.create_fails) return false;
  state.existing.insert(path.value());
  return true;
}

bool PathService::Get(int key, FilePath* out) {
  test::State& state = test::TheState();
  std::lock_guard<std::mutex> hold(state.mutex);
  state.asked.push_back(key);
  if (state.get_fails || key != DIR_RELIABLE_REPORT) return false;
  *out = FilePath(state.override_path.empty() ? test::FakePaths::kReports : state.override_path);
  return true;
}

bool PathService::Override(int key, const FilePath& path) {
  if (key != DIR_RELIABLE_REPORT || (!path.empty() && path.value()[0] != '/')) return false;
  std::lock_guard<std::mutex> hold(test::TheState().mutex);
  test::TheState().override_path = path.value();
  return true;
}

const char* PathService::ImplementationName() { return "fake"; }

}  // namespace base
QUENOR_NAMESPACE_END
