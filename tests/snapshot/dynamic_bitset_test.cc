#include "snapshot/dynamic_bitset.h"

#include <gtest/gtest.h>

#include "util/error.h"

namespace pkgdlv {
namespace {

TEST(DynamicBitsetTest, SetRangeAcrossWordsKeepsTheCount) {
  struct Case {
    uint32_t bits, first, last;
  };
  for (Case c : {Case{1, 0, 0}, Case{64, 0, 63}, Case{65, 63, 64}, Case{200, 10, 150}, Case{200, 64, 127},
                 Case{129, 128, 128}}) {
    DynamicBitset set;
    set.Create(c.bits);
    set.SetRange(c.first, c.last, true);
    EXPECT_EQ(set.Count(), c.last - c.first + 1) << c.bits << " " << c.first << ".." << c.last;
    for (uint32_t i = 0; i < c.bits; ++i) EXPECT_EQ(set.Check(i), i >= c.first && i <= c.last) << i;
    set.SetRange(c.first, c.last, false);
    EXPECT_EQ(set.Count(), 0u);
  }
}

TEST(DynamicBitsetTest, SetReturnsThePreviousValueAndCountsOnce) {
  DynamicBitset set;
  set.Create(100);
  EXPECT_FALSE(set.Set(70, true));
  EXPECT_TRUE(set.Set(70, true));
  EXPECT_EQ(set.Count(), 1u);
  set.SetRange(60, 80, true);
  EXPECT_EQ(set.Count(), 21u);
  EXPECT_TRUE(set.Set(70, false));
  EXPECT_EQ(set.Count(), 20u);
  EXPECT_EQ(set.CountInRange(0, 69), 10u);
  using Ranges = std::vector<std::pair<uint32_t, uint32_t>>;
  EXPECT_EQ(set.SetRanges(), (Ranges{{60, 69}, {71, 80}}));
}

TEST(DynamicBitsetTest, CreateFromBytesRecountsAndDropsBitsPastTheEnd) {
  std::vector<uint8_t> bytes(16, 0xFF);
  DynamicBitset set;
  set.Create(70, bytes);
  EXPECT_EQ(set.Count(), 70u);
  EXPECT_EQ(set.SizeInBytes(), 16u);
  DynamicBitset copy;
  std::span<const uint64_t> words = set.Words();
  copy.Create(70, std::span(reinterpret_cast<const uint8_t*>(words.data()), words.size() * 8));
  EXPECT_EQ(copy.SetRanges(), set.SetRanges());
  DynamicBitset empty;
  empty.Create(0);
  EXPECT_EQ(empty.Count(), 0u);
  EXPECT_TRUE(empty.SetRanges().empty());
}

// Misuse throws instead of touching memory outside the bits.
TEST(DynamicBitsetTest, MisuseThrows) {
  DynamicBitset none, ten;
  ten.Create(10);
  EXPECT_THROW(none.Set(0, true), Error);
  EXPECT_THROW(ten.Set(10, true), Error);
  EXPECT_THROW(none.SetRange(0, 1, true), Error);
  EXPECT_THROW(ten.SetRange(5, 4, true), Error);
  EXPECT_THROW(ten.SetRange(0, 10, true), Error);
  EXPECT_THROW(none.Check(0), Error);
  EXPECT_THROW(ten.Check(10), Error);
  EXPECT_THROW(none.Words(), Error);
  EXPECT_THROW(ten.CountInRange(3, 10), Error);
  EXPECT_EQ(ten.Count(), 0u);
}

}  // namespace
}  // namespace pkgdlv
