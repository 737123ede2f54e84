// What the body of a simulated report says: whose it is and when it was handed over. The rest of it
// is zeros.
#ifndef FLEET_MODEL_BODY_H_
#define FLEET_MODEL_BODY_H_

#include <cstdint>
#include <cstring>

namespace quenor::fleet {

struct Body {
  int64_t handed_over_us = 0;
  uint32_t channel = 0;
  uint32_t number = 0;  // The channel's first is 0.

  // `bytes` has room for kBytes.
  void Write(uint8_t* bytes) const { std::memcpy(bytes, this, sizeof *this); }
  static Body Read(const uint8_t* bytes) {
    Body body;
    std::memcpy(&body, bytes, sizeof body);
    return body;
  }
};
constexpr uint32_t kLeastBodyBytes = sizeof(Body);
static_assert(sizeof(Body) == 16, "no gaps, which would be bytes of chance");

}  // namespace quenor::fleet

#endif  // FLEET_MODEL_BODY_H_
