// The owner of one pooled array and the three default policies. Written without sight of the
// implementation, from the promises alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

#include "quenor_base/object_pool/object_pool.h"
#include "tests/unit/second/pools/probe.h"

namespace quenor::test {
namespace {

using Owner = objpool::ObjUniquePtr<uint8_t[], objpool::DefaultDestroyer<uint8_t[]>>;

static_assert(!std::is_copy_constructible_v<Owner>);
static_assert(!std::is_copy_assignable_v<Owner>);
static_assert(std::is_move_constructible_v<Owner>);

// Tells which array was destroyed with which length, and frees nothing.
struct NotingDestroyer {
  void operator()(uint8_t* array, uint32_t size) const { calls.emplace_back(array, size); }
  static std::vector<std::pair<uint8_t*, uint32_t>> calls;
};
std::vector<std::pair<uint8_t*, uint32_t>> NotingDestroyer::calls;
using NotingOwner = objpool::ObjUniquePtr<uint8_t[], NotingDestroyer>;

TEST(SecondObjUniquePtrTest, MoveTakesArrayAndLengthAndLeavesNullAndZero) {
  Owner source(new uint8_t[24], 24);
  const uint8_t* const array = source.get();

  Owner target(std::move(source));

  EXPECT_EQ(target.get(), array);
  EXPECT_EQ(target.size(), 24u);
  EXPECT_EQ(source.get(), nullptr);
  EXPECT_EQ(source.size(), 0u);
}

TEST(SecondObjUniquePtrTest, MovedFromOwnerDestroysNothing) {
  NotingDestroyer::calls.clear();
  uint8_t array[4];
  {
    NotingOwner target;
    {
      NotingOwner source(array, 4);
      target = std::move(source);
      EXPECT_EQ(source.get(), nullptr);
      EXPECT_EQ(source.size(), 0u);
    }
    EXPECT_TRUE(NotingDestroyer::calls.empty());
  }

  ASSERT_EQ(NotingDestroyer::calls.size(), 1u);
  EXPECT_EQ(NotingDestroyer::calls[0], std::make_pair(&array[0], 4u));
}

TEST(SecondObjUniquePtrTest, DestructionOfANullOwnerCallsNoDestroyer) {
  NotingDestroyer::calls.clear();

  { NotingOwner null_with_length(nullptr, 16); }

  EXPECT_TRUE(NotingDestroyer::calls.empty());
}

TEST(SecondObjUniquePtrTest, DestructionDeletesTheArrayOnce) {
  Probe probe;
  std::vector<const void*> arrays;
  {
    Owner owner(new uint8_t[40], 40);
    arrays.push_back(owner.get());
    probe.Clear();
  }

  EXPECT_EQ(probe.Whats(Act::kDeleteArray), arrays);
}

TEST(SecondDefaultPoliciesTest, DestroyerDeletesTheArrayWhateverLengthItIsGiven) {
  Probe probe;
  auto* const array = new uint8_t[8];
  const std::vector<const void*> arrays{array};

  objpool::DefaultDestroyer<uint8_t[]>()(array, 4096);

  EXPECT_EQ(probe.Whats(Act::kDeleteArray), arrays);
}

TEST(SecondDefaultPoliciesTest, AllocatorAsksTheNonThrowingHeapForTheLengthAndClearsNothing) {
  Probe probe;

  volatile uint8_t* const array = objpool::DefaultAllocator<uint8_t[]>()(300);

  EXPECT_EQ(probe.Sizes(Act::kNewNothrowArray), std::vector<size_t>{300});
  EXPECT_EQ(probe.Count(Act::kNewArray), 0u);
  for (size_t i = 0; i < 300; ++i) ASSERT_EQ(array[i], Probe::kFill) << i;
  delete[] const_cast<uint8_t*>(array);
}

TEST(SecondDefaultPoliciesTest, AllocatorAnswersNullWhenTheHeapIsExhausted) {
  Probe probe;
  probe.FailNothrowArrays(1, 1);

  const uint8_t* const array = objpool::DefaultAllocator<uint8_t[]>()(300);

  EXPECT_EQ(array, nullptr);
}

TEST(SecondDefaultPoliciesTest, ResetterChangesNoByte) {
  std::vector<uint8_t> bytes(64);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 1);
  const std::vector<uint8_t> before = bytes;

  objpool::DefaultResetter<uint8_t[]>()(bytes.data(), static_cast<uint32_t>(bytes.size()));

  EXPECT_EQ(bytes, before);
}

}  // namespace
}  // namespace quenor::test
