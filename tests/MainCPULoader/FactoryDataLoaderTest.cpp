#include <climits>
#include <cstdint>
#include <gmock/gmock.h>
#include <memory>

#include "MainCPULoader/src/FactoryDataLoader.h"
#include "tests/support/CleanTest.h"
#include "tests/support/FakeBroker.h"
#include "tests/support/FakeCallback.h"
#include "tests/support/FakeProperties.h"
#include "tests/support/GroupingLocale.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/ScriptedTools.h"
#include "tests/support/SystemHook.h"
#include "tests/support/TempDir.h"

namespace {

using support::LogLine;
using support::RecordedLog;
using testing::ElementsAre;
using testing::IsEmpty;

const support::LogSource KLoader(logging::MainCPULoader, "MainCPULoader/src/FactoryDataLoader");
const support::LogSource KCommands(logging::SWLInfra, "SWLInfra/src/CmdHandler");

const std::vector<LogLine>& Log() {
  return RecordedLog::Instance().Lines();
}

class FactoryDataLoaderTest : public support::CleanTest {
 protected:
  FactoryDataLoaderTest() { Configure("/a/fd.bin", "/dev/sdx", "1024", "512"); }

  void Configure(const std::string& source, const std::string& target, const std::string& offset,
                 const std::string& size) {
    properties_.values = {
        {"fdsource", source}, {"fdtarget", target}, {"fdoffset", offset}, {"fdsize", size}};
  }

  void Prepare() {
    EXPECT_EQ(ETrue, loader_.Prepare());
    RecordedLog::Instance().Clear();
  }

  /** The command line of an install, which is not run. */
  std::string Command() {
    std::string seen;
    const support::SystemHook hook([&seen](const std::string& command) {
      seen = command;
      return 0;
    });
    loader_.Install();
    return seen;
  }

  std::string featureId_ = "feature";
  support::FakeBroker broker_;
  support::FakeProperties properties_;
  support::FakeCallback callback_;
  CFactoryDataLoader loader_{"fd", featureId_, broker_, properties_, callback_};
};

TEST_F(FactoryDataLoaderTest, IsALoaderThenAnObserver) {
  const auto address = [](const void* part) { return reinterpret_cast<std::uintptr_t>(part); };
  const std::uintptr_t whole = address(&loader_);
  EXPECT_EQ(whole, address(static_cast<ILoader*>(&loader_)));
  EXPECT_EQ(whole + sizeof(void*), address(static_cast<IEventObserver*>(&loader_)));
}

TEST_F(FactoryDataLoaderTest, ItsLifeAloneDoesNothing) {
  { CFactoryDataLoader other("fd", featureId_, broker_, properties_, callback_); }

  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_THAT(properties_.Lookups(), IsEmpty());
  EXPECT_THAT(broker_.Calls(), IsEmpty());
  EXPECT_THAT(callback_.Reports(), IsEmpty());
}

// Prepare

TEST_F(FactoryDataLoaderTest, PrepareReadsItsFourPropertiesInOrderAndLogsEach) {
  EXPECT_EQ(ETrue, loader_.Prepare());

  EXPECT_THAT(properties_.Lookups(), ElementsAre("fdsource", "fdtarget", "fdoffset", "fdsize"));
  EXPECT_THAT(
      Log(),
      ElementsAre(
          KLoader.Info("Prepare", "FactoryDataLoader"),
          KLoader.Info("FillFactoryDataProperties", "FactoryDataLoader: fd source: /a/fd.bin"),
          KLoader.Info("FillFactoryDataProperties",
                       "FactoryDataLoader: fd target device: /dev/sdx"),
          KLoader.Info("FillFactoryDataProperties", "FactoryDataLoader: fd offset: 1024"),
          KLoader.Info("FillFactoryDataProperties", "FactoryDataLoader: fd size: 512")));
  EXPECT_THAT(broker_.Calls(), IsEmpty());
  EXPECT_THAT(callback_.Reports(), IsEmpty());
}

TEST_F(FactoryDataLoaderTest, TheFeatureIdIsCopied) {
  featureId_ = "another";

  EXPECT_EQ(ETrue, loader_.Prepare());
}

TEST_F(FactoryDataLoaderTest, PrepareStopsWithoutAMessageAtTheFirstMissingProperty) {
  const std::vector<std::string> keys = {"fdsource", "fdtarget", "fdoffset", "fdsize"};
  for (std::size_t missing = 0; missing < keys.size(); ++missing) {
    RecordedLog::Instance().Clear();
    properties_ = support::FakeProperties();
    Configure("/a/fd.bin", "/dev/sdx", "1024", "512");
    properties_.values.erase(keys[missing]);

    EXPECT_EQ(EFalse, loader_.Prepare()) << keys[missing];

    EXPECT_EQ(std::vector<std::string>(keys.begin(), keys.begin() + 1 + static_cast<long>(missing)),
              properties_.Lookups());
    EXPECT_EQ(1 + missing, Log().size()) << "the entry line and one for each property found";
    EXPECT_THAT(RecordedLog::Instance().Errors(), IsEmpty());
  }
}

TEST_F(FactoryDataLoaderTest, WhatWasReadBeforeAMissingPropertyIsKept) {
  Prepare();
  Configure("/new.bin", "/dev/new", "7", "");
  properties_.values.erase("fdsize");

  EXPECT_EQ(EFalse, loader_.Prepare());

  EXPECT_EQ("dd if=/new.bin of=/dev/new bs=1 skip=7 count=512", Command());
}

TEST_F(FactoryDataLoaderTest, EmptyPropertiesAreFound) {
  Configure("", "", "", "");

  EXPECT_EQ(ETrue, loader_.Prepare());
  EXPECT_EQ("dd if= of= bs=1 skip=0 count=0", Command());
}

TEST_F(FactoryDataLoaderTest, NumbersAreDecimalAndLoggedAsTheyWereWritten) {
  Configure("/s", "/t", "0x10", "12abc");

  EXPECT_EQ(ETrue, loader_.Prepare());

  EXPECT_TRUE(RecordedLog::Instance().HasText("FactoryDataLoader: fd offset: 0x10"));
  EXPECT_TRUE(RecordedLog::Instance().HasText("FactoryDataLoader: fd size: 12abc"));
  EXPECT_EQ("dd if=/s of=/t bs=1 skip=0 count=12", Command());
}

TEST_F(FactoryDataLoaderTest, NumbersOutOfRangeSaturate) {
  Configure("/s", "/t", "4294967296", "-4294967296");
  Prepare();

  EXPECT_EQ("dd if=/s of=/t bs=1 skip=2147483647 count=-2147483648", Command());
}

// Install

TEST_F(FactoryDataLoaderTest, InstallRunsOneCommand) {
  Prepare();

  EXPECT_EQ("dd if=/a/fd.bin of=/dev/sdx bs=1 skip=1024 count=512", Command());
}

TEST_F(FactoryDataLoaderTest, TheCommandDoesNotFollowTheHostsLocale) {
  Prepare();
  const support::GroupingLocale locale;

  EXPECT_EQ("dd if=/a/fd.bin of=/dev/sdx bs=1 skip=1024 count=512", Command());
}

TEST_F(FactoryDataLoaderTest, TheShellSeesThePathsAsTheyAre) {
  support::ScriptedTools tools;
  tools.Add("dd", "exit 0");
  Configure("/a b", "$HOME_OF_NOBODY/c", "0", "1");
  Prepare();

  loader_.Install();

  EXPECT_THAT(tools.Calls(), ElementsAre("dd if=/a b of=/c bs=1 skip=0 count=1"));
}

TEST_F(FactoryDataLoaderTest, SuccessIsReportedAsFullProgressAndThenCompletion) {
  support::ScriptedTools tools;
  tools.Add("dd", "exit 0");
  Prepare();

  loader_.Install();

  EXPECT_THAT(tools.Calls(), ElementsAre("dd if=/a/fd.bin of=/dev/sdx bs=1 skip=1024 count=512"));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 0/512", "Completed 1"));
  EXPECT_THAT(Log(),
              ElementsAre(KLoader.Info("Install", "FactoryDataLoader"),
                          KLoader.Info("Install", "FactoryDataLoader: factory data restored")));
  EXPECT_THAT(broker_.Calls(), IsEmpty());
}

TEST_F(FactoryDataLoaderTest, SuccessIsLoggedBeforeItIsReported) {
  std::vector<std::size_t> linesAtReport;
  callback_.onReport = [&](const std::string&) { linesAtReport.push_back(Log().size()); };
  Prepare();

  Command();

  EXPECT_THAT(linesAtReport, ElementsAre(2, 2));
}

TEST_F(FactoryDataLoaderTest, AnExitCodeIsAFailureWithoutProgress) {
  support::ScriptedTools tools;
  tools.Add("dd", "exit 3");
  Prepare();

  loader_.Install();

  const std::string command = "dd if=/a/fd.bin of=/dev/sdx bs=1 skip=1024 count=512";
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_THAT(
      Log(), ElementsAre(
                 KLoader.Info("Install", "FactoryDataLoader"),
                 KCommands.Error("SystemCmd", "'" + command + "' exited, result=3"),
                 KLoader.Error("Install", "FactoryDataLoader: failed to restore factory data: 3")));
}

TEST_F(FactoryDataLoaderTest, AMissingToolIsAFailure) {
  support::ScriptedTools tools;
  tools.HideOthers();
  Prepare();

  loader_.Install();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_TRUE(
      RecordedLog::Instance().HasText("FactoryDataLoader: failed to restore factory data: 127"));
}

TEST_F(FactoryDataLoaderTest, ACommandThatWasKilledCountsAsSuccess) {
  const support::SystemHook hook([](const std::string&) { return 9; });
  Prepare();

  loader_.Install();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 0/512", "Completed 1"));
  EXPECT_THAT(
      Log(),
      ElementsAre(KLoader.Info("Install", "FactoryDataLoader"),
                  KCommands.Error("SystemCmd",
                                  "'dd if=/a/fd.bin of=/dev/sdx bs=1 skip=1024 count=512' killed "
                                  "by signal 9"),
                  KLoader.Info("Install", "FactoryDataLoader: factory data restored")));
}

TEST_F(FactoryDataLoaderTest, ACopyThatIsKilledTogetherWithItsShellCountsAsSuccess) {
  support::ScriptedTools tools;
  // The shell's own end is what counts: one that outlives its tool gives an exit code instead.
  tools.Add("dd",
            "case $(cat /proc/$PPID/comm) in *sh) kill -9 $PPID;; *) kill -9 $$;; esac; exit 1");
  Prepare();

  loader_.Install();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 0/512", "Completed 1"));
}

TEST_F(FactoryDataLoaderTest, ACommandThatCannotBeStartedCountsAsSuccess) {
  const support::SystemHook hook([](const std::string&) { return -1; });
  Prepare();

  loader_.Install();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 0/512", "Completed 1"));
}

TEST_F(FactoryDataLoaderTest, ANegativeSizeIsReportedAsALargeTotal) {
  Configure("/s", "/t", "0", "-1");
  Prepare();

  EXPECT_EQ("dd if=/s of=/t bs=1 skip=0 count=-1", Command());
  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 0/4294967295", "Completed 1"));
}

TEST_F(FactoryDataLoaderTest, AnInstallWithoutAPrepareRunsTheCommandOfEmptyProperties) {
  EXPECT_EQ("dd if= of= bs=1 skip=0 count=0", Command());
}

// With the real dd

class FactoryDataCopyTest : public FactoryDataLoaderTest {
 protected:
  void SetUp() override {
    FactoryDataLoaderTest::SetUp();
    data_ = support::RandomBytes(20000);
    support::WriteFile(source_, data_);
  }

  void Install(const std::string& offset, const std::string& size) {
    Configure(source_, target_, offset, size);
    Prepare();
    loader_.Install();
  }

  support::TempDir directory_;
  std::string source_ = directory_ / "factory.bin";
  std::string target_ = directory_ / "device";
  std::string data_;
};

TEST_F(FactoryDataCopyTest, CopiesTheByteRange) {
  Install("1024", "512");

  EXPECT_EQ(data_.substr(1024, 512), support::ReadFile(target_));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 0/512", "Completed 1"));
}

TEST_F(FactoryDataCopyTest, NeedsNoAlignment) {
  Install("4097", "8191");

  EXPECT_EQ(data_.substr(4097, 8191), support::ReadFile(target_));
}

TEST_F(FactoryDataCopyTest, CopiesTheWholeFile) {
  Install("0", "20000");

  EXPECT_EQ(data_, support::ReadFile(target_));
}

TEST_F(FactoryDataCopyTest, ARangeBeyondTheEndIsCutAndCountsAsSuccess) {
  Install("19990", "100");

  EXPECT_EQ(data_.substr(19990), support::ReadFile(target_));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 0/100", "Completed 1"));
}

TEST_F(FactoryDataCopyTest, ASizeOfZeroCopiesNothingAndReportsATotalOfZero) {
  Install("5", "0");

  EXPECT_EQ("", support::ReadFile(target_));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 0/0", "Completed 1"));
}

TEST_F(FactoryDataCopyTest, AMissingSourceFails) {
  Configure(directory_ / "missing", target_, "0", "1");
  Prepare();

  loader_.Install();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_TRUE(
      RecordedLog::Instance().HasText("FactoryDataLoader: failed to restore factory data: 1"));
}

TEST_F(FactoryDataCopyTest, EmptyPathsFail) {
  Configure("", "", "0", "1");
  Prepare();

  loader_.Install();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
}

TEST_F(FactoryDataCopyTest, ANegativeSizeFails) {
  Install("0", "-1");

  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
}

TEST_F(FactoryDataCopyTest, ASecondInstallCopiesAgain) {
  Install("0", "10");
  support::WriteFile(target_, "");

  loader_.Install();

  EXPECT_EQ(data_.substr(0, 10), support::ReadFile(target_));
  EXPECT_THAT(callback_.Reports(),
              ElementsAre("Progress 0/10", "Completed 1", "Progress 0/10", "Completed 1"));
}

// Abort and events

TEST_F(FactoryDataLoaderTest, AbortIsAnsweredEachTimeBeforeAndAfterAnInstall) {
  loader_.Abort();
  Prepare();
  Command();
  callback_.Forget();
  RecordedLog::Instance().Clear();

  loader_.Abort();
  loader_.Abort();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Aborted", "Aborted"));
  EXPECT_THAT(Log(), ElementsAre(KLoader.Info("Abort", "FactoryDataLoader"),
                                 KLoader.Info("Abort", "FactoryDataLoader")));
}

TEST_F(FactoryDataLoaderTest, AnAbortBeforeAnythingElseIsAnswered) {
  loader_.Abort();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Aborted"));
}

TEST_F(FactoryDataLoaderTest, EventsOfAnyKindAreOnlyLogged) {
  for (const TUint32 type : {0U, 1U, 3U, 99U}) {
    RecordedLog::Instance().Clear();

    loader_.OnEvent({type, EUserEventControllerAbort, 0, nullptr});

    EXPECT_THAT(Log(), ElementsAre(KLoader.Info("OnEvent", "FactoryDataLoader: Timer Event")));
  }
  EXPECT_THAT(callback_.Reports(), IsEmpty());
  EXPECT_THAT(broker_.Calls(), IsEmpty());
}

}  // namespace
