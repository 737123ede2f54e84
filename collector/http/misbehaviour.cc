#include "collector/http/misbehaviour.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <optional>

#include "collector/fatal.h"
#include "collector/files.h"
#include "collector/http/answer.h"

namespace quenor::collector {
namespace {

using Setting = Misbehaviour::Setting;

constexpr uint64_t kMaxPauseMs = 86'400'000;
constexpr uint64_t kMaxNumber = uint64_t{1} << 62;

// ---- Values ------------------------------------------------------------------------------------

// A number, which may be followed by one of `units`; without one it counts in the first of them.
using Units = std::vector<std::pair<std::string_view, uint64_t>>;
bool ParseNumber(std::string_view text, uint64_t low, uint64_t high, uint64_t* number,
                 const Units& units = {{"", 1}}) {
  const size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  if (digits == 0 || digits > 18) return false;
  const std::string_view unit = text.substr(digits);
  const auto found = std::find_if(units.begin(), units.end(),
                                  [&](const auto& known) { return known.first == unit; });
  if (found == units.end()) return false;
  const uint64_t count = std::strtoull(std::string(text.substr(0, digits)).c_str(), nullptr, 10);
  if (count > kMaxNumber / found->second) return false;
  *number = count * found->second;
  return *number >= low && *number <= high;
}

bool ParseSize(std::string_view text, uint64_t* bytes) {
  static const Units kUnits = {{"", 1}, {"KiB", 1 << 10}, {"MiB", 1 << 20}, {"GiB", 1 << 30}};
  return ParseNumber(text, 0, kMaxNumber, bytes, kUnits);
}

bool ParsePause(std::string_view text, uint64_t* pause_ms) {
  static const Units kUnits = {{"", 1}, {"ms", 1}, {"s", 1000}};
  return ParseNumber(text, 0, kMaxPauseMs, pause_ms, kUnits);
}

bool ParseDrip(std::string_view text, Drip* drip) {
  const size_t slash = text.find('/');
  return slash != std::string_view::npos && ParseSize(text.substr(0, slash), &drip->bytes) &&
         drip->bytes > 0 && ParsePause(text.substr(slash + 1), &drip->pause_ms);
}

bool ParsePlace(std::string_view text, Ending* ending) {
  static constexpr std::pair<std::string_view, Place> kPlaces[] = {{"request", Place::kRequest},
                                                                   {"body", Place::kBody},
                                                                   {"end", Place::kEnd},
                                                                   {"next", Place::kNext}};
  for (const auto& [name, place] : kPlaces) {
    if (text.substr(0, name.size()) != name) continue;
    ending->place = place;
    text.remove_prefix(name.size());
    if (text.empty()) return true;
    const bool takes_offset = place == Place::kRequest || place == Place::kBody;
    return takes_offset && text.front() == '+' && ParseSize(text.substr(1), &ending->offset);
  }
  return text.empty() || ParseSize(text, &ending->offset);
}

constexpr std::pair<std::string_view, int> kAlerts[] = {{"unexpected_message", 10},
                                                        {"bad_record_mac", 20},
                                                        {"record_overflow", 22},
                                                        {"handshake_failure", 40},
                                                        {"bad_certificate", 42},
                                                        {"unsupported_certificate", 43},
                                                        {"certificate_revoked", 44},
                                                        {"certificate_expired", 45},
                                                        {"certificate_unknown", 46},
                                                        {"illegal_parameter", 47},
                                                        {"unknown_ca", 48},
                                                        {"access_denied", 49},
                                                        {"decode_error", 50},
                                                        {"decrypt_error", 51},
                                                        {"protocol_version", 70},
                                                        {"insufficient_security", 71},
                                                        {"internal_error", 80},
                                                        {"unrecognized_name", 112},
                                                        {"no_application_protocol", 120}};

// ---- Actions -----------------------------------------------------------------------------------

// Each takes the value of its action and says in *setting what the action does. False: the value is
// not understood.
using ParseAction = bool (*)(const std::string& value, Setting* setting);

bool ParseStatus(const std::string& value, Setting* setting) {
  uint64_t status = 0;
  if (!ParseNumber(value, 100, 999, &status)) return false;
  setting->apply = [status](Plan* plan) { plan->status = static_cast<int>(status); };
  return true;
}

bool ParseDelay(const std::string& value, Setting* setting) {
  uint64_t delay_ms = 0;
  if (!ParsePause(value, &delay_ms)) return false;
  setting->apply = [delay_ms](Plan* plan) { plan->delay_ms = delay_ms; };
  return true;
}

template <Drip Plan::*kDrip>
bool ParseDripOf(const std::string& value, Setting* setting) {
  Drip drip;
  if (!ParseDrip(value, &drip)) return false;
  setting->apply = [drip](Plan* plan) { plan->*kDrip = drip; };
  return true;
}

bool ParseInterim(const std::string& value, Setting* setting) {
  const size_t times = value.find('*');
  uint64_t status = 0;
  uint64_t count = 1;
  if (!ParseNumber(value.substr(0, times), 100, 199, &status)) return false;
  if (times != std::string::npos && !ParseNumber(value.substr(times + 1), 1, kMaxNumber, &count)) {
    return false;
  }
  setting->apply = [status, count](Plan* plan) {
    plan->interim_status = static_cast<int>(status);
    plan->interim_count = count;
  };
  return true;
}

bool ParseHeader(const std::string& value, Setting* setting) {
  const size_t colon = value.find(':');
  if (colon == 0 || colon == std::string::npos) return false;
  const std::string name = value.substr(0, colon);
  const size_t begin = std::min(value.find_first_not_of(' ', colon + 1), value.size());
  setting->slot += " " + name;
  setting->apply = [name, text = value.substr(begin)](Plan* plan) {
    plan->headers.emplace_back(name, text);
  };
  return true;
}

bool ParsePadHead(const std::string& value, Setting* setting) {
  uint64_t bytes = 0;
  if (!ParseSize(value, &bytes)) return false;
  setting->apply = [bytes](Plan* plan) { plan->padding_bytes = bytes; };
  return true;
}

template <BodyKind kKind>
bool ParseText(const std::string& value, Setting* setting) {
  setting->apply = [text = std::make_shared<const std::string>(value)](Plan* plan) {
    plan->body = kKind;
    plan->text = text;
  };
  return true;
}

template <BodyKind kKind>
bool ParseTextFile(const std::string& value, Setting* setting) {
  std::string text;
  return ReadFileWhole(value, &text) == 0 && ParseText<kKind>(text, setting);
}

bool ParseBodySize(const std::string& value, Setting* setting) {
  uint64_t bytes = kUnlimited;
  if (value != "endless" && !ParseSize(value, &bytes)) return false;
  setting->apply = [bytes](Plan* plan) {
    plan->body = BodyKind::kFiller;
    plan->filler_bytes = bytes;
  };
  return true;
}

bool ParseLength(const std::string& value, Setting* setting) {
  Length length = Length::kExact;
  uint64_t bytes = 0;
  if (value == "none") {
    length = Length::kNone;
  } else if (value == "chunked") {
    length = Length::kChunked;
  } else {
    const char sign = value.empty() ? '\0' : value.front();
    if (sign == '+') length = Length::kMore;
    if (sign == '-') length = Length::kLess;
    if (!ParseSize(value.substr(length == Length::kExact ? 0 : 1), &bytes)) return false;
  }
  setting->apply = [length, bytes](Plan* plan) {
    plan->length = length;
    plan->length_bytes = bytes;
  };
  return true;
}

template <EndKind kKind>
bool ParseEnding(const std::string& value, Setting* setting) {
  Ending ending;
  ending.kind = kKind;
  if (!ParsePlace(value, &ending)) return false;
  setting->needs_tls = kKind == EndKind::kAlert;
  setting->apply = [ending](Plan* plan) { plan->ending = ending; };
  return true;
}

template <EndKind kKind>
bool ParseConnectionEnding(const std::string& value, Setting* setting) {
  return value.empty() && ParseEnding<kKind>(value, setting);
}

bool ParseRefuse(const std::string& value, Setting* setting) {
  Ending ending;
  ending.kind = EndKind::kRefuse;
  ending.alert = AlertNumber(value);
  setting->needs_tls = true;
  setting->apply = [ending](Plan* plan) { plan->ending = ending; };
  return ending.alert >= 0;
}

struct ActionKind {
  const char* name;
  const char* slot;
  const char* usage;  // What to write, for who has written something else.
  ParseAction parse;
};

constexpr char kPlaceUsage[] =
    " alone or with =PLACE: N, body+N (bytes of the answer or its body), request+N (bytes of the "
    "request's body), end or next";

const ActionKind kRequestActions[] = {
    {"status", "status", "=CODE, from 100 to 999, as in status=503", ParseStatus},
    {"delay", "delay", "=TIME, as in delay=250ms or delay=2s", ParseDelay},
    {"interim", "interim", "=CODE or =CODE*COUNT, from 100 to 199, as in interim=103*5",
     ParseInterim},
    {"header", "header", "=\"Name: value\"", ParseHeader},
    {"pad-head", "pad-head", "=SIZE, as in pad-head=10MiB", ParsePadHead},
    {"drip-head", "drip-head", "=SIZE/TIME, as in drip-head=1/100ms",
     ParseDripOf<&Plan::head_drip>},
    {"drip-body", "drip-body", "=SIZE/TIME, as in drip-body=1KiB/1s",
     ParseDripOf<&Plan::body_drip>},
    {"body", "body", "=TEXT, in double quotes if there are blanks in it",
     ParseText<BodyKind::kText>},
    {"body-file", "body", "=FILE, one that can be read", ParseTextFile<BodyKind::kText>},
    {"body-size", "body", "=SIZE or =endless, as in body-size=1GiB", ParseBodySize},
    {"raw", "body", "=TEXT, in double quotes if there are blanks in it", ParseText<BodyKind::kRaw>},
    {"raw-file", "body", "=FILE, one that can be read", ParseTextFile<BodyKind::kRaw>},
    {"length", "length", "=SIZE, =+SIZE, =-SIZE, =none or =chunked", ParseLength},
    {"close", "ending", kPlaceUsage, ParseEnding<EndKind::kClose>},
    {"cut", "ending", kPlaceUsage, ParseEnding<EndKind::kCut>},
    {"reset", "ending", kPlaceUsage, ParseEnding<EndKind::kReset>},
    {"hang", "ending", kPlaceUsage, ParseEnding<EndKind::kHang>},
    {"alert", "ending", kPlaceUsage, ParseEnding<EndKind::kAlert>},
};

const ActionKind kConnectionActions[] = {
    {"close", "ending", " alone", ParseConnectionEnding<EndKind::kClose>},
    {"reset", "ending", " alone", ParseConnectionEnding<EndKind::kReset>},
    {"hang", "ending", " alone", ParseConnectionEnding<EndKind::kHang>},
    {"refuse", "ending", "=ALERT, as in refuse=unknown_ca or refuse=handshake_failure",
     ParseRefuse},
};

// ---- Lines -------------------------------------------------------------------------------------

constexpr char kSelectorUsage[] =
    "write N, N-M, from N, every N, chance P (0 to 1) or all, with \"connection\" before it for "
    "connections, then a colon and actions";

struct Word {
  std::string source;  // As written.
  std::string name;    // Up to the first '='.
  std::string value;   // Without its quotes and escapes.
};

// The byte that the escape at the front of *text stands for, which is taken off. Empty: none.
std::optional<char> TakeEscape(std::string_view* text) {
  static constexpr std::pair<char, char> kEscapes[] = {
      {'n', '\n'}, {'r', '\r'}, {'t', '\t'}, {'\\', '\\'}, {'"', '"'}};
  if (text->size() >= 4 && (*text)[1] == 'x' &&
      text->substr(2, 2).find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos) {
    const long code = std::strtol(std::string(text->substr(2, 2)).c_str(), nullptr, 16);
    text->remove_prefix(4);
    return static_cast<char>(code);
  }
  for (const auto& [letter, byte] : kEscapes) {
    if (text->size() < 2 || (*text)[1] != letter) continue;
    text->remove_prefix(2);
    return byte;
  }
  return std::nullopt;
}

// Takes the next word off *text, which begins with one. On false *problem says what is wrong.
bool TakeWord(std::string_view* text, Word* word, std::string* problem) {
  const std::string_view whole = *text;
  const size_t name_bytes = std::min(text->find_first_of(" \t="), text->size());
  word->name = text->substr(0, name_bytes);
  word->value.clear();
  text->remove_prefix(name_bytes);
  bool quoted = false;
  if (!text->empty() && text->front() == '=') {
    text->remove_prefix(1);
    quoted = !text->empty() && text->front() == '"';
    if (quoted) text->remove_prefix(1);
    while (!text->empty()) {
      const char c = text->front();
      if (quoted ? c == '"' : c == ' ' || c == '\t') break;
      if (c == '\\') {
        const std::optional<char> byte = TakeEscape(text);
        if (!byte) {
          *problem = "\"" + std::string(text->substr(0, 2)) +
                     "\" is no escape; write one of \\n \\r \\t \\\\ \\\" \\xHH";
          return false;
        }
        word->value.push_back(*byte);
      } else {
        word->value.push_back(c);
        text->remove_prefix(1);
      }
    }
    if (quoted && text->empty()) {
      *problem = "the quoted value of \"" + word->name + "\" has no end; write a closing \"";
      return false;
    }
    if (quoted) text->remove_prefix(1);
  }
  word->source = whole.substr(0, whole.size() - text->size());
  if (!text->empty() && text->front() != ' ' && text->front() != '\t') {
    *problem = "no blank after " + word->source + "; write one between two actions";
    return false;
  }
  return true;
}

void SkipBlanks(std::string_view* text) {
  text->remove_prefix(std::min(text->find_first_not_of(" \t"), text->size()));
}

// "" or what is wrong with `word` and what to write in its place.
std::string ParseWord(const Word& word, bool of_connections, Setting* setting) {
  const ActionKind* const begin =
      of_connections ? std::begin(kConnectionActions) : std::begin(kRequestActions);
  const ActionKind* const end =
      of_connections ? std::end(kConnectionActions) : std::end(kRequestActions);
  const ActionKind* const kind =
      std::find_if(begin, end, [&](const ActionKind& known) { return word.name == known.name; });
  if (kind == end) {
    std::string names;
    for (const ActionKind* known = begin; known != end; ++known) {
      names += (known == begin ? "" : ", ") + std::string(known->name);
    }
    return "\"" + word.name + "\" is no action for a " +
           (of_connections ? "connection" : "request") + "; write one of " + names;
  }
  setting->slot = kind->slot;
  setting->word = word.source;
  if (kind->parse(word.value, setting)) return "";
  return "\"" + word.source + "\" is not understood; write " + kind->name + kind->usage;
}

// False for what an ending or a raw answer leaves no room for.
bool TakesEffect(const Setting& setting, const Plan& plan) {
  const std::string& slot = setting.slot;
  const Ending& ending = plan.ending;
  if (slot == "ending") return true;
  if (ending.kind != EndKind::kNone && ending.place == Place::kRequest) return false;
  if (slot == "delay") return true;
  const bool is_silent =
      ending.kind != EndKind::kNone && ending.place == Place::kAnswer && ending.offset == 0;
  if (is_silent) return false;
  return plan.body != BodyKind::kRaw || slot == "body" || slot == "drip-body";
}

uint64_t Mix(uint64_t bits) {
  bits += 0x9e3779b97f4a7c15;
  bits = (bits ^ (bits >> 30)) * 0xbf58476d1ce4e5b9;
  bits = (bits ^ (bits >> 27)) * 0x94d049bb133111eb;
  return bits ^ (bits >> 31);
}

}  // namespace

// ---- Script ------------------------------------------------------------------------------------

void Misbehaviour::AddText(std::string_view text, const std::string& name) {
  for (uint64_t number = 1; !text.empty(); ++number) {
    const size_t end = std::min(text.find('\n'), text.size());
    std::string line(text.substr(0, end));
    if (!line.empty() && line.back() == '\r') line.pop_back();
    AddLine(line, name + ":" + std::to_string(number));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

void Misbehaviour::AddFile(const std::string& path) {
  std::string text;
  if (const int error = ReadFileWhole(path, &text); error != 0) {
    throw Fatal(kExitNoInput, "cannot read script " + path + ": " + ErrnoText(error) +
                                  "; give --misbehave a readable file, or a line with a colon, as "
                                  "in 'every 3: status=503'");
  }
  AddText(text, path);
}

void Misbehaviour::AddLine(const std::string& line, const std::string& place) {
  const auto wrong = [&place](const std::string& problem) {
    return Fatal(kExitUsage, place + ": " + problem);
  };
  std::string_view text = line;
  SkipBlanks(&text);
  if (text.empty() || text.front() == '#') return;

  Rule rule;
  const size_t colon = text.find(':');
  const std::string_view selector = text.substr(0, colon);
  if (colon == std::string_view::npos || !ParseSelector(selector, &rule)) {
    throw wrong("\"" + std::string(selector) + "\" does not select requests; " + kSelectorUsage);
  }
  rule.salt = rules_.size();
  text.remove_prefix(colon + 1);
  for (SkipBlanks(&text); !text.empty() && text.front() != '#'; SkipBlanks(&text)) {
    Word word;
    std::string problem;
    Setting setting;
    if (!TakeWord(&text, &word, &problem)) throw wrong(problem);
    problem = ParseWord(word, rule.of_connections, &setting);
    if (!problem.empty()) throw wrong(problem);
    for (const Setting& earlier : rule.settings) {
      if (earlier.slot != setting.slot) continue;
      throw wrong("\"" + earlier.word + "\" and \"" + setting.word +
                  "\" exclude each other; write one of them");
    }
    if (setting.needs_tls && needs_tls_.empty()) needs_tls_ = place;
    rule.settings.push_back(std::move(setting));
  }
  if (rule.settings.empty())
    throw wrong("nothing after the colon; write actions, as in status=503");
  rules_.push_back(std::move(rule));
}

bool Misbehaviour::ParseSelector(std::string_view text, Rule* rule) {
  std::vector<std::string> words;
  for (SkipBlanks(&text); !text.empty(); SkipBlanks(&text)) {
    const size_t end = std::min(text.find_first_of(" \t"), text.size());
    words.emplace_back(text.substr(0, end));
    text.remove_prefix(end);
  }
  auto word = words.begin();
  rule->of_connections = word != words.end() && *word == "connection";
  if (rule->of_connections) ++word;
  if (word == words.end()) return false;
  for (; word != words.end(); ++word) {
    const std::string value = word + 1 != words.end() ? *(word + 1) : "";
    if (*word == "all") continue;
    if (*word == "from" || *word == "every") {
      uint64_t* const number = *word == "from" ? &rule->first : &rule->period;
      if (!ParseNumber(value, 1, kMaxNumber, number)) return false;
      ++word;
    } else if (*word == "chance") {
      char* end = nullptr;
      rule->chance = std::strtod(value.c_str(), &end);
      const bool is_plain = value.find_first_not_of("0123456789.") == std::string::npos;
      if (value.empty() || !is_plain || *end != '\0' || rule->chance > 1) return false;
      ++word;
    } else {
      const size_t dash = word->find('-');
      if (!ParseNumber(word->substr(0, dash), 1, kMaxNumber, &rule->first)) return false;
      rule->last = rule->first;
      if (dash != std::string::npos &&
          !ParseNumber(word->substr(dash + 1), rule->first, kMaxNumber, &rule->last)) {
        return false;
      }
    }
  }
  return true;
}

bool Misbehaviour::Selects(const Rule& rule, uint64_t number) const {
  if (number < rule.first || number > rule.last || number % rule.period != 0) return false;
  // The number decides, not the order in which threads ask.
  const uint64_t draw =
      Mix(Mix(Mix(seed_) + rule.salt) + number) >> 11;  // 53 bits, as in a double.
  return static_cast<double>(draw) < rule.chance * static_cast<double>(uint64_t{1} << 53);
}

Plan Misbehaviour::Merge(bool of_connections, uint64_t number) const {
  std::vector<const Setting*> settings;
  for (const Rule& rule : rules_) {
    if (rule.of_connections != of_connections || !Selects(rule, number)) continue;
    for (const Setting& setting : rule.settings) {
      settings.erase(
          std::remove_if(settings.begin(), settings.end(),
                         [&](const Setting* earlier) { return earlier->slot == setting.slot; }),
          settings.end());
      settings.push_back(&setting);
    }
  }
  Plan plan;
  for (const Setting* setting : settings) setting->apply(&plan);
  for (const Setting* setting : settings) {
    if (!TakesEffect(*setting, plan)) continue;
    plan.words += (plan.words.empty() ? "" : " ") + setting->word;
  }
  return plan;
}

Plan Misbehaviour::PlanFor(uint64_t number) const { return Merge(false, number); }

Ending Misbehaviour::ConnectionEnding(uint64_t number) const { return Merge(true, number).ending; }

int AlertNumber(const std::string& name) {
  for (const auto& [known, number] : kAlerts) {
    if (known == name) return number;
  }
  return -1;
}

int StatusOnRecord(const Plan& plan) {
  const Ending& ending = plan.ending;
  const bool cut_short = ending.kind != EndKind::kNone && ending.place == Place::kAnswer;
  if (ending.kind != EndKind::kNone && ending.place == Place::kRequest) return 0;
  const uint64_t sent_bytes = cut_short ? ending.offset : kUnlimited;
  if (plan.body == BodyKind::kRaw) {
    return plan.text->substr(0, sent_bytes).find("200") != std::string::npos ? 200 : 0;
  }
  constexpr uint64_t kStatusBytes = 12;  // "HTTP/1.1 200"
  const uint64_t interim_bytes = StatusLine(plan.interim_status).size() + 2;
  if (cut_short && (plan.interim_count > sent_bytes / interim_bytes ||
                    sent_bytes - plan.interim_count * interim_bytes < kStatusBytes)) {
    return 0;
  }
  return plan.status;
}

}  // namespace quenor::collector
