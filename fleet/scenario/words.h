// Words: one line of a scenario, word by word, and what each must be.
#ifndef FLEET_SCENARIO_WORDS_H_
#define FLEET_SCENARIO_WORDS_H_

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace quenor::fleet {

// A scenario that cannot be meant, or cannot be read. what() says where, which word and what was
// expected instead.
class ScenarioError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Words {
 public:
  // `place` is what an error begins with. A '#' and what follows it is no word. A ':' at the end of
  // a word is a word of its own.
  Words(std::string place, const std::string& line);

  bool empty() const { return next_ == words_.size(); }
  const std::string& place() const { return place_; }
  // The rest of the line, as it is written.
  std::string Rest() const;

  // True, and taken, when that is the next one.
  bool Take(const char* word);
  // Any one.
  std::string Next(const char* expected);
  // Exactly that one.
  void Must(const char* word);
  // Fails unless it was the last.
  void End();

  // 12, 0.5; not below `least`, not above `most`.
  double Number(const char* expected, double least, double most);
  uint32_t Whole(const char* expected, double least, double most);
  // 5%, as 0.05.
  double Part(const char* expected);
  // 100ms, 60s, 10min, 1h: in microseconds.
  int64_t Time(const char* expected);
  // LOW..HIGH, or one value for both, each as `read` reads it.
  std::pair<int64_t, int64_t> TimeRange(const char* expected);
  std::pair<uint32_t, uint32_t> WholeRange(const char* expected, double least, double most);

  // About the word that was taken last.
  [[noreturn]] void Fail(const std::string& expected) const;

 private:
  std::string place_;
  std::vector<std::string> words_;
  size_t next_ = 0;
};

}  // namespace quenor::fleet

#endif  // FLEET_SCENARIO_WORDS_H_
