// What a plain cache file must do beside what both kinds must. An embedder runs it on his own by
// linking that and writing
//   INSTANTIATE_TYPED_TEST_SUITE_P(Mine, PacketFileConformance, LinkedCacheFile);
//   INSTANTIATE_TYPED_TEST_SUITE_P(Mine, CacheFileConformance, LinkedCacheFile);
// in namespace quenor::conformance.
#ifndef QUENOR_TESTS_CONFORMANCE_CACHE_FILE_CONFORMANCE_H_
#define QUENOR_TESTS_CONFORMANCE_CACHE_FILE_CONFORMANCE_H_

#include "tests/conformance/packet_file_conformance.h"

namespace quenor::conformance {

template <typename Kind>
class CacheFileConformance : public PacketFileConformance<Kind> {};
TYPED_TEST_SUITE_P(CacheFileConformance);

TYPED_TEST_P(CacheFileConformance, HasOneOwnerAtATime) {
  typename TypeParam::File first, second;
  ASSERT_TRUE(TypeParam::Open(first, this->path_) && this->Save(first, {"a"}));

  EXPECT_FALSE(TypeParam::Open(second, this->path_));
  first.Close();

  ASSERT_TRUE(TypeParam::Open(second, this->path_));
  EXPECT_EQ(Packets{"a"}, this->ReadAll(second));
}

TYPED_TEST_P(CacheFileConformance, CompletesASaveByTheQuestion) {
  typename TypeParam::File file;
  ASSERT_TRUE(TypeParam::Open(file, this->path_) && file.Clear() && this->Append(file, "a"));

  EXPECT_TRUE(file.IsSaveComplete());

  EXPECT_FALSE(this->Append(file, "x"));
  EXPECT_TRUE(file.IsSaveComplete()) << "of what was saved nothing was refused";
}

TYPED_TEST_P(CacheFileConformance, CompletesASaveThatNobodyAsksAbout) {
  this->Leave({"old"});
  typename TypeParam::File file;
  ASSERT_TRUE(TypeParam::Open(file, this->path_) && file.Clear());
  ASSERT_TRUE(this->Append(file, "by Clear"));
  ASSERT_TRUE(file.Clear());
  ASSERT_FALSE(file.AppendDataPacket({nullptr, 1}));
  file.Close();
  EXPECT_EQ(Packets{"by Clear"}, this->Found());

  ASSERT_TRUE(TypeParam::Open(file, this->path_) && file.Clear());
  ASSERT_TRUE(this->Append(file, "by Close"));
  file.Close();
  EXPECT_EQ(Packets{"by Close"}, this->Found());
}

REGISTER_TYPED_TEST_SUITE_P(CacheFileConformance, HasOneOwnerAtATime, CompletesASaveByTheQuestion,
                            CompletesASaveThatNobodyAsksAbout);

}  // namespace quenor::conformance

#endif  // QUENOR_TESTS_CONFORMANCE_CACHE_FILE_CONFORMANCE_H_
