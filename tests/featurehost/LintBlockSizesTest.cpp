#include <gmock/gmock.h>
#include <string>
#include <utility>
#include <vector>

#include "tests/featurehost/LintScene.h"

namespace featurehost::lint {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(LintBlockSizesTest, WhateverDdRefusesIsAnErrorHoweverItLooks) {
  for (const char* text :
       {"0", "0k", "00", "000kB", "-1", "-1k", "+1", "99999999999G", "18446744073709551616",
        "99999999999999999999c", "4G", "64k", "33K", "32769c", "k", "32q", " 32k", "32 k"}) {
    Scene scene;
    scene.values["rootfsblocksize"] = text;
    scene.unit.refused.insert(text);
    const auto findings = scene.Lint();
    ASSERT_THAT(IdsOf(findings), ElementsAre("blocksize-refused")) << text;
    EXPECT_EQ(Severity::kError, SeverityOf(findings[0].kind));
  }
}

TEST(LintBlockSizesTest, WhatDdTakesIsLeftToTheOtherChecks) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"99999999999G", "blocksize-wraps"},
      {"4G", "blocksize-wraps"},
      {"64k", "blocksize-short-reads"},
      {"512G512", "blocksize-mixed"},
      {"4096", "blocksize-bare"}};
  for (const auto& [text, kind] : cases) {
    Scene scene;
    scene.values["rootfsblocksize"] = text;
    EXPECT_THAT(IdsOf(scene.Lint()), ElementsAre(kind)) << text;
  }
}

TEST(LintBlockSizesTest, UsualOnesAreNotTried) {
  for (const char* text : {"1c", "256w", "64b", "32k", "32K", "32kB", "0032k", "32768c"}) {
    Scene scene;
    scene.values["rootfsblocksize"] = text;
    scene.unit.refused.insert(text);
    EXPECT_THAT(IdsOf(scene.Lint()), IsEmpty()) << text;
  }
}

}  // namespace
}  // namespace featurehost::lint
