#include <gtest/gtest.h>

#include "SWLInfra/src/Text.h"

namespace {

TEST(DecimalInt32Test, ReadsTheLeadingDecimalNumberAndIgnoresTheRest) {
  EXPECT_EQ(12, DecimalInt32("12abc"));
  EXPECT_EQ(-5, DecimalInt32("-5"));
  EXPECT_EQ(7, DecimalInt32("  7"));
  EXPECT_EQ(0, DecimalInt32("0x10"));
}

TEST(DecimalInt32Test, GivesZeroForATextWithoutANumber) {
  EXPECT_EQ(0, DecimalInt32("abc"));
  EXPECT_EQ(0, DecimalInt32(""));
}

TEST(DecimalInt32Test, SaturatesAsOnThe32BitUnit) {
  EXPECT_EQ(2147483647, DecimalInt32("2147483648"));
  EXPECT_EQ(2147483647, DecimalInt32("99999999999999999999"));
  EXPECT_EQ(-2147483647 - 1, DecimalInt32("-99999999999"));
}

}  // namespace
