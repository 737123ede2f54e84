// What a one-line change to the copy-on-write buffer could do unnoticed by its own tests.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "quenor_base/buffer/copy_on_write_buffer.h"

namespace quenor::test {
namespace {

// The 4 GiB are reserved, not touched. Where they cannot be had there must be no bytes at all.
TEST(CopyOnWriteBufferEdgeTest, LargestSizeHasRoomForItsLastByte) {
  constexpr uint32_t kLargest = std::numeric_limits<uint32_t>::max();
  CopyOnWriteBuffer buffer(kLargest, kLargest);
  if (buffer.size() == 0) {
    EXPECT_EQ(buffer.data<uint8_t>(), nullptr);
    return;
  }

  buffer.data<uint8_t>()[kLargest - 1] = 7;

  EXPECT_EQ(buffer.size(), kLargest);
  EXPECT_EQ(buffer.cdata<uint8_t>()[kLargest - 1], 7);
}

}  // namespace
}  // namespace quenor::test
