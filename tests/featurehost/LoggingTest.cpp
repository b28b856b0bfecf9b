#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include "featurehost/src/HostError.h"
#include "featurehost/src/Log.h"
#include "host/Logging.h"
#include "tests/featurehost/HostTest.h"

namespace featurehost {
namespace {

using logging::IControl;
using logging::internals::CLogHandle;
using logging::internals::ILog;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

namespace categories = logging::categories;

class LoggingTest : public HostTest {
 protected:
  void TearDown() override {
    Log::Instance().SetStandardError(STDERR_FILENO);
    Log::Instance().SetAround(nullptr, nullptr);
    HostTest::TearDown();
  }

  /** Let standard error of the log be a file, whose text is the result's. */
  std::string StandardErrorOf(const std::function<void()>& action) {
    const std::string path = folder_ / "stderr";
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    Log::Instance().SetStandardError(file);
    action();
    Log::Instance().SetStandardError(STDERR_FILENO);
    close(file);
    return support::ReadFile(path);
  }

  static void Write(const char* category, const char* text = "text") {
    const TBool enabled = IControl().IsEnabled(logging::SWLInfra, category);
    CLogHandle(ILog(), enabled, category, logging::SWLInfra, "Function", "SWLInfra/src/File", 12)
        << "(" << text << ")"
        << "\n";
  }

  static void WriteAll() {
    for (const char* category : {categories::Error, categories::Warning, categories::Info,
                                 categories::Interface, categories::Always}) {
      Write(category, category);
    }
  }
};

TEST_F(LoggingTest, LineHasTimeLevelModuleFunctionPlaceAndMessage) {
  Write(categories::Error);
  EXPECT_THAT(LogText(),
              MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
                           "error SWLInfra Function SWLInfra/src/File:12 \\(text\\)\n"));
}

TEST_F(LoggingTest, PiecesOfEveryKindAreWritten) {
  {
    CLogHandle line(ILog(), ETrue, categories::Info, "logging::X", "F", "S", 1);
    line << "a" << reinterpret_cast<const TChr*>("b") << TInt32{-5} << TUint32{4294967295U}
         << TUint8{255} << static_cast<const char*>(nullptr);
    EXPECT_THAT(LogText(), IsEmpty()) << "committed when it ends";
  }
  EXPECT_THAT(LogText(), HasSubstr("info X F S:1 ab-54294967295255(null)\n"));
}

TEST_F(LoggingTest, MessageOfSeveralLinesTakesOne) {
  Write(categories::Error, "a\nb\x1b[2Jc");
  EXPECT_THAT(LogText(), HasSubstr("(a\\nb\\x1b[2Jc)\n"));
}

TEST_F(LoggingTest, LineThatIsNotEnabledIsDropped) {
  { CLogHandle(ILog(), EFalse, categories::Error, "m", "f", "s", 1) << "text" << TInt32{1}; }
  EXPECT_THAT(LogText(), IsEmpty());
}

TEST_F(LoggingTest, LevelSelectsCategories) {
  const struct {
    Level level;
    int shown;
  } kCases[] = {
      {Level::kError, 2}, {Level::kWarning, 3}, {Level::kInfo, 4}, {Level::kInterface, 5}};
  for (const auto& entry : kCases) {
    Log::Instance().SetLevel(entry.level);
    int shown = 0;
    for (const char* category : {categories::Always, categories::Error, categories::Warning,
                                 categories::Info, categories::Interface}) {
      const bool expected = shown < entry.shown;
      EXPECT_EQ(expected ? ETrue : EFalse, IControl().IsEnabled("any", category)) << category;
      ++shown;
    }
  }
}

TEST_F(LoggingTest, LevelsHaveTheNamesOfTheCommandLine) {
  EXPECT_EQ(Level::kError, LevelOf("error"));
  EXPECT_EQ(Level::kWarning, LevelOf("warning"));
  EXPECT_EQ(Level::kInfo, LevelOf("info"));
  EXPECT_EQ(Level::kInterface, LevelOf("interface"));
  EXPECT_EQ(std::nullopt, LevelOf("always"));
  EXPECT_EQ(std::nullopt, LevelOf("loud"));
}

TEST_F(LoggingTest, StandardErrorGetsWhatTheFileGets) {
  Log::Instance().SetQuiet(false);
  Log::Instance().SetLevel(Level::kWarning);
  const std::string text = StandardErrorOf(WriteAll);
  EXPECT_EQ(text, LogText());
  EXPECT_THAT(text, HasSubstr(" error SWLInfra"));
  EXPECT_THAT(text, HasSubstr(" warning SWLInfra"));
  EXPECT_THAT(text, HasSubstr(" always SWLInfra"));
  EXPECT_THAT(text, Not(HasSubstr(" info SWLInfra")));
}

TEST_F(LoggingTest, QuietStandardErrorGetsErrorsAloneAndTheFileItsLevel) {
  Log::Instance().SetLevel(Level::kInfo);
  const std::string text = StandardErrorOf(WriteAll);
  EXPECT_THAT(text, HasSubstr(" error SWLInfra"));
  EXPECT_THAT(text, Not(HasSubstr(" always SWLInfra")));
  EXPECT_THAT(text, Not(HasSubstr(" warning SWLInfra")));
  EXPECT_THAT(LogText(), HasSubstr(" info SWLInfra"));
  EXPECT_THAT(LogText(), HasSubstr(" always SWLInfra"));
}

TEST_F(LoggingTest, LinesOnStandardErrorAreAnnouncedForTheProgressBar) {
  std::string calls;
  Log::Instance().SetAround([&] { calls += "<"; }, [&] { calls += ">"; });
  StandardErrorOf(WriteAll);
  EXPECT_EQ("<>", calls) << "only the error is shown there";
}

TEST_F(LoggingTest, FileIsAppendedTo) {
  Write(categories::Error, "first");
  Log::Instance().CloseFile();
  Log::Instance().OpenFile(folder_ / "log");
  Write(categories::Error, "second");
  EXPECT_THAT(LogText(), HasSubstr("(first)"));
  EXPECT_THAT(LogText(), HasSubstr("(second)"));
}

TEST_F(LoggingTest, FileThatCannotBeOpenedIsAUsageError) {
  try {
    support::WriteFile(folder_ / "plain", "");
    Log::Instance().OpenFile(folder_ / "plain" + "/log");
    FAIL() << "no error";
  } catch (const HostError& error) {
    EXPECT_EQ(ExitCode::kUsage, error.Code());
    EXPECT_THAT(error.what(), HasSubstr("--log-file: "));
    EXPECT_THAT(error.what(), HasSubstr("plain/log"));
  }
}

TEST_F(LoggingTest, LogFileIsNotInherited) {
  for (const auto& [descriptor, target] : support::OpenDescriptors()) {
    if (target == folder_ / "log") {
      EXPECT_NE(0, fcntl(descriptor, F_GETFD) & FD_CLOEXEC);
      return;
    }
  }
  FAIL() << "the log file is not open";
}

TEST_F(LoggingTest, LogThatCannotBeWrittenIsNoFailure) {
  Log::Instance().OpenFile("/dev/full");
  Write(categories::Error);
  Write(categories::Error);
  Log::Instance().OpenFile(folder_ / "log");
  EXPECT_THAT(LogText(), IsEmpty());
}

}  // namespace
}  // namespace featurehost
