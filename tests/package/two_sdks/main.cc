// A process with two SDKs. main FIRST SECOND opens them; linked with -DLINKED against sdk_a and
// sdk_b it needs no arguments. Says what the two share, which has to be nothing.
#include <dlfcn.h>

#include <cstdio>
#include <string>

#ifdef LINKED
#define DECLARE(sdk)                                         \
  extern "C" int sdk##_start(const char*, const char*, int); \
  extern "C" int sdk##_own_events();                         \
  extern "C" int sdk##_foreign_events();                     \
  extern "C" int sdk##_lines();                              \
  extern "C" int sdk##_stop();
DECLARE(sdk_a)
DECLARE(sdk_b)
#endif

struct Sdk {
  int (*start)(const char*, const char*, int);
  int (*own_events)();
  int (*foreign_events)();
  int (*lines)();
  int (*stop)();
};

#ifndef LINKED
Sdk Open(const char* path, const std::string& name) {
  void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) std::printf("cannot open: %s\n", dlerror());
  const auto find = [&](const char* what, auto* to) {
    *to = reinterpret_cast<std::remove_pointer_t<decltype(to)>>(
        dlsym(library, (name + what).c_str()));
  };
  Sdk sdk;
  find("_start", &sdk.start);
  find("_own_events", &sdk.own_events);
  find("_foreign_events", &sdk.foreign_events);
  find("_lines", &sdk.lines);
  find("_stop", &sdk.stop);
  return sdk;
}
#endif

int failures = 0;
void Expect(const char* what, int value, int wanted) {
  if (value == wanted) return;
  ++failures;
  std::printf("%s: %d, not %d\n", what, value, wanted);
}

int main(int, char** arguments) {
#ifdef LINKED
  const Sdk a{sdk_a_start, sdk_a_own_events, sdk_a_foreign_events, sdk_a_lines, sdk_a_stop};
  const Sdk b{sdk_b_start, sdk_b_own_events, sdk_b_foreign_events, sdk_b_lines, sdk_b_stop};
#else
  const Sdk a = Open(arguments[1], "sdk_a");
  const Sdk b = Open(arguments[2], "sdk_b");
#endif
  (void)arguments;
  Expect("a starts", a.start("a", "/proc/self/cwd/folder_a", 1), 0);
  Expect("b starts", b.start("b", "/proc/self/cwd/folder_b", 2), 0);
  Expect("a drains while b is at work", a.stop(), 1);
  const int seen = b.own_events();
  Expect("b drains", b.stop(), 1);
  Expect("b's events after a took its listener back", b.own_events() >= seen && seen > 0, 1);
  Expect("a's own events", a.own_events(), 2);
  Expect("b's own events", b.own_events(), 2);
  Expect("a's events of b", a.foreign_events(), 0);
  Expect("b's events of a", b.foreign_events(), 0);
  Expect("a's lines", a.lines(), 2);  // The refusal, and the load of the cache.
  Expect("b's lines", b.lines(), 2);
  return failures != 0;
}
