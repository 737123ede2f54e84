// The run-time switch of the generated mutants: included first into every source of the copy that
// scripts/generated_mutants.py builds, so that one build holds them all. QUENOR_MUTANT=N switches
// number N on; QUENOR_MUTANTS_REACHED=FILE notes in byte N of that file that number N was executed.
// A source in an older C++ than the library's has none: there this is empty.
#ifndef TESTS_MUTANTS_SWITCH_H_
#define TESTS_MUTANTS_SWITCH_H_
#if __cplusplus >= 201703L

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

namespace quenor_mutants {

inline int on = 0;                        // Written once, before main().
inline unsigned char* reached = nullptr;  // The file, shared with whoever forks or is executed.
inline const bool is_ready = [] {
  if (const char* number = std::getenv("QUENOR_MUTANT")) on = std::atoi(number);
  if (const char* path = std::getenv("QUENOR_MUTANTS_REACHED")) {
    const int file = open(path, O_RDWR | O_CLOEXEC);
    struct stat about {};
    if (file >= 0 && fstat(file, &about) == 0) {
      void* bytes = mmap(nullptr, static_cast<size_t>(about.st_size), PROT_READ | PROT_WRITE,
                         MAP_SHARED, file, 0);
      if (bytes != MAP_FAILED) reached = static_cast<unsigned char*>(bytes);
    }
    if (file >= 0) close(file);
  }
  return true;
}();

inline bool On(int number) {
  if (reached != nullptr) reached[number] = 1;
  return on == number;
}

// `a < Operator<N, Less, LessEqual>() < b` instead of `a < b`, and so with the equalities: the
// place in the expression, and so the precedence, stays.
template <int kNumber, typename Was, typename Becomes>
struct Operator {};
template <typename A, int kNumber, typename Was, typename Becomes>
struct Left {
  A&& a;
};
template <typename A, int kNumber, typename Was, typename Becomes>
Left<A, kNumber, Was, Becomes> operator<(A&& a, Operator<kNumber, Was, Becomes>) {
  return {std::forward<A>(a)};
}
template <typename A, int kNumber, typename Was, typename Becomes>
Left<A, kNumber, Was, Becomes> operator==(A&& a, Operator<kNumber, Was, Becomes>) {
  return {std::forward<A>(a)};
}
template <typename A, int kNumber, typename Was, typename Becomes, typename B>
bool operator<(Left<A, kNumber, Was, Becomes> left, B&& b) {
  return On(kNumber) ? Becomes::Holds(left.a, b) : Was::Holds(left.a, b);
}
template <typename A, int kNumber, typename Was, typename Becomes, typename B>
bool operator==(Left<A, kNumber, Was, Becomes> left, B&& b) {
  return On(kNumber) ? Becomes::Holds(left.a, b) : Was::Holds(left.a, b);
}

#define QUENOR_MUTANTS_RELATION(Name, operation) \
  struct Name {                                  \
    template <typename A, typename B>            \
    static bool Holds(A&& a, B&& b) {            \
      return static_cast<bool>(a operation b);   \
    }                                            \
  };
QUENOR_MUTANTS_RELATION(Less, <)
QUENOR_MUTANTS_RELATION(LessEqual, <=)
QUENOR_MUTANTS_RELATION(Greater, >)
QUENOR_MUTANTS_RELATION(GreaterEqual, >=)
QUENOR_MUTANTS_RELATION(Equal, ==)
QUENOR_MUTANTS_RELATION(NotEqual, !=)
#undef QUENOR_MUTANTS_RELATION

}  // namespace quenor_mutants

#endif  // __cplusplus
#endif  // TESTS_MUTANTS_SWITCH_H_
