// What a process keeps, where several threads find nothing at the same time: the one that makes it
// while another is still making plays the second thread.
#include <gtest/gtest.h>

#include <atomic>

#include "quenor_base/platform/base/fork.h"

QUENOR_NAMESPACE_BEGIN
namespace {

TEST(FindOrMakeTest, WhoIsSecondFindsWhatTheFirstHasMade) {
  std::atomic<int*> place{nullptr};
  int* first = nullptr;

  int* const second = base::FindOrMake(&place, [&] {
    first = base::FindOrMake(&place, [] { return new int(1); });
    return new int(2);
  });

  EXPECT_EQ(second, first);
  EXPECT_EQ(place.load(), first);
  EXPECT_EQ(base::FindOrMake(&place, [] { return new int(3); }), first);
  delete first;
}

}  // namespace
QUENOR_NAMESPACE_END
