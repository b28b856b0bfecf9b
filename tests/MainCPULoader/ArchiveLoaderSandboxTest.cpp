// The archive loader on real ext3 file systems.

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/MainCPULoader/ArchiveRun.h"
#include "tests/support/SandboxedTest.h"
#include "tests/support/TempDir.h"

namespace {

using support::ReadFile;
using support::Shell;
using support::WriteFile;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string KCard = "/dev/mmcblk0p1";
const std::string KOtherCard = "/dev/mmcblk1p1";
const std::string KSmallPartition = "/dev/mmcblk1p2";  // 8 MiB

constexpr const char* KMountOptions =
    "rw,noexec,noatime,nodiratime,nodev,nosuid,data=journal,commit=3600";

void MakeExt3(const std::string& device) {
  Shell("mkfs.ext3 -q '" + device + "'");
}

bool IsMounted(const std::string& mountPoint) {
  return ReadFile("/proc/mounts").find(" " + mountPoint + " ") != std::string::npos;
}

/** A device mounted for a look at it, with the loader's options. */
class Mounted {
 public:
  explicit Mounted(const std::string& device) {
    Shell("mount -t ext3 -o " + std::string(KMountOptions) + " " + device + " " + Path());
  }
  ~Mounted() { Shell("umount " + Path()); }

  Mounted(const Mounted&) = delete;
  Mounted& operator=(const Mounted&) = delete;

  const std::string& Path() const { return folder_.Path(); }

 private:
  support::TempDir folder_;
};

/** Kind, mode, owner, time, size, blocks, links, link target and name of everything in a folder. */
std::string Listing(const std::string& folder) {
  const support::TempDir scratch;
  Shell("cd '" + folder +
        "' && find . -mindepth 1 -path ./lost+found -prune -o -printf "
        "'%y %m %U:%G %T@ %s %b %n %l %p\\n' | sort > '" +
        scratch / "listing" + "'");
  return ReadFile(scratch / "listing");
}

class ArchiveLoaderSandboxTest : public support::SandboxedTest {
 protected:
  /** Compress the tree. */
  void Archive(const std::string& options = "") {
    Shell("tar c " + options + " -C '" + tree_.Path() + "' . | gzip -1 > '" + archive_ + "'");
  }

  std::unique_ptr<ArchiveRun> RunOn(const std::string& device) {
    auto run = std::make_unique<ArchiveRun>(archive_, device, mountPoint_.Path());
    run->Prepare();
    return run;
  }

  /** What the loader leaves on a card is what tar leaves on another. */
  void ExpectSameAsTar() {
    MakeExt3(KCard);
    MakeExt3(KOtherCard);
    const auto run = RunOn(KCard);
    run->Install().StepToEnd();
    ASSERT_THAT(run->Results(), ElementsAre("Completed 1"));
    ASSERT_FALSE(IsMounted(mountPoint_.Path()));

    const Mounted ours(KCard);
    const Mounted reference(KOtherCard);
    Shell("tar xzf '" + archive_ + "' -C '" + reference.Path() + "'");
    const std::string listing = Listing(ours.Path());
    EXPECT_EQ(Listing(reference.Path()), listing);
    EXPECT_FALSE(listing.empty());
    Shell("diff -r --no-dereference --exclude=fifo --exclude=lost+found '" + tree_.Path() + "' '" +
          ours.Path() + "'");
  }

  support::TempDir directory_;
  support::TempDir tree_;
  support::TempDir mountPoint_;
  std::string archive_ = directory_ / "archive.tar.gz";
};

TEST_F(ArchiveLoaderSandboxTest, MountsUnpacksAndUnmounts) {
  MakeExt3(KCard);
  WriteFile(tree_ / "file", "content");
  Archive();
  const auto run = RunOn(KCard);

  run->Install();
  EXPECT_THAT(ReadFile("/proc/mounts"), HasSubstr(KCard + " " + mountPoint_.Path() +
                                                  " ext3 rw,nosuid,nodev,noexec,noatime,"));
  run->StepToEnd();

  EXPECT_THAT(run->Results(), ElementsAre("Completed 1"));
  EXPECT_FALSE(IsMounted(mountPoint_.Path()));
  const Mounted card(KCard);
  EXPECT_EQ("content", ReadFile(card.Path() + "/file"));
}

TEST_F(ArchiveLoaderSandboxTest, OwnersModesTimesAndLinksArriveAsTarLeavesThem) {
  WriteFile(tree_ / "plain", "plain");
  WriteFile(tree_ / "setuid", "setuid");
  WriteFile(tree_ / "nobody may", "secret");
  WriteFile(tree_ / "empty", "");
  Shell("cd '" + tree_.Path() +
        "' && mkdir -m 1777 sticky && mkdir -m 0700 own && mkdir empty-folder && mkfifo fifo && "
        "ln plain own/hard && ln plain own/harder && ln -s plain symbolic && "
        "ln -s /nowhere/at/all own/dangling && chown 1234:5678 plain own && "
        "chown -h 99:98 symbolic && chmod 4755 setuid && chmod 0 'nobody may' && "
        "touch -d @1000000001 plain && touch -h -d @1234567890 symbolic own && "
        "touch -d @2000000000.5 setuid");
  Archive();

  ExpectSameAsTar();

  const Mounted card(KCard);
  EXPECT_TRUE(std::filesystem::equivalent(card.Path() + "/plain", card.Path() + "/own/hard"));
  EXPECT_THAT(Listing(card.Path()), HasSubstr("f 644 1234:5678 1000000001.0000000000 5 "));
}

TEST_F(ArchiveLoaderSandboxTest, LongNamesArriveAsTarLeavesThem) {
  std::string folder = tree_.Path();
  for (int level = 0; level < 3; ++level) {
    folder += "/" + std::string(120, static_cast<char>('a' + level));
    std::filesystem::create_directory(folder);
  }
  WriteFile(folder + "/" + std::string(255, 'n'), "long");
  WriteFile(tree_ / "with blanks and \xc3\xa4 and \n", "odd");
  std::filesystem::create_symlink(std::string(300, 't'), tree_ / "target");
  Archive();

  ExpectSameAsTar();
}

TEST_F(ArchiveLoaderSandboxTest, SparseFilesArriveSparse) {
  Shell("cd '" + tree_.Path() +
        "' && truncate -s 20M hole && truncate -s 20M ends && printf a | dd of=ends conv=notrunc "
        "status=none && printf z | dd of=ends bs=1 seek=20971519 conv=notrunc status=none");
  Archive("--sparse");

  ExpectSameAsTar();

  const Mounted card(KCard);
  struct stat status {};
  ASSERT_EQ(0, stat((card.Path() + "/ends").c_str(), &status));
  EXPECT_EQ(20971520, status.st_size);
  EXPECT_LT(status.st_blocks * 512, 1000000);
}

TEST_F(ArchiveLoaderSandboxTest, TenThousandSmallFilesArrive) {
  for (int folder = 0; folder < 100; ++folder) {
    const std::string path = tree_ / std::to_string(folder);
    std::filesystem::create_directory(path);
    for (int file = 0; file < 100; ++file) {
      std::ofstream(path + "/" + std::to_string(file)) << folder * 100 + file;
    }
  }
  Archive();

  ExpectSameAsTar();
}

TEST_F(ArchiveLoaderSandboxTest, AFullFileSystemIsNotNoticedBecauseTarGoesOnReading) {
  std::signal(SIGPIPE, SIG_DFL);
  MakeExt3(KSmallPartition);
  WriteFile(tree_ / "large", support::RandomBytes(20000000));
  Archive();
  const auto run = RunOn(KSmallPartition);

  run->Install().StepToEnd();

  EXPECT_THAT(run->Results(), ElementsAre("Completed 1"));
  EXPECT_FALSE(IsMounted(mountPoint_.Path()));
  const Mounted card(KSmallPartition);
  EXPECT_LT(std::filesystem::file_size(card.Path() + "/large"), 20000000U);
}

TEST_F(ArchiveLoaderSandboxTest, AFolderThatMayNotBeWrittenEndsWithoutHarm) {
  std::signal(SIGPIPE, SIG_DFL);
  MakeExt3(KCard);
  {
    const Mounted card(KCard);
    Shell("chattr +i " + card.Path());
  }
  WriteFile(tree_ / "large", support::RandomBytes(5000000));
  Archive();
  const auto run = RunOn(KCard);

  run->Install().StepToEnd();

  EXPECT_THAT(run->Results(), ElementsAre("Completed 1")) << "tar goes on reading";
  EXPECT_FALSE(IsMounted(mountPoint_.Path()));
  const Mounted card(KCard);
  EXPECT_FALSE(std::filesystem::exists(card.Path() + "/large"));
}

TEST_F(ArchiveLoaderSandboxTest, ADeviceWithoutAFileSystemFailsAndThenSucceeds) {
  WriteFile(tree_ / "file", "content");
  Archive();
  const auto run = RunOn(KCard);

  run->Install().StepToEnd();

  EXPECT_THAT(run->Reports(), ElementsAre("Completed 0", "Completed 1"));
  EXPECT_FALSE(IsMounted(mountPoint_.Path()));
}

TEST_F(ArchiveLoaderSandboxTest, ASecondInstallMountsAndUnmountsAgain) {
  MakeExt3(KCard);
  WriteFile(tree_ / "file", "content");
  Archive();
  const auto run = RunOn(KCard);
  run->Install().StepToEnd();
  run->Forget();

  run->Install();
  EXPECT_TRUE(IsMounted(mountPoint_.Path()));
  run->StepToEnd();

  EXPECT_THAT(run->Reports(), ElementsAre("Completed 0", "Completed 1"));
  EXPECT_FALSE(IsMounted(mountPoint_.Path()));
}

TEST_F(ArchiveLoaderSandboxTest, AnInstallDuringARunDoesNotDisturbIt) {
  MakeExt3(KCard);
  WriteFile(tree_ / "large", support::RandomBytes(5000000));
  Archive();
  const auto run = RunOn(KCard);
  run->Install().Step();

  run->Install();  // finds the device mounted
  run->StepToEnd();

  EXPECT_THAT(run->Results(), ElementsAre("Completed 1"));
  EXPECT_FALSE(IsMounted(mountPoint_.Path()));
  const Mounted card(KCard);
  EXPECT_TRUE(support::RandomBytes(5000000) == ReadFile(card.Path() + "/large"));
}

TEST_F(ArchiveLoaderSandboxTest, AnAbortLeavesTheChildrenAndTheMountToItsHost) {
  MakeExt3(KCard);
  WriteFile(tree_ / "large", support::RandomBytes(5000000));
  Archive();
  const auto run = RunOn(KCard);
  run->Install().Step();

  run->Loader().Abort();
  run->DestroyLoader();

  EXPECT_EQ(2U, support::Children().size());
  EXPECT_TRUE(IsMounted(mountPoint_.Path()));
  run->Destroy();
  Shell("umount " + mountPoint_.Path());
}

}  // namespace
