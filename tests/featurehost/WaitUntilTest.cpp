#include <gtest/gtest.h>
#include <unistd.h>

#include "featurehost/src/WaitUntil.h"

namespace featurehost {
namespace {

// A host that gets no processor meanwhile must not kill, nor leave, what has ended in time.
TEST(WaitUntilTest, LooksOnceMoreWhenTheTimeIsOver) {
  int looks = 0;
  EXPECT_TRUE(WaitUntil([&looks] {
    if (++looks == 1) {
      usleep(2200000);
      return false;
    }
    return true;
  }));
  EXPECT_EQ(2, looks);
}

TEST(WaitUntilTest, GivesUpAfterAWhile) {
  EXPECT_FALSE(WaitUntil([] { return false; }));
}

}  // namespace
}  // namespace featurehost
