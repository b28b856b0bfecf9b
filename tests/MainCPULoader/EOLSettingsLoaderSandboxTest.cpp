#include <filesystem>
#include <gmock/gmock.h>

#include "MainCPULoader/src/EOLSettingsLoader.h"
#include "tests/support/FakeCallback.h"
#include "tests/support/FakeProperties.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/SandboxedTest.h"
#include "tests/support/TempDir.h"

namespace {

using support::RecordedLog;
using support::Shell;
using testing::ElementsAre;

const std::string KDevice = "/dev/mmcblk1p2";
const std::string KMountPoint = "/tmp/eolmountpoint";

class EOLSettingsLoaderSandboxTest : public support::SandboxedTest {
 protected:
  void SetUp() override {
    SandboxedTest::SetUp();
    if (IsSkipped()) {
      return;
    }
    Shell("mkfs.ext2 -q " + KDevice);
    support::WriteFile(source_, settings_);
    properties_.values = {{"eolsource", source_},
                          {"eoltarget", KDevice},
                          {"eoltargetfilename", "cfg/sub/eol.bin"},
                          {"eoloffset", "4096"},
                          {"eolsize", "256"}};
  }

  void TearDown() override {
    if (!IsSkipped()) {
      if (IsMounted()) {
        Shell("umount " + KMountPoint);
      }
      std::filesystem::remove(KMountPoint);
    }
    SandboxedTest::TearDown();
  }

  /** Prepare and install; the reports of this run. */
  std::vector<std::string> Run() {
    callback_.Forget();
    RecordedLog::Instance().Clear();
    EXPECT_EQ(ETrue, loader_.Prepare());
    loader_.Install();
    return callback_.Reports();
  }

  static bool MountPointExists() { return std::filesystem::exists(KMountPoint); }
  static bool IsMounted() {
    return support::ReadFile("/proc/mounts").find(" " + KMountPoint + " ") != std::string::npos;
  }

  /** The file as it lies on the device. */
  std::string Installed(const std::string& name) const {
    const support::TempDir mountPoint;
    Shell("mount -o ro " + KDevice + " " + mountPoint.Path());
    std::string content = support::ReadFile(mountPoint / name);
    Shell("umount " + mountPoint.Path());
    return content;
  }

  support::TempDir directory_;
  const std::string source_ = directory_ / "settings.bin";
  const std::string settings_ = support::RandomBytes(16384);
  std::string featureId_ = "feature";
  support::FakeProperties properties_;
  support::FakeCallback callback_;
  CEOLSettingsLoader loader_{"eol", featureId_, properties_, callback_};
};

TEST_F(EOLSettingsLoaderSandboxTest, CopiesTheRangeIntoAFileInAFolder) {
  EXPECT_THAT(Run(), ElementsAre("Progress 0/256", "Completed 1"));

  EXPECT_FALSE(MountPointExists());
  EXPECT_EQ(settings_.substr(4096, 256), Installed("cfg/sub/eol.bin"));
}

TEST_F(EOLSettingsLoaderSandboxTest, CopiesTheRangeIntoAFileInTheRoot) {
  properties_.values["eoltargetfilename"] = "eol.bin";

  EXPECT_THAT(Run(), ElementsAre("Progress 0/256", "Completed 1"));

  EXPECT_FALSE(MountPointExists());
  EXPECT_EQ(settings_.substr(4096, 256), Installed("eol.bin"));
}

TEST_F(EOLSettingsLoaderSandboxTest, ReplacesWhatAnEarlierRunWrote) {
  EXPECT_THAT(Run(), ElementsAre("Progress 0/256", "Completed 1"));
  properties_.values["eoloffset"] = "3";
  properties_.values["eolsize"] = "10";

  EXPECT_THAT(Run(), ElementsAre("Progress 0/10", "Completed 1"));
  EXPECT_EQ(settings_.substr(3, 10), Installed("cfg/sub/eol.bin"));
}

TEST_F(EOLSettingsLoaderSandboxTest, ASizeOfZeroMakesAnEmptyFile) {
  properties_.values["eolsize"] = "0";

  EXPECT_THAT(Run(), ElementsAre("Progress 0/0", "Completed 1"));
  EXPECT_EQ("", Installed("cfg/sub/eol.bin"));
}

TEST_F(EOLSettingsLoaderSandboxTest, AnOffsetBehindTheEndOfTheSourceIsNoFailureOfDd) {
  properties_.values["eoloffset"] = "20000";

  EXPECT_THAT(Run(), ElementsAre("Progress 0/256", "Completed 1"));
  EXPECT_EQ("", Installed("cfg/sub/eol.bin"));
}

TEST_F(EOLSettingsLoaderSandboxTest, ASourceThatIsTooShortIsCopiedAsFarAsItGoes) {
  properties_.values["eoloffset"] = "16380";

  EXPECT_THAT(Run(), ElementsAre("Progress 0/256", "Completed 1"));
  EXPECT_EQ(settings_.substr(16380), Installed("cfg/sub/eol.bin"));
}

TEST_F(EOLSettingsLoaderSandboxTest, ALeftOverMountPointFailsEveryRunUntilItIsGone) {
  std::filesystem::create_directory(KMountPoint);

  EXPECT_THAT(Run(), ElementsAre("Completed 0"));
  EXPECT_TRUE(
      RecordedLog::Instance().HasText("EOLSettingsLoader: failed to restore eol settings: 1"));
  EXPECT_THAT(Run(), ElementsAre("Completed 0"));
  EXPECT_FALSE(IsMounted());

  std::filesystem::remove(KMountPoint);
  EXPECT_THAT(Run(), ElementsAre("Progress 0/256", "Completed 1"));
}

TEST_F(EOLSettingsLoaderSandboxTest, AFailedCopyLeavesTheFileSystemMounted) {
  properties_.values["eolsource"] = directory_ / "none";

  EXPECT_THAT(Run(), ElementsAre("Completed 0"));
  EXPECT_TRUE(IsMounted());
  EXPECT_TRUE(RecordedLog::Instance().HasText("EOLSettingsLoader: failed to umount."));

  // The next run fails at the mount point, also when the source is back.
  properties_.values["eolsource"] = source_;
  EXPECT_THAT(Run(), ElementsAre("Completed 0"));
  EXPECT_TRUE(RecordedLog::Instance().HasText("EOLSettingsLoader: failed to mount filesystem."));

  Shell("umount " + KMountPoint + " && rmdir " + KMountPoint);
  EXPECT_THAT(Run(), ElementsAre("Progress 0/256", "Completed 1"));
}

TEST_F(EOLSettingsLoaderSandboxTest, AFullFileSystemFailsTheCopyAndStaysMounted) {
  properties_.values["eolsize"] = "8192";
  {
    const support::TempDir mountPoint;
    Shell("mount " + KDevice + " " + mountPoint.Path() + " && mkdir -p " + mountPoint.Path() +
          "/cfg/sub && (dd if=/dev/zero of=" + mountPoint.Path() +
          "/fill bs=1k status=none 2>&1 | grep -q 'No space left'); umount " + mountPoint.Path());
  }

  EXPECT_THAT(Run(), ElementsAre("Completed 0"));
  EXPECT_TRUE(IsMounted());
  EXPECT_TRUE(
      RecordedLog::Instance().HasText("EOLSettingsLoader: failed to restore eol settings: 1"));
}

TEST_F(EOLSettingsLoaderSandboxTest, ADeviceWithoutAFileSystemLeavesTheMountPointBehind) {
  Shell("dd if=/dev/zero of=" + KDevice + " bs=64k count=1 status=none");

  EXPECT_THAT(Run(), ElementsAre("Completed 0"));
  EXPECT_TRUE(
      RecordedLog::Instance().HasText("EOLSettingsLoader: failed to restore eol settings: 32"));
  EXPECT_TRUE(MountPointExists());
  EXPECT_FALSE(IsMounted());
}

TEST_F(EOLSettingsLoaderSandboxTest, AFileWhereTheFolderShouldBeFailsTheFolderCommand) {
  properties_.values["eoltargetfilename"] = "cfg";
  ASSERT_EQ("Completed 1", Run().back());
  properties_.values["eoltargetfilename"] = "cfg/eol.bin";

  EXPECT_THAT(Run(), ElementsAre("Completed 0"));
  EXPECT_TRUE(IsMounted());
  EXPECT_TRUE(RecordedLog::Instance().HasText("EOLSettingsLoader: failed to copy eol settings."));
}

TEST_F(EOLSettingsLoaderSandboxTest, TheFileSystemIsMountedWithTheFixedOptions) {
  properties_.values["eolsource"] = directory_ / "none";
  ASSERT_EQ("Completed 0", Run().back());

  const std::string mounts = support::ReadFile("/proc/mounts");
  const auto begin = mounts.find(" " + KMountPoint + " ");
  const std::string line = mounts.substr(begin, mounts.find('\n', begin) - begin);
  for (const char* option : {"rw", "noexec", "noatime", "nodev", "nosuid"}) {
    EXPECT_THAT(line, testing::ContainsRegex(std::string("[ ,]") + option + "[ ,]"));
  }
}

}  // namespace
