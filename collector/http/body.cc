#include "collector/http/body.h"

#include <algorithm>
#include <cstdlib>

#include "collector/http/head.h"

namespace quenor::collector {
namespace {

constexpr size_t kStepBytes = 16 * 1024;
constexpr size_t kMaxReserveBytes = size_t{1} << 20;

bool ReadExactly(httplib::Stream* input, uint64_t bytes, std::string* kept) {
  char step[kStepBytes];
  while (bytes > 0) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(bytes, sizeof(step)));
    const ssize_t got = input->read(step, want);
    if (got <= 0) return false;
    if (kept != nullptr) kept->append(step, static_cast<size_t>(got));
    bytes -= static_cast<uint64_t>(got);
  }
  return true;
}

// One line without its CRLF. False at the end of input; a line too long or without CR comes back
// as *well_formed == false.
bool ReadLine(httplib::Stream* input, std::string* line, bool* well_formed) {
  line->clear();
  *well_formed = false;
  do {
    char c = 0;
    if (input->read(&c, 1) <= 0) return false;
    line->push_back(c);
    if (line->size() > kMaxLineBytes) return true;
  } while (line->back() != '\n');
  if (line->size() < 2 || (*line)[line->size() - 2] != '\r') return true;
  line->resize(line->size() - 2);
  *well_formed = true;
  return true;
}

// Fields of no interest, up to the empty line.
BodyOutcome SkipTrailers(httplib::Stream* input) {
  std::string line;
  bool well_formed = true;
  size_t bytes = 0;
  do {
    if (!ReadLine(input, &line, &well_formed)) return BodyOutcome::kIncomplete;
    if (!well_formed) return BodyOutcome::kMalformed;
    bytes += line.size() + 2;
    if (bytes > kMaxHeadBytes) return BodyOutcome::kTrailersTooLarge;
  } while (!line.empty());
  return BodyOutcome::kWhole;
}

BodyOutcome ReadChunks(httplib::Stream* input, uint64_t limit_bytes, std::string* body,
                       uint64_t* size_bytes) {
  std::string line;
  bool well_formed = true;
  for (;;) {
    if (!ReadLine(input, &line, &well_formed)) return BodyOutcome::kIncomplete;
    uint64_t chunk_bytes = 0;
    const std::string digits = line.substr(0, line.find_first_of("; \t"));
    if (!well_formed || !ParseDigits(digits, 16, &chunk_bytes)) return BodyOutcome::kMalformed;
    if (chunk_bytes == 0) break;
    *size_bytes += chunk_bytes;
    const bool fits = *size_bytes <= limit_bytes;
    if (!fits) std::string().swap(*body);
    if (!fits && *size_bytes - limit_bytes > kMaxReadAwayBytes) return BodyOutcome::kFarTooLarge;
    if (!ReadExactly(input, chunk_bytes, fits ? body : nullptr) ||
        !ReadLine(input, &line, &well_formed)) {
      return BodyOutcome::kIncomplete;
    }
    if (!well_formed || !line.empty()) return BodyOutcome::kMalformed;
  }
  const BodyOutcome outcome = SkipTrailers(input);
  const bool fits = *size_bytes <= limit_bytes;
  return outcome == BodyOutcome::kWhole && !fits ? BodyOutcome::kTooLarge : outcome;
}

}  // namespace

BodyOutcome ReadBody(httplib::Stream* input, const BodyFraming& framing, uint64_t limit_bytes,
                     std::string* body, uint64_t* size_bytes) {
  if (framing.chunked) return ReadChunks(input, limit_bytes, body, size_bytes);
  const uint64_t length_bytes = framing.length_bytes;
  *size_bytes = length_bytes;
  const bool fits = length_bytes <= limit_bytes;
  if (!fits && length_bytes - limit_bytes > kMaxReadAwayBytes) return BodyOutcome::kFarTooLarge;
  if (fits) body->reserve(std::min<uint64_t>(length_bytes, kMaxReserveBytes));
  if (!ReadExactly(input, length_bytes, fits ? body : nullptr)) return BodyOutcome::kIncomplete;
  return fits ? BodyOutcome::kWhole : BodyOutcome::kTooLarge;
}

bool ParseDigits(const std::string& text, int base, uint64_t* number) {
  const char* allowed = base == 16 ? "0123456789abcdefABCDEF" : "0123456789";
  if (text.empty() || text.size() > (base == 16 ? 15u : 18u)) return false;
  if (text.find_first_not_of(allowed) != std::string::npos) return false;
  *number = std::strtoull(text.c_str(), nullptr, base);
  return true;
}

}  // namespace quenor::collector
