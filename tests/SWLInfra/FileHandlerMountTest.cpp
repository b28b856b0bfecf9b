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
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const support::LogSource KHandler(logging::SWLInfra, "SWLInfra/src/FileHandler");
const support::LogSource KRunner(logging::SWLInfra, "SWLInfra/src/CmdHandler");

constexpr char KMountSignature[] =
    "static IFileHandler::TFileHndlError IFileHandler::Mount(const TChr*, const TChr*, TBool, "
    "IFileHandler::TFileSystemFormat)";

class FileHandlerMountTest : public support::CleanTest {
 protected:
  void SetUp() override {
    CleanTest::SetUp();
    tools_.Add("mount", "exit 0");
    tools_.Add("umount", "exit 0");
    tools_.Add("sync", "exit 0");
    HostFakes::Instance().onSleep = [this](TUint32 duration) {
      pauses_.emplace_back(RecordedLog::Instance().Lines().size(), duration);
    };
  }

  /** The log's texts with the pauses between them. */
  std::vector<std::string> Story() const {
    std::vector<std::string> story;
    const std::vector<std::string> texts = RecordedLog::Instance().Texts();
    auto pause = pauses_.begin();
    for (std::size_t line = 0; line <= texts.size(); ++line) {
      for (; pause != pauses_.end() && pause->first == line; ++pause) {
        story.push_back("pause " + std::to_string(pause->second));
      }
      if (line < texts.size()) {
        story.push_back(texts[line]);
      }
    }
    return story;
  }

  /** A tool that fails until it has been called so many times. */
  void SucceedAtCall(const std::string& tool, int call, int failure) {
    tools_.Add(tool, "count=$(cat " + counter_ + " 2>/dev/null || echo 0); count=$((count + 1)); " +
                         "echo $count > " + counter_ + "; [ $count -ge " + std::to_string(call) +
                         " ] || exit " + std::to_string(failure));
  }

  support::ScriptedTools tools_;
  support::TempDir dir_;
  const std::string counter_ = dir_ / "counter";
  std::vector<std::pair<std::size_t, TUint32>> pauses_;
};

struct MountStyle {
  IFileHandler::TFileSystemFormat format;
  const char* logged;
  const char* options;
};

void PrintTo(const MountStyle& style, std::ostream* stream) {
  *stream << "format " << static_cast<int>(style.format);
}

class FileHandlerMountStyleTest : public FileHandlerMountTest,
                                  public testing::WithParamInterface<MountStyle> {};

TEST_P(FileHandlerMountStyleTest, MountsWithItsOptionsAndLogsWhatItTries) {
  const std::string number = std::to_string(GetParam().format);

  EXPECT_EQ(IFileHandler::EFileHndlOk,
            IFileHandler::Mount(Bytes("/dev/x"), Bytes("/mnt/y"), GetParam().format));

  EXPECT_THAT(tools_.Calls(),
              ElementsAre(std::string("mount ") + GetParam().options + " /dev/x /mnt/y"));
  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KHandler.Interface(KMountSignature,
                                             "Device: /dev/x, MountPoint: /mnt/y, "
                                             "FileSystemFormat: " +
                                                 number),
                          KHandler.Info("Mount", GetParam().logged)));
  EXPECT_THAT(pauses_, IsEmpty());
}

TEST_P(FileHandlerMountStyleTest, RemountsWithOneMoreOption) {
  EXPECT_EQ(IFileHandler::EFileHndlOk,
            IFileHandler::ReMount(Bytes("/dev/x"), Bytes("/mnt/y"), GetParam().format));
  EXPECT_EQ(IFileHandler::EFileHndlOk,
            IFileHandler::Mount(Bytes("/dev/x"), Bytes("/mnt/y"), 2, GetParam().format))
      << "any true value";

  EXPECT_THAT(tools_.Calls(), AllOf(SizeIs(2), Each(std::string("mount ") + GetParam().options +
                                                    ",remount /dev/x /mnt/y")));
}

TEST_P(FileHandlerMountStyleTest, TheFullMountWithoutRemountIsAFirstMount) {
  EXPECT_EQ(IFileHandler::EFileHndlOk,
            IFileHandler::Mount(Bytes("/dev/x"), Bytes("/mnt/y"), EFalse, GetParam().format));

  EXPECT_THAT(tools_.Calls(),
              ElementsAre(std::string("mount ") + GetParam().options + " /dev/x /mnt/y"));
}

INSTANTIATE_TEST_SUITE_P(
    Formats, FileHandlerMountStyleTest,
    testing::Values(
        MountStyle{IFileHandler::EFormatFAT, "Trying to mount as FAT",
                   "-t vfat -o rw,noexec,noatime,nodev,nosuid"},
        MountStyle{IFileHandler::EFormatEXT3, "Trying to mount as EXT3",
                   "-t ext3 -o "
                   "rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600"},
        MountStyle{IFileHandler::EFormatEXT2, "Trying to mount as EXT2",
                   "-t ext2 -o rw,noexec,noatime,nodiratime,nodev,nosuid,commit=3600"},
        MountStyle{IFileHandler::EFormatEXT2Loopback, "Trying to mount as EXT2 loopback",
                   "-t ext2 -o loop,exec,noatime,nosuid,nodev"},
        MountStyle{static_cast<IFileHandler::TFileSystemFormat>(4), "Trying to mount as FAT",
                   "-t vfat -o rw,noexec,noatime,nodev,nosuid"},
        MountStyle{static_cast<IFileHandler::TFileSystemFormat>(7), "Trying to mount as FAT",
                   "-t vfat -o rw,noexec,noatime,nodev,nosuid"},
        MountStyle{static_cast<IFileHandler::TFileSystemFormat>(-1), "Trying to mount as FAT",
                   "-t vfat -o rw,noexec,noatime,nodev,nosuid"}));

TEST_F(FileHandlerMountTest, SucceedsOnTheSecondAttemptAfterOnePause) {
  SucceedAtCall("mount", 2, 32);

  EXPECT_EQ(IFileHandler::EFileHndlOk,
            IFileHandler::Mount(Bytes("/d"), Bytes("/m"), IFileHandler::EFormatFAT));

  EXPECT_THAT(tools_.Calls(), SizeIs(2));
  EXPECT_THAT(
      Story(),
      ElementsAre("Device: /d, MountPoint: /m, FileSystemFormat: 0", "Trying to mount as FAT",
                  "'mount -t vfat -o rw,noexec,noatime,nodev,nosuid /d /m' exited, result=32",
                  "Mounting /m failed. Error number : 32", "pause 500000"));
}

TEST_F(FileHandlerMountTest, GivesUpAfterThreeAttemptsAndThreePauses) {
  tools_.Add("mount", "exit 32");

  EXPECT_EQ(IFileHandler::EFileHndlFailed,
            IFileHandler::Mount(Bytes("/d"), Bytes("/m"), IFileHandler::EFormatFAT));

  EXPECT_THAT(tools_.Calls(), AllOf(SizeIs(3), Each("mount -t vfat -o "
                                                    "rw,noexec,noatime,nodev,nosuid /d /m")));
  const std::string exited =
      "'mount -t vfat -o rw,noexec,noatime,nodev,nosuid /d /m' exited, result=32";
  const std::string failed = "Mounting /m failed. Error number : 32";
  EXPECT_THAT(Story(), ElementsAre("Device: /d, MountPoint: /m, FileSystemFormat: 0",
                                   "Trying to mount as FAT", exited, failed, "pause 500000", exited,
                                   failed, "pause 500000", exited, failed, "pause 500000"));
  EXPECT_THAT(RecordedLog::Instance().Errors(), testing::Contains(KHandler.Error("Mount", failed)));
}

TEST_F(FileHandlerMountTest, ACommandThatIsTooLongIsNotTriedAtAll) {
  const std::string options = "mount -t vfat -o rw,noexec,noatime,nodev,nosuid /d ";
  const std::string fits(509 - options.length(), 'm');

  EXPECT_EQ(IFileHandler::EFileHndlOk,
            IFileHandler::Mount(Bytes("/d"), Bytes(fits), IFileHandler::EFormatFAT));
  EXPECT_THAT(tools_.Calls(), ElementsAre(options + fits));
  tools_.Forget();
  RecordedLog::Instance().Clear();

  EXPECT_EQ(IFileHandler::EFileHndlFailed,
            IFileHandler::Mount(Bytes("/d"), Bytes(fits + "m"), IFileHandler::EFormatFAT));

  EXPECT_THAT(tools_.Calls(), IsEmpty());
  EXPECT_THAT(pauses_, IsEmpty());
  EXPECT_THAT(
      RecordedLog::Instance().Errors(),
      ElementsAre(KHandler.Error("Mount", "Mount: command too long, not run. Length : 510")));
}

TEST_F(FileHandlerMountTest, PathsReachTheShellAsTheyAre) {
  EXPECT_EQ(IFileHandler::EFileHndlOk,
            IFileHandler::Mount(Bytes("$((1+1))"), Bytes("/a b"), IFileHandler::EFormatFAT));
  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::Umount(Bytes("/a;sync")));

  EXPECT_THAT(tools_.Calls(), ElementsAre("mount -t vfat -o rw,noexec,noatime,nodev,nosuid 2 /a b",
                                          "umount -d /a", "sync"));
}

// --- unmount

TEST_F(FileHandlerMountTest, UmountRunsOneCommandWhenItSucceeds) {
  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::Umount(Bytes("/m")));

  EXPECT_THAT(tools_.Calls(), ElementsAre("umount -d /m"));
  EXPECT_THAT(Story(), IsEmpty());
}

TEST_F(FileHandlerMountTest, UmountThatSucceedsOnTheSecondAttemptFlushesAndPausesOnce) {
  SucceedAtCall("umount", 2, 32);

  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::Umount(Bytes("/m")));

  EXPECT_THAT(tools_.Calls(), ElementsAre("umount -d /m", "sync", "umount -d /m"));
  EXPECT_THAT(RecordedLog::Instance().Lines(),
              ElementsAre(KRunner.Error("SystemCmd", "'umount -d /m' exited, result=32"),
                          KHandler.Error("Umount", "umount failed on /m. Error number : 32"),
                          KHandler.Info("Umount", "Retrying to umount /m. Try #1")));
  EXPECT_THAT(pauses_, ElementsAre(std::make_pair(std::size_t{3}, TUint32{500000})));
}

TEST_F(FileHandlerMountTest, UmountIsForcedAfterThreeAttempts) {
  SucceedAtCall("umount", 4, 1);

  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::Umount(Bytes("/m")));

  EXPECT_THAT(tools_.Calls(), ElementsAre("umount -d /m", "sync", "umount -d /m", "sync",
                                          "umount -d /m", "sync", "umount -d -l /m"));
  EXPECT_THAT(RecordedLog::Instance().Errors().back(),
              KHandler.Error("Umount", "It was impossible to umount /m, forcing its umount"));
}

// Sync is made to fail so that its place among the lines can be seen; its result is ignored.
TEST_F(FileHandlerMountTest, UmountThatNeverSucceedsMakesSixAttemptsAndReportsSuccess) {
  tools_.Add("umount", "exit 32");
  tools_.Add("sync", "exit 1");

  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::Umount(Bytes("/m")));

  EXPECT_THAT(tools_.Calls(), ElementsAre("umount -d /m", "sync", "umount -d /m", "sync",
                                          "umount -d /m", "sync", "umount -d -l /m", "sync",
                                          "umount -d -l /m", "sync", "umount -d -l /m", "sync"));
  const std::string plain = "'umount -d /m' exited, result=32";
  const std::string lazy = "'umount -d -l /m' exited, result=32";
  const std::string failed = "umount failed on /m. Error number : 32";
  const std::string sync = "'sync' exited, result=1";
  const std::string flushed = "Sync: The filesystems couldn't be flushed";
  const std::string pause = "pause 500000";
  const std::string retrying = "Retrying to umount /m. Try #";
  EXPECT_EQ((std::vector<std::string>{plain,
                                      failed,
                                      retrying + "1",
                                      sync,
                                      flushed,
                                      pause,  //
                                      plain,
                                      failed,
                                      retrying + "2",
                                      sync,
                                      flushed,
                                      pause,  //
                                      plain,
                                      failed,
                                      sync,
                                      flushed,
                                      pause,
                                      "It was impossible to umount /m, forcing its umount",  //
                                      lazy,
                                      failed,
                                      retrying + "1",
                                      sync,
                                      flushed,
                                      pause,  //
                                      lazy,
                                      failed,
                                      retrying + "2",
                                      sync,
                                      flushed,
                                      pause,  //
                                      lazy,
                                      failed,
                                      retrying + "3",
                                      sync,
                                      flushed,
                                      pause}),
            Story());
}

TEST_F(FileHandlerMountTest, UmountThatIsTooLongForACommandFailsAndRunsNothing) {
  const std::string mountPoint(500, 'm');

  EXPECT_EQ(IFileHandler::EFileHndlFailed, IFileHandler::Umount(Bytes(mountPoint)));

  EXPECT_THAT(tools_.Calls(), IsEmpty());
  EXPECT_THAT(pauses_, IsEmpty());
  EXPECT_THAT(
      RecordedLog::Instance().Lines(),
      ElementsAre(KHandler.Error("Umount", "Umount: command too long, not run. Length : 510")));
}

TEST_F(FileHandlerMountTest, UmountWhoseForcedCommandAloneIsTooLongFailsWhenItWouldBeForced) {
  const std::string mountPoint(499, 'm');
  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::Umount(Bytes(mountPoint)));

  tools_.Forget();
  tools_.Add("umount", "exit 32");
  EXPECT_EQ(IFileHandler::EFileHndlFailed, IFileHandler::Umount(Bytes(mountPoint)));

  const std::string plain = "umount -d " + mountPoint;
  EXPECT_THAT(tools_.Calls(), ElementsAre(plain, "sync", plain, "sync", plain, "sync"));
  EXPECT_EQ(KHandler.Error("Umount", "Umount: command too long, not run. Length : 512"),
            RecordedLog::Instance().Lines().back());
}

}  // namespace
