#include <gmock/gmock.h>

#include "SWLInfra/src/Log.h"
#include "tests/support/CleanTest.h"
#include "tests/support/RecordedLog.h"

namespace {

using support::RecordedLog;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr CLog KLog("module", "folder/Source");
const support::LogSource KSource("module", "folder/Source");

class LogTest : public support::CleanTest {
 protected:
  static void WriteOneOfEach() {
    KLog.Error("F", "e");
    KLog.Warning("F", "w");
    KLog.Info("F", "i");
    KLog.Interface("void C::F()", "n");
    KLog.Always("F", "a");
  }
};

TEST_F(LogTest, WritesCategoryModuleFunctionAndSource) {
  WriteOneOfEach();

  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(KSource.Error("F", "e"), KSource.Warning("F", "w"), KSource.Info("F", "i"),
                  KSource.Interface("void C::F()", "n"), KSource.Always("F", "a")));
  EXPECT_EQ("logging::categories::Error", RecordedLog::Instance().Lines()[0].category);
  EXPECT_EQ("logging::categories::Warning", RecordedLog::Instance().Lines()[1].category);
  EXPECT_EQ("logging::categories::Info", RecordedLog::Instance().Lines()[2].category);
  EXPECT_EQ("logging::categories::Interface", RecordedLog::Instance().Lines()[3].category);
  EXPECT_EQ("logging::categories::Always", RecordedLog::Instance().Lines()[4].category);
}

TEST_F(LogTest, TheModulesHaveTheirNames) {
  EXPECT_STREQ("logging::MainCPULoader", logging::MainCPULoader);
  EXPECT_STREQ("logging::SWLInfra", logging::SWLInfra);
}

TEST_F(LogTest, AMessageIsItsPiecesInParenthesesAndALineEnd) {
  const std::string text = "text";
  const TChr bytes[] = {'b', 'y', 't', 'e', 's', 0};

  KLog.Info("F", text, " ", static_cast<const TChr*>(bytes), TInt32{-7}, " ", TUint32{4294967295},
            " ", TUint8{255});
  KLog.Info("F");
  KLog.Info("F", "");

  const auto& lines = RecordedLog::Instance().Lines();
  ASSERT_EQ(3U, lines.size());
  EXPECT_EQ("(text bytes-7 4294967295 255)\n", lines[0].message);
  EXPECT_EQ("()\n", lines[1].message);
  EXPECT_EQ("()\n", lines[2].message);
}

TEST_F(LogTest, ALineCarriesTheNumberOfTheLineThatWroteIt) {
  const unsigned here = __LINE__;
  KLog.Error("F");
  KLog.Always("F");

  ASSERT_EQ(2U, RecordedLog::Instance().Lines().size());
  EXPECT_EQ(here + 1, RecordedLog::Instance().Lines()[0].line);
  EXPECT_EQ(here + 2, RecordedLog::Instance().Lines()[1].line);
}

TEST_F(LogTest, AsksTheControlOnceBeforeEachLineButNotForAlways) {
  WriteOneOfEach();

  EXPECT_THAT(RecordedLog::Instance().Questions(),
              ElementsAre(Pair("module", logging::categories::Error),
                          Pair("module", logging::categories::Warning),
                          Pair("module", logging::categories::Info),
                          Pair("module", logging::categories::Interface)));
  const auto& openings = RecordedLog::Instance().Openings();
  ASSERT_EQ(5U, openings.size());
  for (std::size_t index = 0; index < 4; ++index) {
    EXPECT_EQ(index + 1, openings[index].questionsBefore);
    EXPECT_TRUE(openings[index].enabled);
  }
  EXPECT_TRUE(openings[4].enabled);
}

TEST_F(LogTest, OpensALineWithTheControlsAnswer) {
  RecordedLog::Instance().Disable(logging::categories::Info);
  RecordedLog::Instance().Disable(logging::categories::Error);

  WriteOneOfEach();

  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KSource.Warning("F", "w"), KSource.Interface("void C::F()", "n"),
                          KSource.Always("F", "a")));
  const auto& openings = RecordedLog::Instance().Openings();
  ASSERT_EQ(5U, openings.size());
  EXPECT_FALSE(openings[0].enabled);
  EXPECT_FALSE(openings[2].enabled);
}

TEST_F(LogTest, AlwaysLinesCannotBeDisabled) {
  RecordedLog::Instance().Disable(logging::categories::Always);

  KLog.Always("F", "a");

  EXPECT_THAT(RecordedLog::Instance().Lines(), ElementsAre(KSource.Always("F", "a")));
  EXPECT_THAT(RecordedLog::Instance().Questions(), IsEmpty());
}

}  // namespace
