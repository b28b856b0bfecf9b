#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <pty.h>
#include <unistd.h>

#include "featurehost/src/Items.h"
#include "featurehost/src/JsonReport.h"
#include "featurehost/src/Output.h"
#include "featurehost/src/PlainLines.h"
#include "featurehost/src/ProgressBar.h"
#include "featurehost/src/Text.h"
#include "featurehost/src/ToolOutput.h"
#include "tests/featurehost/HostTest.h"

namespace featurehost {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

RunEvent Progress(unsigned percent) {
  return {EUserEventInstallProgress, "feature", percent, std::nullopt, milliseconds(5)};
}

RunEvent Plain(TUint32 code) {
  return {code, "feature", std::nullopt, std::nullopt, milliseconds(5)};
}

const Outcome kInstalled{
    ExitCode::kSuccess, "installed feature in 0:01",
    RunEvent{EUserEventInstallResult, "feature", std::nullopt, true, milliseconds(1000)},
    milliseconds(1000)};
const Outcome kFailed{
    ExitCode::kInstallFailed, "failed",
    RunEvent{EUserEventInstallResult, "feature", std::nullopt, false, milliseconds(1000)},
    milliseconds(1000)};

/** A report writes into a pipe, whose text the test looks at. */
class ReportsTest : public HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    ASSERT_EQ(0, pipe2(pipe_, O_CLOEXEC | O_NONBLOCK));
    output_ = std::make_unique<Output>(pipe_[1]);
  }

  void TearDown() override {
    output_.reset();
    close(pipe_[0]);
    HostTest::TearDown();
  }

  std::string Text() const {
    char text[65536];
    const ssize_t count = read(pipe_[0], text, sizeof text);
    return {text, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
  }

  int pipe_[2] = {-1, -1};
  std::unique_ptr<Output> output_;
  const Items items_{"userfs;rootfs", "60;40"};
};

TEST_F(ReportsTest, ItemIsTheFirstWhoseCumulativeWeightIsAboveThePercentage) {
  EXPECT_EQ("userfs", items_.At(0));
  EXPECT_EQ("userfs", items_.At(59));
  EXPECT_EQ("rootfs", items_.At(60));
  EXPECT_EQ("rootfs", items_.At(99));
  EXPECT_EQ("rootfs", items_.At(100));
  EXPECT_EQ("b", Items("a;b;c", "1;1;2").At(25));
  EXPECT_EQ("", Items("", "").At(0));
}

TEST_F(ReportsTest, ItemsWithoutAWeightAreLeftOutAsTheModuleDoes) {
  EXPECT_THAT(Items("a;b;c", "1;x").Names(), ElementsAre("a", "b"));
  EXPECT_THAT(Items("a", "1;2").Names(), ElementsAre("a"));
}

TEST_F(ReportsTest, PlainLinesShowEachPercentageOnceAndCompletionWithTheResult) {
  PlainLines report(*output_, items_);
  report.Event(Plain(EUserEventFeatureCreated));
  report.Event(Plain(EUserEventControllerPrepare));
  report.Event(Plain(EUserEventControllerInstall));
  for (const unsigned percent : {0U, 0U, 30U, 30U, 75U, 100U}) {
    report.Event(Progress(percent));
  }
  EXPECT_EQ("preparing feature\ninstalling feature\n0 % userfs\n30 % userfs\n75 % rootfs\n",
            Text());

  report.Result(kInstalled);
  EXPECT_EQ("100 % rootfs\ninstalled feature in 0:01\n", Text());
}

TEST_F(ReportsTest, PlainLinesOfAFailureEndWithoutCompletion) {
  PlainLines report(*output_, items_);
  report.Event(Progress(100));
  report.Result(kFailed);
  EXPECT_EQ("", Text());
}

TEST_F(ReportsTest, JsonHasOneObjectALine) {
  JsonReport report(*output_, "feature");
  report.Event(Plain(EUserEventControllerInstall));
  report.Event(Progress(42));
  report.LeftBehind({{LeftOver::Kind::kMount, "/mnt (dev)", true, "unmounted"}});
  report.Result(kInstalled);

  EXPECT_EQ(
      "{\"event\":\"install\",\"code\":203,\"feature\":\"feature\",\"elapsed_ms\":5}\n"
      "{\"event\":\"install_progress\",\"code\":205,\"feature\":\"feature\",\"percent\":42,"
      "\"elapsed_ms\":5}\n"
      "{\"event\":\"left_behind\",\"feature\":\"feature\",\"items\":[{\"kind\":\"mount\","
      "\"what\":\"/mnt (dev)\",\"cleaned\":true,\"done\":\"unmounted\"}]}\n"
      "{\"event\":\"install_result\",\"code\":204,\"feature\":\"feature\",\"success\":true,"
      "\"elapsed_ms\":1000}\n",
      Text());
}

TEST_F(ReportsTest, JsonStaysValidWhateverBytesAnIdHas) {
  JsonReport report(*output_, "x");
  RunEvent event = Plain(EUserEventFeatureCreated);
  event.feature = "\xff\"\n";
  report.Event(event);
  EXPECT_EQ("\xEF\xBF\xBD\"\n", nlohmann::json::parse(Text())["feature"].get<std::string>());
}

TEST_F(ReportsTest, ProgressBarHasItemPercentageAndTimesOnOneLine) {
  ProgressBar report(*output_, items_);
  report.Event(Plain(EUserEventControllerInstall));
  EXPECT_THAT(Text(), MatchesRegex("\r\x1b\\[Kuserfs \\[[.]{30}\\]   0 %  [0-9]:[0-9]{2} elapsed"));
  report.Event(Progress(75));
  EXPECT_THAT(Text(),
              MatchesRegex("\r\x1b\\[Krootfs \\[#{22}[.]{8}\\]  75 %  [0-9]:[0-9]{2} elapsed, "
                           "[0-9]:[0-9]{2} left"));
}

TEST_F(ReportsTest, ProgressBarShowsCompletionOnlyWithTheResult) {
  ProgressBar report(*output_, items_);
  report.Event(Plain(EUserEventControllerInstall));
  report.Event(Progress(100));
  report.Event(Progress(255));
  EXPECT_THAT(Text(), Not(HasSubstr("100 %")));
  report.Result(kInstalled);
  EXPECT_THAT(Text(), EndsWith(" elapsed\ninstalled feature in 0:01\n"));
}

TEST_F(ReportsTest, ProgressBarOfAFailureStaysWhereItWas) {
  ProgressBar report(*output_, items_);
  report.Event(Plain(EUserEventControllerInstall));
  report.Event(Progress(30));
  Text();
  report.Result(kFailed);
  EXPECT_EQ("\n", Text());
}

TEST_F(ReportsTest, ProgressBarMakesRoomForOtherLines) {
  ProgressBar report(*output_, items_);
  report.MakeRoom();
  report.Restore();
  EXPECT_EQ("", Text()) << "there is no bar yet";
  report.Event(Plain(EUserEventControllerInstall));
  Text();
  report.MakeRoom();
  EXPECT_EQ("\r\x1b[K", Text());
  report.Restore();
  EXPECT_THAT(Text(), HasSubstr("\r\x1b[Kuserfs ["));
}

TEST_F(ReportsTest, ProgressBarFitsANarrowTerminal) {
  int controlling = -1;
  int terminal = -1;
  winsize size{24, 30, 0, 0};
  ASSERT_EQ(0, openpty(&controlling, &terminal, nullptr, nullptr, &size));
  {
    Output narrow(terminal);
    EXPECT_TRUE(narrow.IsTerminal());
    ProgressBar report(narrow, Items("an item with a really long name", "1"));
    report.Event(Plain(EUserEventControllerInstall));
  }
  char text[200] = {};
  const ssize_t count = read(controlling, text, sizeof text);
  close(controlling);
  const std::string escape = "\r\x1b[K";
  EXPECT_EQ(escape.size() + 29, static_cast<std::size_t>(count)) << text;
}

TEST_F(ReportsTest, ReaderThatGoesAwayIsReportedOnceAndEndsNothing) {
  SurviveClosedPipes();
  int gone[2] = {};
  ASSERT_EQ(0, pipe2(gone, O_CLOEXEC));
  close(gone[0]);
  Output output(gone[1]);
  output.Write("a");
  output.Write("b");
  const std::string log = LogText();
  EXPECT_THAT(log, HasSubstr("error featurehost Write no more results on standard output: Broken"));
  EXPECT_EQ(log.find("no more results"), log.rfind("no more results"));
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigaction(SIGPIPE, &action, nullptr);
}

TEST_F(ReportsTest, OutputWithoutADescriptorDropsEverything) {
  Output output(-1);
  output.Write("a");
  EXPECT_FALSE(output.IsTerminal());
  EXPECT_EQ("", LogText());
}

TEST_F(ReportsTest, ToolOutputIsKeptAndTakenByLines) {
  std::string first;
  std::string second;
  std::string rest;
  {
    ToolOutput tools;
    ASSERT_TRUE(tools.Open());
    tools.Divert();
    EXPECT_EQ(0, system("echo one; echo two >&2; printf thr"));
    first = tools.TakeLines();
    EXPECT_EQ(0, system("echo ee; printf end >&2"));
    second = tools.TakeLines();
    rest = tools.TakeRest();
    tools.Restore();
  }
  EXPECT_EQ("one\ntwo\n", first);
  EXPECT_EQ("three\n", second);
  EXPECT_EQ("end\n", rest);
}

TEST_F(ReportsTest, TextTakesOneLine) {
  EXPECT_EQ("a\\nb\\x1bc\\x7f \xc3\xa4", OneLine("a\nb\x1b"
                                                 "c\x7f \xc3\xa4"));
  EXPECT_EQ("0:00", Clock(milliseconds(999)));
  EXPECT_EQ("1:05", Clock(milliseconds(65000)));
  EXPECT_EQ("2:00:01", Clock(milliseconds(7201000)));
}

}  // namespace
}  // namespace featurehost
