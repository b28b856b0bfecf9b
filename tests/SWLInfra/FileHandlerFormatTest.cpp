#include <gmock/gmock.h>

#include "SWLInfra/src/FileHandler.h"
#include "SWLInfra/src/Text.h"
#include "tests/support/CleanTest.h"
#include "tests/support/HostFakes.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/ScriptedTools.h"

namespace {

using support::HostFakes;
using support::RecordedLog;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::SizeIs;

const support::LogSource KHandler(logging::SWLInfra, "SWLInfra/src/FileHandler");
const support::LogSource KRunner(logging::SWLInfra, "SWLInfra/src/CmdHandler");

constexpr char KFormatSignature[] =
    "static IFileHandler::TFileHndlError IFileHandler::Format(const TChr*, const TChr*, "
    "IFileHandler::TFileSystemFormat)";
constexpr char KCheckSignature[] =
    "static IFileHandler::TFileHndlError IFileHandler::CheckFS(const TChr*, const TChr*, "
    "IFileHandler::TFileSystemFormat)";

constexpr char KMountFAT[] = "mount -t vfat -o rw,noexec,noatime,nodev,nosuid /d /m";
constexpr char KMountEXT3[] =
    "mount -t ext3 -o rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600 /d /m";
constexpr char KMountEXT2[] =
    "mount -t ext2 -o rw,noexec,noatime,nodiratime,nodev,nosuid,commit=3600 /d /m";
constexpr char KMountLoop[] = "mount -t ext2 -o loop,exec,noatime,nosuid,nodev /d /m";

constexpr char KMakeFAT[] = "mkdosfs -F32 -I -a256 /d";
constexpr char KMakeEXT3[] =
    "mkfs.ext3 -O ^dir_index,filetype,^resize_inode,^ext_attr,sparse_super,large_file -b 4096 "
    "-J size=50 -m 0 -I 128 /d";
constexpr char KTuneEXT3[] = "tune2fs -i 0d -c 112 -o journal_data /d";
constexpr char KMakeEXT2[] =
    "mkfs.ext2 -O ^dir_index,filetype,^resize_inode,^ext_attr,sparse_super,large_file -b 4096 /d";
constexpr char KCheckFAT[] = "dosfsck -a -w -v /d";
constexpr char KCheckEXT[] = "e2fsck -p -f /d";

/** The report on a command whose argument of 500 bytes makes it too long. */
std::string TooLong(const std::string& operation, const std::string& command) {
  return operation + ": command too long, not run. Length : " +
         std::to_string(command.length() - std::string("/d").length() + 500);
}

constexpr auto KUnknown = static_cast<IFileHandler::TFileSystemFormat>(7);

class FileHandlerFormatTest : public support::CleanTest {
 protected:
  void SetUp() override {
    CleanTest::SetUp();
    for (const char* tool : {"mount", "umount", "sync", "mkfs.ext2", "mkfs.ext3", "tune2fs",
                             "mkdosfs", "e2fsck", "dosfsck"}) {
      tools_.Add(tool, "exit 0");
    }
  }

  static IFileHandler::TFileHndlError Format(IFileHandler::TFileSystemFormat format) {
    return IFileHandler::Format(Bytes("/d"), Bytes("/m"), format);
  }
  static IFileHandler::TFileHndlError CheckFS(IFileHandler::TFileSystemFormat format) {
    return IFileHandler::CheckFS(Bytes("/d"), Bytes("/m"), format);
  }
  /** A tool that returns these results in turn. */
  void Results(const std::string& tool, int first, int second) {
    tools_.Add(tool, "if [ -e " + mark_ + " ]; then exit " + std::to_string(second) +
                         "; fi; touch " + mark_ + "; exit " + std::to_string(first));
  }

  support::ScriptedTools tools_;
  support::TempDir dir_;
  const std::string mark_ = dir_ / "mark";
};

struct Commands {
  IFileHandler::TFileSystemFormat format;
  std::vector<std::string> make;
  std::string check;
  std::string mount;
};

void PrintTo(const Commands& commands, std::ostream* stream) {
  *stream << "format " << static_cast<int>(commands.format);
}

class FileHandlerCommandsTest : public FileHandlerFormatTest,
                                public testing::WithParamInterface<Commands> {};

TEST_P(FileHandlerCommandsTest, FormatUnmountsMakesAndMounts) {
  EXPECT_EQ(IFileHandler::EFileHndlOk, Format(GetParam().format));

  std::vector<std::string> expected = GetParam().make;
  expected.insert(expected.begin(), "umount -d /m");
  expected.push_back(GetParam().mount);
  EXPECT_THAT(tools_.Calls(), ElementsAreArray(expected));
  EXPECT_EQ(KHandler.Interface(KFormatSignature, "Device: /d, MountPoint: /m, FileSystemFormat: " +
                                                     std::to_string(GetParam().format)),
            RecordedLog::Instance().Lines().front());
  EXPECT_THAT(RecordedLog::Instance().Errors(), SizeIs(0));
}

TEST_P(FileHandlerCommandsTest, CheckUnmountsChecksAndMounts) {
  EXPECT_EQ(IFileHandler::EFileHndlOk, CheckFS(GetParam().format));

  EXPECT_THAT(tools_.Calls(), ElementsAre("umount -d /m", GetParam().check, GetParam().mount));
  EXPECT_EQ(KHandler.Interface(KCheckSignature, "Device: /d, MountPoint: /m, FileSystemFormat: " +
                                                    std::to_string(GetParam().format)),
            RecordedLog::Instance().Lines().front());
  EXPECT_THAT(RecordedLog::Instance().Errors(), SizeIs(0));
}

// A loop-mounted ext2 image is made and checked as FAT: kept as units have always done it.
INSTANTIATE_TEST_SUITE_P(
    Formats, FileHandlerCommandsTest,
    testing::Values(Commands{IFileHandler::EFormatFAT, {KMakeFAT}, KCheckFAT, KMountFAT},
                    Commands{
                        IFileHandler::EFormatEXT3, {KMakeEXT3, KTuneEXT3}, KCheckEXT, KMountEXT3},
                    Commands{IFileHandler::EFormatEXT2, {KMakeEXT2}, KCheckEXT, KMountEXT2},
                    Commands{IFileHandler::EFormatEXT2Loopback, {KMakeFAT}, KCheckFAT, KMountLoop},
                    Commands{KUnknown, {KMakeFAT}, KCheckFAT, KMountFAT}));

// --- format

TEST_F(FileHandlerFormatTest, EXT3IsNotTunedWhenItCouldNotBeMade) {
  tools_.Add("mkfs.ext3", "exit 4");

  EXPECT_EQ(IFileHandler::EFileHndlFailed, Format(IFileHandler::EFormatEXT3));

  EXPECT_THAT(tools_.Calls(), ElementsAre("umount -d /m", KMakeEXT3));
  EXPECT_THAT(
      RecordedLog::Instance().Errors(),
      ElementsAre(KRunner.Error("SystemCmd", "'" + std::string(KMakeEXT3) + "' exited, result=4"),
                  KHandler.Error("Format", "Formatting failed. errorsys = 4")));
}

TEST_F(FileHandlerFormatTest, TheResultOfTuningIsTheResultOfMakingEXT3) {
  tools_.Add("tune2fs", "exit 9");

  EXPECT_EQ(IFileHandler::EFileHndlFailed, Format(IFileHandler::EFormatEXT3));

  EXPECT_THAT(tools_.Calls(), ElementsAre("umount -d /m", KMakeEXT3, KTuneEXT3));
  EXPECT_EQ(KHandler.Error("Format", "Formatting failed. errorsys = 9"),
            RecordedLog::Instance().Lines().back());
}

TEST_F(FileHandlerFormatTest, AFailedMountAfterwardsIsLoggedAndItsResultReturned) {
  tools_.Add("mount", "exit 32");

  EXPECT_EQ(IFileHandler::EFileHndlFailed, Format(IFileHandler::EFormatEXT2));

  EXPECT_THAT(tools_.Calls(),
              ElementsAre("umount -d /m", KMakeEXT2, KMountEXT2, KMountEXT2, KMountEXT2));
  EXPECT_EQ(3U, HostFakes::Instance().Count("platSleep 500000"));
  EXPECT_EQ(KHandler.Error("Format", "Error mounting/umounting"),
            RecordedLog::Instance().Lines().back());
}

TEST_F(FileHandlerFormatTest, AnUnmountThatNeverSucceedsDoesNotStopIt) {
  tools_.Add("umount", "exit 32");

  EXPECT_EQ(IFileHandler::EFileHndlOk, Format(IFileHandler::EFormatEXT2));
  EXPECT_EQ(IFileHandler::EFileHndlOk, CheckFS(IFileHandler::EFormatEXT2));

  EXPECT_FALSE(RecordedLog::Instance().HasText(
      "The file system could not be unmounted. Formatting anyway . . ."))
      << "an unmount that fails is reported as success";
  EXPECT_FALSE(RecordedLog::Instance().HasText(
      "The file system could not be unmounted. Checking anyway. . ."));
}

TEST_F(FileHandlerFormatTest, AMountPointThatIsTooLongIsFormattedAnywayAndNotMounted) {
  const std::string mountPoint(500, 'm');

  EXPECT_EQ(IFileHandler::EFileHndlFailed,
            IFileHandler::Format(Bytes("/d"), Bytes(mountPoint), IFileHandler::EFormatEXT2));

  EXPECT_THAT(tools_.Calls(), ElementsAre(KMakeEXT2));
  EXPECT_THAT(
      RecordedLog::Instance().Errors(),
      ElementsAre(KHandler.Error("Umount", "Umount: command too long, not run. Length : 510"),
                  KHandler.Error("Format",
                                 "The file system could not be unmounted. Formatting anyway . . ."),
                  KHandler.Error("Mount", TooLong("Mount", KMountEXT2)),
                  KHandler.Error("Format", "Error mounting/umounting")));
}

TEST_F(FileHandlerFormatTest, ADeviceThatIsTooLongIsNotFormatted) {
  const std::string device(500, 'd');

  EXPECT_EQ(IFileHandler::EFileHndlFailed,
            IFileHandler::Format(Bytes(device), Bytes("/m"), IFileHandler::EFormatEXT3));

  EXPECT_THAT(tools_.Calls(), ElementsAre("umount -d /m"));
  EXPECT_THAT(RecordedLog::Instance().Errors(),
              ElementsAre(KHandler.Error("Format", TooLong("Format", KMakeEXT3)),
                          KHandler.Error("Format", "Formatting failed. errorsys = -1")));
}

// --- check

TEST_F(FileHandlerFormatTest, AFATWithErrorsIsCheckedOnceMore) {
  Results("dosfsck", 1, 0);

  EXPECT_EQ(IFileHandler::EFileHndlOk, CheckFS(IFileHandler::EFormatFAT));

  EXPECT_THAT(tools_.Calls(), ElementsAre("umount -d /m", KCheckFAT, KCheckFAT, KMountFAT));
  EXPECT_THAT(
      RecordedLog::Instance().LinesOf({logging::categories::Info}),
      ElementsAre(
          KHandler.Info("CheckFS", "------> Recoverable errors have been detected <------"),
          KHandler.Info("CheckFS",
                        "------> or dosfsck has discovered an internal inconsistency. <------"),
          KHandler.Info("CheckFS", "------> Checking FAT-Movinand again... <------"),
          KHandler.Info("Mount", "Trying to mount as FAT")));
}

TEST_F(FileHandlerFormatTest, ALoopImageWithErrorsIsCheckedOnceMore) {
  Results("dosfsck", 1, 0);

  EXPECT_EQ(IFileHandler::EFileHndlOk, CheckFS(IFileHandler::EFormatEXT2Loopback));

  EXPECT_THAT(tools_.Calls(), ElementsAre("umount -d /m", KCheckFAT, KCheckFAT, KMountLoop));
}

TEST_F(FileHandlerFormatTest, ThereIsNoThirdCheck) {
  tools_.Add("dosfsck", "exit 1");

  EXPECT_EQ(IFileHandler::EFileHndlFailed, CheckFS(IFileHandler::EFormatFAT));

  EXPECT_THAT(tools_.Calls(), ElementsAre("umount -d /m", KCheckFAT, KCheckFAT));
  EXPECT_EQ(KHandler.Error("CheckFS", "Checking failed. errorsys = 1"),
            RecordedLog::Instance().Lines().back());
}

TEST_F(FileHandlerFormatTest, TheSecondCheckDecides) {
  Results("dosfsck", 1, 2);

  EXPECT_EQ(IFileHandler::EFileHndlFailed, CheckFS(IFileHandler::EFormatFAT));

  EXPECT_EQ(KHandler.Error("CheckFS", "Checking failed. errorsys = 2"),
            RecordedLog::Instance().Lines().back());
}

TEST_F(FileHandlerFormatTest, OnlyTheResultOneEarnsASecondCheck) {
  Results("dosfsck", 2, 0);

  EXPECT_EQ(IFileHandler::EFileHndlFailed, CheckFS(IFileHandler::EFormatFAT));

  EXPECT_THAT(tools_.Calls(), ElementsAre("umount -d /m", KCheckFAT));
  EXPECT_THAT(RecordedLog::Instance().LinesOf({logging::categories::Info}), SizeIs(0));
}

class FileHandlerExtCheckTest
    : public FileHandlerFormatTest,
      public testing::WithParamInterface<IFileHandler::TFileSystemFormat> {};

// e2fsck returns 1 when it has corrected all errors; here that is a failure like any other.
TEST_P(FileHandlerExtCheckTest, CorrectedErrorsAreAFailure) {
  Results("e2fsck", 1, 0);

  EXPECT_EQ(IFileHandler::EFileHndlFailed, CheckFS(GetParam()));

  EXPECT_THAT(tools_.Calls(), ElementsAre("umount -d /m", KCheckEXT));
  EXPECT_THAT(RecordedLog::Instance().Errors(),
              ElementsAre(KRunner.Error("SystemCmd", "'e2fsck -p -f /d' exited, result=1"),
                          KHandler.Error("CheckFS", "Checking failed. errorsys = 1")));
}

INSTANTIATE_TEST_SUITE_P(Formats, FileHandlerExtCheckTest,
                         testing::Values(IFileHandler::EFormatEXT2, IFileHandler::EFormatEXT3));

TEST_F(FileHandlerFormatTest, AFailedMountAfterTheCheckIsLoggedWithItsResult) {
  tools_.Add("mount", "exit 32");

  EXPECT_EQ(IFileHandler::EFileHndlFailed, CheckFS(IFileHandler::EFormatEXT3));

  EXPECT_THAT(tools_.Calls(),
              ElementsAre("umount -d /m", KCheckEXT, KMountEXT3, KMountEXT3, KMountEXT3));
  EXPECT_EQ(KHandler.Error("CheckFS", "Error mounting/umounting. retVal = 1"),
            RecordedLog::Instance().Lines().back());
}

TEST_F(FileHandlerFormatTest, AMountPointThatIsTooLongIsCheckedAnywayAndNotMounted) {
  const std::string mountPoint(500, 'm');

  EXPECT_EQ(IFileHandler::EFileHndlFailed,
            IFileHandler::CheckFS(Bytes("/d"), Bytes(mountPoint), IFileHandler::EFormatEXT2));

  EXPECT_THAT(tools_.Calls(), ElementsAre(KCheckEXT));
  EXPECT_THAT(
      RecordedLog::Instance().Errors(),
      ElementsAre(
          KHandler.Error("Umount", "Umount: command too long, not run. Length : 510"),
          KHandler.Error("CheckFS", "The file system could not be unmounted. Checking anyway. . ."),
          KHandler.Error("Mount", TooLong("Mount", KMountEXT2)),
          KHandler.Error("CheckFS", "Error mounting/umounting. retVal = 1")));
}

TEST_F(FileHandlerFormatTest, ADeviceThatIsTooLongIsNotChecked) {
  const std::string device(500, 'd');

  EXPECT_EQ(IFileHandler::EFileHndlFailed,
            IFileHandler::CheckFS(Bytes(device), Bytes("/m"), IFileHandler::EFormatFAT));

  EXPECT_THAT(tools_.Calls(), ElementsAre("umount -d /m"));
  EXPECT_THAT(RecordedLog::Instance().Errors(),
              ElementsAre(KHandler.Error("CheckFS", TooLong("CheckFS", KCheckFAT)),
                          KHandler.Error("CheckFS", "Checking failed. errorsys = -1")));
}

}  // namespace
