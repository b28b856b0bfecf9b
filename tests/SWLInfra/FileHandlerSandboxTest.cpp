#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "SWLInfra/src/FileHandler.h"
#include "SWLInfra/src/Text.h"
#include "tests/support/Eventually.h"
#include "tests/support/HostFakes.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/SandboxedTest.h"
#include "tests/support/ScriptedTools.h"
#include "tests/support/TempDir.h"

namespace {

using support::HostFakes;
using support::RecordedLog;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

const support::LogSource KHandler(logging::SWLInfra, "SWLInfra/src/FileHandler");

constexpr char KDevice[] = "/dev/mmcblk0p1";

/** What a command prints. */
std::string OutputOf(const std::string& command) {
  support::TempDir dir;
  support::Shell(command + " > " + (dir / "out") + " 2>&1");
  return support::ReadFile(dir / "out");
}

int ExitCodeOf(const std::string& command) {
  // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
  return WEXITSTATUS(std::system((command + " > /dev/null 2>&1").c_str()));
}

/** The kernel's own list: "options - type source super-options" of a mount point, or empty. */
std::string MountInfo(const std::string& mountPoint) {
  std::ifstream list("/proc/self/mountinfo");
  for (std::string line; std::getline(list, line);) {
    std::istringstream fields(line);
    std::string id;
    std::string parent;
    std::string numbers;
    std::string root;
    std::string target;
    fields >> id >> parent >> numbers >> root >> target;
    if (target == mountPoint) {
      std::string rest;
      std::getline(fields >> std::ws, rest);
      return rest;
    }
  }
  return "";
}

bool KernelKnows(const std::string& fileSystem) {
  return support::ReadFile("/proc/filesystems").find("\t" + fileSystem + "\n") != std::string::npos;
}

class FileHandlerSandboxTest : public support::SandboxedTest {
 protected:
  void TearDown() override {
    if (!MountInfo(Point()).empty()) {
      support::Shell("umount -d -l " + Point());
    }
    SandboxedTest::TearDown();
  }

  std::string Point() const { return point_.Path(); }

  IFileHandler::TFileHndlError Format(IFileHandler::TFileSystemFormat format) const {
    return IFileHandler::Format(Bytes(KDevice), Bytes(Point()), format);
  }
  IFileHandler::TFileHndlError CheckFS(IFileHandler::TFileSystemFormat format) const {
    return IFileHandler::CheckFS(Bytes(KDevice), Bytes(Point()), format);
  }
  IFileHandler::TFileHndlError Mount(IFileHandler::TFileSystemFormat format) const {
    return IFileHandler::Mount(Bytes(KDevice), Bytes(Point()), format);
  }
  IFileHandler::TFileHndlError Umount() const { return IFileHandler::Umount(Bytes(Point())); }

  static std::size_t Pauses() { return HostFakes::Instance().Count("platSleep 500000"); }

 private:
  support::TempDir point_;
};

// --- ext3

TEST_F(FileHandlerSandboxTest, EXT3IsMadeAsUnitsNeedItAndMountedWithItsOptions) {
  ASSERT_EQ(IFileHandler::EFileHndlOk, Format(IFileHandler::EFormatEXT3));

  const std::string mounted = MountInfo(Point());
  for (const char* option : {"rw", "noexec", "noatime", "nodiratime", "nodev", "nosuid"}) {
    EXPECT_THAT("," + mounted.substr(0, mounted.find(' ')) + ",",
                HasSubstr("," + std::string(option) + ","));
  }
  EXPECT_THAT(mounted, HasSubstr(std::string("- ext3 ") + KDevice));
  EXPECT_THAT(mounted, HasSubstr("commit=3600"));

  const std::string made = OutputOf(std::string("dumpe2fs -h ") + KDevice);
  EXPECT_THAT(made, testing::ContainsRegex("Block size: +4096\n"));
  EXPECT_THAT(made, testing::ContainsRegex("Inode size:[[:space:]]+128\n"));
  EXPECT_THAT(made, testing::ContainsRegex("Reserved block count: +0\n"));
  EXPECT_THAT(made, testing::ContainsRegex("Total journal size: +50M\n"));
  EXPECT_THAT(made, testing::ContainsRegex("Maximum mount count: +112\n"));
  EXPECT_THAT(made, testing::ContainsRegex("Check interval: +0 "));
  EXPECT_THAT(made, testing::ContainsRegex("Default mount options: +journal_data"));
  const std::string features = made.substr(made.find("Filesystem features:"));
  EXPECT_THAT(features.substr(0, features.find('\n')),
              AllOf(HasSubstr("has_journal"), HasSubstr("filetype"), HasSubstr("sparse_super"),
                    HasSubstr("large_file"), Not(HasSubstr("dir_index")),
                    Not(HasSubstr("resize_inode")), Not(HasSubstr("ext_attr"))));

  EXPECT_EQ(IFileHandler::EFileHndlOk, Umount());
  EXPECT_EQ("", MountInfo(Point()));
}

// The kernel shows the journalling mode where it is not the file system's default.
TEST_F(FileHandlerSandboxTest, EXT3IsMountedWithFullDataJournalling) {
  support::Shell(std::string("mkfs.ext3 -q ") + KDevice);

  ASSERT_EQ(IFileHandler::EFileHndlOk, Mount(IFileHandler::EFormatEXT3));

  EXPECT_THAT(MountInfo(Point()), HasSubstr("data=journal"));
  EXPECT_EQ(0U, Pauses());
}

// "umount -d" of a mount point that is not mounted fails six times; formatting goes on.
TEST_F(FileHandlerSandboxTest, FormatOfADeviceThatIsNotMountedTriesSixTimesToUnmountIt) {
  ASSERT_EQ(IFileHandler::EFileHndlOk, Format(IFileHandler::EFormatEXT3));

  EXPECT_EQ(6U, Pauses());
  EXPECT_TRUE(RecordedLog::Instance().HasText("Retrying to umount " + Point() + ". Try #3"));
}

TEST_F(FileHandlerSandboxTest, AMountedDeviceIsUnmountedAndFormatted) {
  ASSERT_EQ(IFileHandler::EFileHndlOk, Format(IFileHandler::EFormatEXT3));
  support::WriteFile(Point() + "/content", "old");
  HostFakes::Instance().Forget();

  EXPECT_EQ(IFileHandler::EFileHndlOk, Format(IFileHandler::EFormatEXT3));

  EXPECT_EQ(0U, Pauses());
  EXPECT_NE(0, access((Point() + "/content").c_str(), F_OK));
}

TEST_F(FileHandlerSandboxTest, NothingRunsFromAMountedDataFileSystem) {
  ASSERT_EQ(IFileHandler::EFileHndlOk, Format(IFileHandler::EFormatEXT3));
  support::WriteFile(Point() + "/tool", "#!/bin/sh\nexit 0\n");
  support::Shell("chmod 0755 " + Point() + "/tool");

  EXPECT_EQ(126, ExitCodeOf(Point() + "/tool"));
}

TEST_F(FileHandlerSandboxTest, ReMountChangesAMountThatIsThere) {
  ASSERT_EQ(IFileHandler::EFileHndlOk, Format(IFileHandler::EFormatEXT3));
  support::Shell(std::string("mount -o remount,ro ") + KDevice + " " + Point());
  ASSERT_EQ("ro,", MountInfo(Point()).substr(0, 3));

  EXPECT_EQ(IFileHandler::EFileHndlOk,
            IFileHandler::ReMount(Bytes(KDevice), Bytes(Point()), IFileHandler::EFormatEXT3));

  EXPECT_EQ("rw,", MountInfo(Point()).substr(0, 3));
}

TEST_F(FileHandlerSandboxTest, ReMountOfADeviceThatIsNotMountedFails) {
  support::Shell(std::string("mkfs.ext3 -q ") + KDevice);

  EXPECT_EQ(IFileHandler::EFileHndlFailed,
            IFileHandler::ReMount(Bytes(KDevice), Bytes(Point()), IFileHandler::EFormatEXT3));
  EXPECT_EQ(3U, Pauses());
}

TEST_F(FileHandlerSandboxTest, MountOfAnEmptyDeviceFailsThreeTimes) {
  EXPECT_EQ(IFileHandler::EFileHndlFailed, Mount(IFileHandler::EFormatEXT3));

  EXPECT_EQ(3U, Pauses());
  EXPECT_THAT(RecordedLog::Instance().Errors(),
              AllOf(SizeIs(6), Contains(KHandler.Error("Mount", "Mounting " + Point() +
                                                                    " failed. Error number : "
                                                                    "32"))));
}

TEST_F(FileHandlerSandboxTest, ACleanEXT3IsCheckedAndMountedAgainWithItsContent) {
  ASSERT_EQ(IFileHandler::EFileHndlOk, Format(IFileHandler::EFormatEXT3));
  support::WriteFile(Point() + "/content", "kept");

  EXPECT_EQ(IFileHandler::EFileHndlOk, CheckFS(IFileHandler::EFormatEXT3));

  EXPECT_EQ("kept", support::ReadFile(Point() + "/content"));
}

TEST_F(FileHandlerSandboxTest, ABusyMountPointIsUnmountedLazily) {
  ASSERT_EQ(IFileHandler::EFileHndlOk, Format(IFileHandler::EFormatEXT3));
  HostFakes::Instance().Forget();
  RecordedLog::Instance().Clear();
  const int open = ::open((Point() + "/open").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_NE(-1, open);

  EXPECT_EQ(IFileHandler::EFileHndlOk, Umount());

  EXPECT_EQ("", MountInfo(Point()));
  EXPECT_EQ(3U, Pauses());
  EXPECT_TRUE(RecordedLog::Instance().HasText("It was impossible to umount " + Point() +
                                              ", forcing its umount"));
  EXPECT_TRUE(
      RecordedLog::Instance().HasText("umount failed on " + Point() + ". Error number : 32"));
  EXPECT_EQ(4, write(open, "late", 4)) << "who holds it may go on";
  EXPECT_EQ(0, close(open));
}

TEST_F(FileHandlerSandboxTest, AvailableSpaceIsWhatDfPrints) {
  ASSERT_EQ(IFileHandler::EFileHndlOk, Format(IFileHandler::EFormatEXT3));
  TUint32 byPoint = 0;
  TUint32 byDevice = 0;

  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::AvailableSpace(Bytes(Point()), &byPoint));
  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::AvailableSpace(Bytes(KDevice), &byDevice));

  struct statfs status {};
  ASSERT_EQ(0, statfs(Point().c_str(), &status));
  const auto blocks =
      static_cast<TUint32>(status.f_bavail) * static_cast<TUint32>(status.f_bsize / 1024);
  EXPECT_EQ(blocks, byPoint);
  EXPECT_EQ(blocks, byDevice);
  EXPECT_NE(0, access("/tmp/CalculateDiskSpace", F_OK));
}

// --- ext2

TEST_F(FileHandlerSandboxTest, EXT2IsMadeAsUnitsNeedIt) {
  // Whether it can be mounted is the kernel's; see the next test.
  Format(IFileHandler::EFormatEXT2);

  const std::string made = OutputOf(std::string("dumpe2fs -h ") + KDevice);
  EXPECT_THAT(made, testing::ContainsRegex("Block size: +4096\n"));
  const std::string features = made.substr(made.find("Filesystem features:"));
  EXPECT_THAT(features.substr(0, features.find('\n')),
              AllOf(HasSubstr("filetype"), HasSubstr("sparse_super"), HasSubstr("large_file"),
                    Not(HasSubstr("has_journal")), Not(HasSubstr("dir_index")),
                    Not(HasSubstr("resize_inode")), Not(HasSubstr("ext_attr"))));
}

TEST_F(FileHandlerSandboxTest, EXT2IsMountedWithItsOptions) {
  support::Shell(std::string("mkfs.ext2 -q -b 4096 ") + KDevice);
  if (ExitCodeOf(std::string("mount -t ext2 -o commit=3600 ") + KDevice + " " + Point()) != 0) {
    EXPECT_EQ(IFileHandler::EFileHndlFailed, Mount(IFileHandler::EFormatEXT2));
    GTEST_SKIP() << "this kernel does not mount ext2 with commit=";
  }
  support::Shell("umount " + Point());

  ASSERT_EQ(IFileHandler::EFileHndlOk, Mount(IFileHandler::EFormatEXT2));

  const std::string mounted = MountInfo(Point());
  for (const char* option : {"rw", "noexec", "noatime", "nodiratime", "nodev", "nosuid"}) {
    EXPECT_THAT("," + mounted.substr(0, mounted.find(' ')) + ",",
                HasSubstr("," + std::string(option) + ","));
  }
  EXPECT_THAT(mounted, HasSubstr(std::string("- ext2 ") + KDevice));
}

TEST_F(FileHandlerSandboxTest, ADamagedEXT2ThatIsCorrectedIsAFailureAndStaysUnmounted) {
  support::Shell(std::string("mkfs.ext2 -q -b 4096 ") + KDevice + " && debugfs -w -R 'clri <11>' " +
                 KDevice + " 2>/dev/null");

  EXPECT_EQ(IFileHandler::EFileHndlFailed, CheckFS(IFileHandler::EFormatEXT2));

  EXPECT_EQ(KHandler.Error("CheckFS", "Checking failed. errorsys = 1"),
            RecordedLog::Instance().Lines().back());
  EXPECT_EQ("", MountInfo(Point()));
  EXPECT_EQ(0, ExitCodeOf(std::string("e2fsck -p -f ") + KDevice)) << "it was corrected";
}

TEST_F(FileHandlerSandboxTest, ACheckerThatFindsNoFileSystemIsAFailure) {
  EXPECT_EQ(IFileHandler::EFileHndlFailed, CheckFS(IFileHandler::EFormatEXT3));

  EXPECT_EQ(KHandler.Error("CheckFS", "Checking failed. errorsys = 8"),
            RecordedLog::Instance().Lines().back());
}

// --- ext2 in a file

class FileHandlerLoopSandboxTest : public FileHandlerSandboxTest {
 protected:
  void SetUp() override {
    FileHandlerSandboxTest::SetUp();
    if (!IsSkipped()) {
      support::Shell("truncate -s 8M " + image_ + " && mkfs.ext2 -q -F " + image_);
    }
  }

  IFileHandler::TFileHndlError MountImage() const {
    return IFileHandler::Mount(Bytes(image_), Bytes(Point()), IFileHandler::EFormatEXT2Loopback);
  }
  /** The loop device that the image is attached to, or empty. */
  std::string LoopDevice() const { return OutputOf("losetup -n -O NAME -j " + image_); }

  support::TempDir dir_;
  const std::string image_ = dir_ / "image";
};

TEST_F(FileHandlerLoopSandboxTest, IsTheOnlyMountThatAllowsExecution) {
  ASSERT_EQ(IFileHandler::EFileHndlOk, MountImage());

  const std::string mounted = MountInfo(Point());
  const std::string options = "," + mounted.substr(0, mounted.find(' ')) + ",";
  EXPECT_THAT(options, AllOf(HasSubstr(",noatime,"), HasSubstr(",nosuid,"), HasSubstr(",nodev,"),
                             Not(HasSubstr(",noexec,")), Not(HasSubstr(",nodiratime,"))));
  EXPECT_THAT(mounted, HasSubstr("- ext2 /dev/loop"));
  support::WriteFile(Point() + "/tool", "#!/bin/sh\nexit 5\n");
  support::Shell("chmod 0755 " + Point() + "/tool");
  EXPECT_EQ(5, ExitCodeOf(Point() + "/tool"));
}

TEST_F(FileHandlerLoopSandboxTest, UmountFreesTheLoopDevice) {
  ASSERT_EQ(IFileHandler::EFileHndlOk, MountImage());
  ASSERT_THAT(LoopDevice(), Not(IsEmpty()));

  EXPECT_EQ(IFileHandler::EFileHndlOk, Umount());

  EXPECT_EQ("", MountInfo(Point()));
  // As soon as nobody else looks at it: a machine's device manager does for a moment.
  EXPECT_TRUE(support::Eventually([&] { return LoopDevice().empty(); }));
}

TEST_F(FileHandlerLoopSandboxTest, ReMountsInPlace) {
  ASSERT_EQ(IFileHandler::EFileHndlOk, MountImage());
  support::Shell("mount -o remount,noexec " + Point());

  EXPECT_EQ(IFileHandler::EFileHndlOk, IFileHandler::ReMount(Bytes(image_), Bytes(Point()),
                                                             IFileHandler::EFormatEXT2Loopback));

  EXPECT_THAT(MountInfo(Point()), Not(HasSubstr("noexec")));
}

// --- FAT

// What the unit's mkdosfs must accept, see docs/unit-tools.md.
constexpr char KMakeFAT[] = "mkdosfs -F32 -I -a256 ";

TEST_F(FileHandlerSandboxTest, FATIsAsFarFormattedAsTheMkdosfsOfThisMachineAccepts) {
  const int code = ExitCodeOf(std::string(KMakeFAT) + KDevice);
  RecordedLog::Instance().Clear();

  const IFileHandler::TFileHndlError result = Format(IFileHandler::EFormatFAT);

  const std::string failed = "Formatting failed. errorsys = " + std::to_string(code);
  EXPECT_EQ(code != 0, RecordedLog::Instance().HasText(failed));
  EXPECT_EQ(
      code == 0 && KernelKnows("vfat") ? IFileHandler::EFileHndlOk : IFileHandler::EFileHndlFailed,
      result);
}

class FileHandlerFATSandboxTest : public FileHandlerSandboxTest {
 protected:
  void SetUp() override {
    FileHandlerSandboxTest::SetUp();
    if (!IsSkipped()) {
      tools_ = std::make_unique<support::ScriptedTools>();
      // The real one without the option that today's refuse.
      tools_->Add("mkdosfs", "[ \"$1 $2 $3\" = '-F32 -I -a256' ] && PATH=" + pathBefore_ +
                                 " exec mkdosfs -F32 -I \"$4\"");
    }
  }

  void Damage() {
    // Entries behind the first of the first copy of the table: chains without a file.
    support::Shell(std::string("dd if=/dev/urandom of=") + KDevice +
                   " bs=512 seek=40 count=1 conv=notrunc status=none");
  }

 private:
  const std::string pathBefore_ = getenv("PATH");
  std::unique_ptr<support::ScriptedTools> tools_;
};

TEST_F(FileHandlerFATSandboxTest, IsMountedWithItsOptions) {
  if (!KernelKnows("vfat")) {
    GTEST_SKIP() << "this kernel has no vfat";
  }
  ASSERT_EQ(IFileHandler::EFileHndlOk, Format(IFileHandler::EFormatFAT));

  const std::string mounted = MountInfo(Point());
  for (const char* option : {"rw", "noexec", "noatime", "nodev", "nosuid"}) {
    EXPECT_THAT("," + mounted.substr(0, mounted.find(' ')) + ",",
                HasSubstr("," + std::string(option) + ","));
  }
  EXPECT_THAT(mounted, HasSubstr(std::string("- vfat ") + KDevice));
  EXPECT_EQ(IFileHandler::EFileHndlOk, CheckFS(IFileHandler::EFormatFAT));
}

TEST_F(FileHandlerFATSandboxTest, IsMadeAndPassesTheCheck) {
  Format(IFileHandler::EFormatFAT);
  EXPECT_FALSE(RecordedLog::Instance().HasText("Formatting failed. errorsys = 1"));
  RecordedLog::Instance().Clear();

  CheckFS(IFileHandler::EFormatFAT);

  EXPECT_TRUE(RecordedLog::Instance().HasText("Trying to mount as FAT")) << "the check was passed";
  EXPECT_FALSE(RecordedLog::Instance().HasText("------> Checking FAT-Movinand again... <------"));
}

TEST_F(FileHandlerFATSandboxTest, WithAnErrorIsCorrectedAndCheckedAgain) {
  Format(IFileHandler::EFormatFAT);
  IFileHandler::Umount(Bytes(Point()));
  Damage();
  RecordedLog::Instance().Clear();

  CheckFS(IFileHandler::EFormatFAT);

  EXPECT_TRUE(RecordedLog::Instance().HasText("------> Checking FAT-Movinand again... <------"));
  EXPECT_TRUE(RecordedLog::Instance().HasText("Trying to mount as FAT"))
      << "the second check was passed";
}

}  // namespace
