#include <gtest/gtest.h>

#include <type_traits>
#include <utility>
#include <vector>

#include "quenor_base/object_pool/object_pool.h"
#include "tests/support/memory_faults.h"

QUENOR_NAMESPACE_BEGIN
namespace {

using test::HeapCounts;
using test::MemoryFaults;

struct Freed {
  uint8_t* array;
  uint32_t size;
};
std::vector<Freed>& FreedLog() {
  static auto* const log = new std::vector<Freed>;
  return *log;
}

struct LoggingDestroyer {
  void operator()(uint8_t* array, uint32_t size) const { FreedLog().push_back({array, size}); }
};
using Owner = objpool::ObjUniquePtr<uint8_t[], LoggingDestroyer>;

class ObjUniquePtrTest : public ::testing::Test {
 protected:
  ObjUniquePtrTest() { FreedLog().clear(); }
  uint8_t array_[4] = {};
  uint8_t other_[8] = {};
};

static_assert(!std::is_copy_constructible_v<Owner> && !std::is_copy_assignable_v<Owner>);
static_assert(std::is_nothrow_move_constructible_v<Owner>);
static_assert(std::is_nothrow_move_assignable_v<Owner>);

TEST_F(ObjUniquePtrTest, DefaultHoldsNullAndDestroysNothing) {
  { Owner owner; }

  EXPECT_TRUE(FreedLog().empty());
}

TEST_F(ObjUniquePtrTest, DestructionCallsTheDestroyerOnceWithTheLength) {
  { Owner owner(array_, 4); }

  ASSERT_EQ(FreedLog().size(), 1u);
  EXPECT_EQ(FreedLog()[0].array, array_);
  EXPECT_EQ(FreedLog()[0].size, 4u);
}

TEST_F(ObjUniquePtrTest, NullWithALengthDestroysNothing) {
  { Owner owner(nullptr, 4); }

  EXPECT_TRUE(FreedLog().empty());
}

TEST_F(ObjUniquePtrTest, MoveConstructionTakesBothFieldsAndLeavesNullAndZero) {
  Owner source(array_, 4);

  Owner target(std::move(source));

  EXPECT_EQ(target.get(), array_);
  EXPECT_EQ(target.size(), 4u);
  EXPECT_EQ(source.get(), nullptr);
  EXPECT_EQ(source.size(), 0u);
  EXPECT_TRUE(FreedLog().empty());
}

TEST_F(ObjUniquePtrTest, MoveAssignmentDestroysTheOldArrayAndEmptiesTheSource) {
  Owner source(array_, 4);
  Owner target(other_, 8);

  target = std::move(source);

  EXPECT_EQ(target.get(), array_);
  EXPECT_EQ(target.size(), 4u);
  EXPECT_EQ(source.get(), nullptr);
  EXPECT_EQ(source.size(), 0u);
  ASSERT_EQ(FreedLog().size(), 1u);
  EXPECT_EQ(FreedLog()[0].array, other_);
  EXPECT_EQ(FreedLog()[0].size, 8u);
}

TEST_F(ObjUniquePtrTest, MoveAssignmentToItselfKeepsTheArray) {
  Owner owner(array_, 4);
  Owner& same = owner;

  owner = std::move(same);

  EXPECT_EQ(owner.get(), array_);
  EXPECT_EQ(owner.size(), 4u);
  EXPECT_TRUE(FreedLog().empty());
}

TEST_F(ObjUniquePtrTest, ReleaseHandsTheArrayOutAndDestroysNothing) {
  Owner owner(array_, 4);

  EXPECT_EQ(owner.Release(), array_);

  EXPECT_EQ(owner.get(), nullptr);
  EXPECT_EQ(owner.size(), 0u);
  EXPECT_TRUE(FreedLog().empty());
}

TEST(DefaultPoliciesTest, AllocatorMakesAnUnclearedArrayOfTheLengthWithoutThrowingForm) {
  const HeapCounts before = MemoryFaults::Counts();

  uint8_t* array = objpool::DefaultAllocator<uint8_t[]>()(77);
  const HeapCounts after = MemoryFaults::Counts();
  ASSERT_NE(array, nullptr);
  const uint8_t last = static_cast<volatile uint8_t*>(array)[76];
  objpool::DefaultDestroyer<uint8_t[]>()(array, 77);

  EXPECT_EQ(last, MemoryFaults::kFill);
  EXPECT_EQ(after.nothrow_array_news - before.nothrow_array_news, 1u);
  EXPECT_EQ(after.News() - before.News(), 1u);
  EXPECT_EQ(after.last_array_bytes, 77u);
}

TEST(DefaultPoliciesTest, AllocatorAnswersNullWhenTheHeapIsExhausted) {
  MemoryFaults::FailNothrowArrayNews(1, 1);

  EXPECT_EQ(objpool::DefaultAllocator<uint8_t[]>()(77), nullptr);
}

TEST(DefaultPoliciesTest, DestroyerFreesWithArrayDeleteAndIgnoresTheLength) {
  // volatile: a compiler may leave out a new[] whose delete[] it sees.
  uint8_t* volatile array = objpool::DefaultAllocator<uint8_t[]>()(77);
  const HeapCounts before = MemoryFaults::Counts();

  objpool::DefaultDestroyer<uint8_t[]>()(array, 1);

  const HeapCounts after = MemoryFaults::Counts();
  EXPECT_EQ(after.array_deletes - before.array_deletes, 1u);
  EXPECT_EQ(after.Deletes() - before.Deletes(), 1u);
}

TEST(DefaultPoliciesTest, ResetterLeavesTheBytesAsTheyAre) {
  uint8_t array[3] = {1, 2, 3};

  objpool::DefaultResetter<uint8_t[]>()(array, 3);

  EXPECT_EQ(array[0], 1);
  EXPECT_EQ(array[1], 2);
  EXPECT_EQ(array[2], 3);
}

}  // namespace
QUENOR_NAMESPACE_END
