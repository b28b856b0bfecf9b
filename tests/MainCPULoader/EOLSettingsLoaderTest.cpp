#include <gmock/gmock.h>

#include "MainCPULoader/src/EOLSettingsLoader.h"
#include "tests/support/CleanTest.h"
#include "tests/support/FakeCallback.h"
#include "tests/support/FakeProperties.h"
#include "tests/support/GroupingLocale.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/ScriptedTools.h"

namespace {

using support::LogLine;
using support::RecordedLog;
using testing::ElementsAre;
using testing::ElementsAreArray;

const support::LogSource KLoader(logging::MainCPULoader, "MainCPULoader/src/EOLSettingsLoader");
const support::LogSource KRunner(logging::SWLInfra, "SWLInfra/src/CmdHandler");

const std::string KMount =
    "mkdir /tmp/eolmountpoint && mount -o rw,noexec,noatime,nodiratime,nodev,nosuid /dev/sdx "
    "/tmp/eolmountpoint";
const std::string KFolder = "mkdir -p /tmp/eolmountpoint/cfg";
const std::string KCopy =
    "dd if=/a/s.bin of=/tmp/eolmountpoint/cfg/eol.bin bs=1 skip=4096 count=256";
const std::string KUnmount = "umount /tmp/eolmountpoint && rmdir /tmp/eolmountpoint";

// The calls of tools that the command lines above amount to.
const std::string KCallMkdir = "mkdir /tmp/eolmountpoint";
const std::string KCallMount =
    "mount -o rw,noexec,noatime,nodiratime,nodev,nosuid /dev/sdx /tmp/eolmountpoint";
const std::string KCallUmount = "umount /tmp/eolmountpoint";
const std::string KCallRmdir = "rmdir /tmp/eolmountpoint";

// Nothing here reaches the real mount point: every tool is a script that only records its call.
class EOLSettingsLoaderTest : public support::CleanTest {
 protected:
  EOLSettingsLoaderTest() {
    properties_.values = {{"eolsource", "/a/s.bin"},
                          {"eoltarget", "/dev/sdx"},
                          {"eoltargetfilename", "cfg/eol.bin"},
                          {"eoloffset", "4096"},
                          {"eolsize", "256"}};
    for (const char* name : {"mkdir", "mount", "dd", "umount", "rmdir"}) {
      tools_.Add(name, "exit 0");
    }
  }

  void PrepareQuietly() {
    ASSERT_EQ(ETrue, loader_.Prepare());
    RecordedLog::Instance().Clear();
  }

  std::string featureId_ = "feature";
  support::FakeProperties properties_;
  support::FakeCallback callback_;
  support::ScriptedTools tools_;
  CEOLSettingsLoader loader_{"eol", featureId_, properties_, callback_};
};

TEST_F(EOLSettingsLoaderTest, ConstructionNeitherLogsNorLooksAnythingUp) {
  EXPECT_THAT(RecordedLog::Instance().Lines(), ElementsAre());
  EXPECT_THAT(properties_.Lookups(), ElementsAre());
}

TEST_F(EOLSettingsLoaderTest, PrepareReadsItsFivePropertiesInOrderAndLogsEach) {
  EXPECT_EQ(ETrue, loader_.Prepare());

  EXPECT_THAT(properties_.Lookups(),
              ElementsAre("eolsource", "eoltarget", "eoltargetfilename", "eoloffset", "eolsize"));
  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(
          KLoader.Info("Prepare", "EOLSettingsLoader"),
          KLoader.Info("EOLSettingsProperties", "EOLSettingsLoader: eol source: /a/s.bin"),
          KLoader.Info("EOLSettingsProperties", "EOLSettingsLoader: eol target device: /dev/sdx"),
          KLoader.Info("EOLSettingsProperties",
                       "EOLSettingsLoader: eol target filename: cfg/eol.bin"),
          KLoader.Info("EOLSettingsProperties", "EOLSettingsLoader: eol offset: 4096"),
          KLoader.Info("EOLSettingsProperties", "EOLSettingsLoader: eol size: 256")));
  EXPECT_THAT(callback_.Reports(), ElementsAre());
}

TEST_F(EOLSettingsLoaderTest, PrepareStopsAtTheFirstMissingPropertyWithoutAMessageOfItsOwn) {
  const std::vector<std::string> keys = {"eolsource", "eoltarget", "eoltargetfilename", "eoloffset",
                                         "eolsize"};
  for (std::size_t missing = 0; missing < keys.size(); ++missing) {
    SCOPED_TRACE(keys[missing]);
    support::FakeProperties properties;
    properties.values = properties_.values;
    properties.values.erase(keys[missing]);
    CEOLSettingsLoader loader("eol", featureId_, properties, callback_);
    RecordedLog::Instance().Clear();

    EXPECT_EQ(EFalse, loader.Prepare());

    EXPECT_THAT(properties.Lookups(),
                ElementsAreArray(keys.begin(), keys.begin() + static_cast<long>(missing) + 1));
    // The entry line and one line for each property that was found before.
    EXPECT_EQ(missing + 1, RecordedLog::Instance().Lines().size());
    EXPECT_EQ(RecordedLog::Instance().Lines(),
              RecordedLog::Instance().LinesOf({logging::categories::Info}));
  }
}

TEST_F(EOLSettingsLoaderTest, AnEmptyPropertyCountsAsFound) {
  properties_.values["eoltargetfilename"] = "";
  EXPECT_EQ(ETrue, loader_.Prepare());
}

TEST_F(EOLSettingsLoaderTest, PropertiesReadBeforeAMissKeepTheirValues) {
  PrepareQuietly();
  properties_.values["eolsource"] = "/b/other.bin";
  properties_.values["eoloffset"] = "7";
  properties_.values.erase("eolsize");
  ASSERT_EQ(EFalse, loader_.Prepare());

  loader_.Install();
  EXPECT_THAT(tools_.Calls(),
              testing::Contains(
                  "dd if=/b/other.bin of=/tmp/eolmountpoint/cfg/eol.bin bs=1 skip=7 count=256"));
}

TEST_F(EOLSettingsLoaderTest, InstallRunsFourCommandsInOrderAndReportsTheWholeSizeAsDone) {
  PrepareQuietly();

  loader_.Install();

  EXPECT_THAT(tools_.Calls(),
              ElementsAre(KCallMkdir, KCallMount, KFolder, KCopy, KCallUmount, KCallRmdir));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 0/256", "Completed 1"));
  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KLoader.Info("Install", "EOLSettingsLoader"),
                          KLoader.Error("Install", "EOLSettingsLoader: eol settings restored")));
}

TEST_F(EOLSettingsLoaderTest, TheSuccessLineIsWrittenBeforeTheReports) {
  PrepareQuietly();
  std::size_t linesAtFirstReport = 0;
  callback_.onReport = [&](const std::string& report) {
    if (report == "Progress 0/256") {
      linesAtFirstReport = RecordedLog::Instance().Lines().size();
    }
  };

  loader_.Install();
  EXPECT_EQ(2U, linesAtFirstReport);
}

TEST_F(EOLSettingsLoaderTest, WithoutAFolderPartTheFolderCommandIsNeverRun) {
  for (const char* name : {"eol.bin", "/eol.bin"}) {
    SCOPED_TRACE(name);
    tools_.Forget();
    properties_.values["eoltargetfilename"] = name;
    PrepareQuietly();

    loader_.Install();

    EXPECT_THAT(tools_.Calls(), ElementsAre(KCallMkdir, KCallMount,
                                            std::string("dd if=/a/s.bin of=/tmp/eolmountpoint/") +
                                                name + " bs=1 skip=4096 count=256",
                                            KCallUmount, KCallRmdir));
    EXPECT_EQ("Completed 1", callback_.Reports().back());
  }
}

TEST_F(EOLSettingsLoaderTest, TheFolderPartIsEverythingBeforeTheLastSlash) {
  properties_.values["eoltargetfilename"] = "a/b/c/eol.bin";
  PrepareQuietly();

  loader_.Install();
  EXPECT_THAT(tools_.Calls(), testing::Contains("mkdir -p /tmp/eolmountpoint/a/b/c"));
}

TEST_F(EOLSettingsLoaderTest, AFailedMountWithAFolderPartWritesAllStagesAndRunsNothingFurther) {
  tools_.Add("mount", "exit 32");
  PrepareQuietly();

  loader_.Install();

  EXPECT_THAT(tools_.Calls(), ElementsAre(KCallMkdir, KCallMount));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(
          KLoader.Info("Install", "EOLSettingsLoader"),
          KRunner.Error("SystemCmd", "'" + KMount + "' exited, result=32"),
          KLoader.Info("Install", "EOLSettingsLoader: failed to mount filesystem."),
          KLoader.Error("Install", "EOLSettingsLoader: failed to make directory"),
          KLoader.Error("Install", "EOLSettingsLoader: failed to copy eol settings."),
          KLoader.Error("Install", "EOLSettingsLoader: failed to umount."),
          KLoader.Error("Install", "EOLSettingsLoader: failed to restore eol settings: 32")));
}

TEST_F(EOLSettingsLoaderTest, AFailedMountWithoutAFolderPartBeginsWithTheCopyLine) {
  tools_.Add("mount", "exit 32");
  properties_.values["eoltargetfilename"] = "eol.bin";
  PrepareQuietly();

  loader_.Install();

  EXPECT_THAT(tools_.Calls(), ElementsAre(KCallMkdir, KCallMount));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(
          KLoader.Info("Install", "EOLSettingsLoader"),
          KRunner.Error("SystemCmd", "'" + KMount + "' exited, result=32"),
          KLoader.Info("Install", "EOLSettingsLoader: failed to mount filesystem."),
          KLoader.Error("Install", "EOLSettingsLoader: failed to copy eol settings."),
          KLoader.Error("Install", "EOLSettingsLoader: failed to umount."),
          KLoader.Error("Install", "EOLSettingsLoader: failed to restore eol settings: 32")));
}

TEST_F(EOLSettingsLoaderTest, AMountPointThatIsLeftOverFailsTheMountAsAWhole) {
  tools_.Add("mkdir", "exit 1");
  PrepareQuietly();

  loader_.Install();

  EXPECT_THAT(tools_.Calls(), ElementsAre(KCallMkdir));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_TRUE(
      RecordedLog::Instance().HasText("EOLSettingsLoader: failed to restore eol settings: 1"));
}

TEST_F(EOLSettingsLoaderTest, AFailedFolderCommandBeginsWithTheCopyLineAndLeavesItMounted) {
  tools_.Add("mkdir", "[ \"$1\" != -p ] || exit 3");
  PrepareQuietly();

  loader_.Install();

  EXPECT_THAT(tools_.Calls(), ElementsAre(KCallMkdir, KCallMount, KFolder));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(
          KLoader.Info("Install", "EOLSettingsLoader"),
          KRunner.Error("SystemCmd", "'" + KFolder + "' exited, result=3"),
          KLoader.Error("Install", "EOLSettingsLoader: failed to copy eol settings."),
          KLoader.Error("Install", "EOLSettingsLoader: failed to umount."),
          KLoader.Error("Install", "EOLSettingsLoader: failed to restore eol settings: 3")));
}

TEST_F(EOLSettingsLoaderTest, AFailedCopyBeginsWithTheUnmountLineAndLeavesItMounted) {
  tools_.Add("dd", "exit 5");
  PrepareQuietly();

  loader_.Install();

  EXPECT_THAT(tools_.Calls(), ElementsAre(KCallMkdir, KCallMount, KFolder, KCopy));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KLoader.Info("Install", "EOLSettingsLoader"),
                          KRunner.Error("SystemCmd", "'" + KCopy + "' exited, result=5"),
                          KLoader.Error("Install", "EOLSettingsLoader: failed to umount."),
                          KLoader.Error("Install",
                                        "EOLSettingsLoader: failed to restore eol settings: 5")));
}

TEST_F(EOLSettingsLoaderTest, AFailedUnmountWritesTheLastLineOnlyAndKeepsTheFolder) {
  tools_.Add("umount", "exit 16");
  PrepareQuietly();

  loader_.Install();

  EXPECT_THAT(tools_.Calls(), ElementsAre(KCallMkdir, KCallMount, KFolder, KCopy, KCallUmount));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KLoader.Info("Install", "EOLSettingsLoader"),
                          KRunner.Error("SystemCmd", "'" + KUnmount + "' exited, result=16"),
                          KLoader.Error("Install",
                                        "EOLSettingsLoader: failed to restore eol settings: 16")));
}

TEST_F(EOLSettingsLoaderTest, AMountPointThatCannotBeRemovedFailsTheRestore) {
  tools_.Add("rmdir", "exit 1");
  PrepareQuietly();

  loader_.Install();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Completed 0"));
  EXPECT_TRUE(
      RecordedLog::Instance().HasText("EOLSettingsLoader: failed to restore eol settings: 1"));
}

TEST_F(EOLSettingsLoaderTest, AKilledCommandCountsAsDone) {
  // The properties become part of a shell line as they are, so this one ends its own shell.
  properties_.values["eolsource"] = "/a/s.bin; kill -KILL $$;";
  PrepareQuietly();

  loader_.Install();

  EXPECT_THAT(tools_.Calls(), ElementsAre(KCallMkdir, KCallMount, KFolder, "dd if=/a/s.bin",
                                          KCallUmount, KCallRmdir));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 0/256", "Completed 1"));
}

TEST_F(EOLSettingsLoaderTest, TheCopyCommandDoesNotFollowTheHostsLocale) {
  PrepareQuietly();
  const support::GroupingLocale locale;

  loader_.Install();

  EXPECT_THAT(tools_.Calls(), testing::Contains(KCopy));
}

TEST_F(EOLSettingsLoaderTest, NumbersAreDecimalAndWrittenUnsigned) {
  struct TCase {
    const char* offset;
    const char* size;
    const char* numbers;
    const char* progress;
  };
  for (const TCase& test : {TCase{"0x10", "12abc", "skip=0 count=12", "Progress 0/12"},
                            TCase{"junk", "", "skip=0 count=0", "Progress 0/0"},
                            TCase{"-1", "256", "skip=4294967295 count=256", "Progress 0/256"},
                            TCase{"9999999999", "-9999999999", "skip=2147483647 count=2147483648",
                                  "Progress 0/2147483648"}}) {
    SCOPED_TRACE(test.numbers);
    tools_.Forget();
    callback_.Forget();
    RecordedLog::Instance().Clear();
    properties_.values["eoloffset"] = test.offset;
    properties_.values["eolsize"] = test.size;
    ASSERT_EQ(ETrue, loader_.Prepare());
    EXPECT_TRUE(RecordedLog::Instance().HasText(std::string("EOLSettingsLoader: eol offset: ") +
                                                test.offset));
    EXPECT_TRUE(
        RecordedLog::Instance().HasText(std::string("EOLSettingsLoader: eol size: ") + test.size));

    loader_.Install();

    EXPECT_THAT(
        tools_.Calls(),
        testing::Contains(std::string("dd if=/a/s.bin of=/tmp/eolmountpoint/cfg/eol.bin bs=1 ") +
                          test.numbers));
    EXPECT_THAT(callback_.Reports(), ElementsAre(test.progress, "Completed 1"));
  }
}

TEST_F(EOLSettingsLoaderTest, AnInstallWithoutAPrepareRunsTheCommandsOfEmptyProperties) {
  loader_.Install();

  EXPECT_THAT(tools_.Calls(),
              testing::Contains("dd if= of=/tmp/eolmountpoint/ bs=1 skip=0 count=0"));
  EXPECT_THAT(callback_.Reports(), ElementsAre("Progress 0/0", "Completed 1"));
}

TEST_F(EOLSettingsLoaderTest, InstallCanBeRepeated) {
  PrepareQuietly();
  loader_.Install();
  loader_.Install();
  EXPECT_THAT(callback_.Reports(),
              ElementsAre("Progress 0/256", "Completed 1", "Progress 0/256", "Completed 1"));
}

TEST_F(EOLSettingsLoaderTest, AbortReportsEachTimeAndRunsNothing) {
  loader_.Abort();
  loader_.Abort();

  EXPECT_THAT(callback_.Reports(), ElementsAre("Aborted", "Aborted"));
  EXPECT_THAT(tools_.Calls(), ElementsAre());
  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KLoader.Info("Abort", "EOLSettingsLoader"),
                          KLoader.Info("Abort", "EOLSettingsLoader")));
}

}  // namespace
