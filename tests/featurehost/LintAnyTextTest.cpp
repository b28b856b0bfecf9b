#include <algorithm>
#include <gtest/gtest.h>
#include <random>

#include "featurehost/src/lint/Linter.h"
#include "tests/featurehost/FakeEnvironment.h"

namespace featurehost::lint {
namespace {

/** Texts that are put together from pieces which mean something to one check or another. */
class Texts {
 public:
  explicit Texts(unsigned seed) : random_(seed) {}

  std::string Next() {
    static const std::vector<std::string> pieces = {"",
                                                    ";",
                                                    "userfs",
                                                    "rootfs",
                                                    "check",
                                                    "factorydata",
                                                    "eolsettings",
                                                    "source",
                                                    "/",
                                                    "..",
                                                    "-",
                                                    "0",
                                                    "9",
                                                    "4G",
                                                    "x",
                                                    " ",
                                                    "size",
                                                    "100",
                                                    "offset",
                                                    "target",
                                                    "altsource",
                                                    "LABEL=",
                                                    "/dev/mmcblk1",
                                                    "$(ls)",
                                                    "\xff",
                                                    "\n",
                                                    "=",
                                                    "B",
                                                    "99999999999999999999999",
                                                    "checksum",
                                                    "file",
                                                    "kB",
                                                    std::string(1, '\0'),
                                                    std::string(70, 'f'),
                                                    std::string(600, '/')};
    std::string text;
    for (unsigned count = Number(5); count > 0; --count) {
      text += pieces[Number(static_cast<unsigned>(pieces.size()))];
    }
    return text;
  }

  unsigned Number(unsigned limit) { return static_cast<unsigned>(random_() % limit); }

 private:
  std::mt19937 random_;
};

TEST(LintAnyTextTest, NoTextIsTooOdd) {
  std::size_t found = 0;
  for (unsigned seed = 0; seed < 2000; ++seed) {
    Texts texts(seed);
    FakeEnvironment unit;
    Properties::Values values;
    values["updatelist"] = texts.Next() + ";" + texts.Next() + ";rootfs;checkrootfs;eolsettings";
    values["updateprogresslist"] = texts.Next() + ";" + texts.Next() + ";1;2;3";
    for (const char* key : {"rootfssource", "rootfstarget", "rootfstargetsize", "rootfsblocksize",
                            "rootfschecksum", "userfssource", "userfstarget", "userfsmountpoint",
                            "factorydataoffset", "factorydatasize", "eolsettingstargetfilename"}) {
      values[key] = texts.Next();
    }
    for (int more = 0; more < 5; ++more) {
      const std::string key = texts.Next();
      values[key] = texts.Next();
      unit.AddGzip(values[key], texts.Number(1000000), texts.Number(4294967295U));
    }
    for (const Finding& finding : Lint(texts.Next(), values, unit)) {
      EXPECT_NE("", finding.why) << seed;
      ++found;
    }
  }
  EXPECT_GT(found, 2000U);
}

TEST(LintAnyTextTest, ALongListIsCheckedToItsEnd) {
  constexpr int kCount = 5000;
  FakeEnvironment unit;
  Properties::Values values;
  for (int index = 0; index < kCount; ++index) {
    const std::string name = "image" + std::to_string(index);
    values["updatelist"] += name + ";check" + name + ";";
    values["updateprogresslist"] += "1;1;";
  }
  const auto findings = Lint("maincpu", values, unit);
  const auto last = std::find_if(findings.begin(), findings.end(), [](const Finding& finding) {
    return finding.property == "image4999source" && finding.kind == Kind::kPropertyMissing;
  });
  EXPECT_NE(findings.end(), last);
}

}  // namespace
}  // namespace featurehost::lint
