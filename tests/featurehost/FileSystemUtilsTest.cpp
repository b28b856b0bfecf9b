#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/FileSystemUtils.h"
#include "tests/featurehost/HostTest.h"
#include "tests/support/PrivateMounts.h"

namespace featurehost {
namespace {

using support::ReadFile;
using support::WriteFile;
using testing::HasSubstr;

Tdes Path(const std::string& path) {
  return Tdes(reinterpret_cast<const TChr*>(path.c_str()));
}

mode_t Mode(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(0, stat(path.c_str(), &status));
  return status.st_mode & 07777U;
}

bool Exists(const std::string& path) {
  return std::filesystem::exists(std::filesystem::symlink_status(path));
}

class FileSystemUtilsTest : public HostTest {
 protected:
  const std::string from_ = folder_ / "from";
  const std::string to_ = folder_ / "to";
};

/** With a small file system of its own, to cross into and to fill up. */
class SmallFileSystemTest : public FileSystemUtilsTest {
 protected:
  void SetUp() override {
    const std::string reason = support::EnterPrivateMounts();
    if (!reason.empty()) {
      GTEST_SKIP() << reason;
    }
    FileSystemUtilsTest::SetUp();
    std::filesystem::create_directory(small_);
    ASSERT_EQ(0, mount("none", small_.c_str(), "tmpfs", 0, "size=16k"));
    mounted_ = true;
  }

  void TearDown() override {
    if (mounted_) {
      EXPECT_EQ(0, umount(small_.c_str()));
      FileSystemUtilsTest::TearDown();
    }
  }

  const std::string small_ = folder_ / "small";
  bool mounted_ = false;
};

TEST_F(FileSystemUtilsTest, PathIsAnOwnCopy) {
  std::string text = "/some/path";
  const Tdes path = Path(text);
  text = "changed";
  EXPECT_STREQ("/some/path", path.Text());
}

TEST_F(FileSystemUtilsTest, NullPathIsReportedAndNamesNoFile) {
  const Tdes path(nullptr);
  EXPECT_STREQ("", path.Text());
  EXPECT_EQ(EFalse, FileSystemUtils::InternalFileExists(path));
  EXPECT_THAT(LogText(),
              HasSubstr("error featurehost Tdes the module named a file by a null path"));
}

TEST_F(FileSystemUtilsTest, ExistenceIsOfWhateverKindAndFollowsLinks) {
  WriteFile(from_, "x");
  ASSERT_EQ(0, symlink(from_.c_str(), to_.c_str()));
  ASSERT_EQ(0, symlink("nowhere", (folder_ / "dangling").c_str()));
  EXPECT_EQ(1, FileSystemUtils::InternalFileExists(Path(from_)));
  EXPECT_EQ(1, FileSystemUtils::InternalFileExists(Path(to_)));
  EXPECT_EQ(1, FileSystemUtils::InternalFileExists(Path(folder_.Path())));
  EXPECT_EQ(0, FileSystemUtils::InternalFileExists(Path(folder_ / "dangling")));
  EXPECT_EQ(0, FileSystemUtils::InternalFileExists(Path("")));
}

TEST_F(FileSystemUtilsTest, OnlyFoldersAreFolders) {
  WriteFile(from_, "x");
  EXPECT_EQ(ETrue, FileSystemUtils::DirectoryExists(Path(folder_.Path())));
  EXPECT_EQ(EFalse, FileSystemUtils::DirectoryExists(Path(from_)));
  EXPECT_EQ(EFalse, FileSystemUtils::DirectoryExists(Path(folder_ / "missing")));
}

TEST_F(FileSystemUtilsTest, WritePermission) {
  WriteFile(from_, "x");
  EXPECT_EQ(ETrue, FileSystemUtils::FileWritePerm(Path(from_)));
  EXPECT_EQ(EFalse, FileSystemUtils::FileWritePerm(Path(folder_ / "missing")));
}

TEST_F(FileSystemUtilsTest, FolderIsCreatedWithoutItsParents) {
  EXPECT_EQ(0, FileSystemUtils::CreateDirectory(Path(folder_ / "new")));
  EXPECT_TRUE(std::filesystem::is_directory(folder_ / "new"));
  EXPECT_EQ(EEXIST, FileSystemUtils::CreateDirectory(Path(folder_ / "new")));
  EXPECT_EQ(ENOENT, FileSystemUtils::CreateDirectory(Path(folder_ / "a/b")));
}

TEST_F(FileSystemUtilsTest, RemovalTakesTheLinkNotItsTarget) {
  WriteFile(from_, "x");
  ASSERT_EQ(0, symlink(from_.c_str(), to_.c_str()));
  EXPECT_EQ(0, FileSystemUtils::InternalRemoveFile(Path(to_)));
  EXPECT_TRUE(Exists(from_));
  EXPECT_FALSE(Exists(to_));
  EXPECT_EQ(ENOENT, FileSystemUtils::InternalRemoveFile(Path(to_)));
}

TEST_F(FileSystemUtilsTest, MoveReplacesTheDestination) {
  WriteFile(from_, "new");
  WriteFile(to_, "old");
  EXPECT_EQ(0, FileSystemUtils::InternalMoveFile(Path(from_), Path(to_)));
  EXPECT_EQ("new", ReadFile(to_));
  EXPECT_FALSE(Exists(from_));
  EXPECT_EQ(ENOENT, FileSystemUtils::InternalMoveFile(Path(from_), Path(to_)));
  EXPECT_EQ("new", ReadFile(to_));
}

TEST_F(FileSystemUtilsTest, CopyTakesContentAndModeAndReplacesTheDestination) {
  const std::string content = support::RandomBytes(200000);
  WriteFile(from_, content);
  ASSERT_EQ(0, chmod(from_.c_str(), 0641));
  WriteFile(to_, std::string(300000, 'o'));
  EXPECT_EQ(0, FileSystemUtils::InternalCopyFile(Path(from_), Path(to_)));
  EXPECT_EQ(content, ReadFile(to_));
  EXPECT_EQ(0641U, Mode(to_));
  EXPECT_EQ(content, ReadFile(from_));
}

TEST_F(FileSystemUtilsTest, CopyFollowsLinksOnBothSides) {
  WriteFile(from_, "new");
  WriteFile(to_, "old");
  ASSERT_EQ(0, symlink(from_.c_str(), (folder_ / "a").c_str()));
  ASSERT_EQ(0, symlink(to_.c_str(), (folder_ / "b").c_str()));
  EXPECT_EQ(0, FileSystemUtils::InternalCopyFile(Path(folder_ / "a"), Path(folder_ / "b")));
  EXPECT_EQ("new", ReadFile(to_));
  EXPECT_TRUE(std::filesystem::is_symlink(folder_ / "b"));
}

TEST_F(FileSystemUtilsTest, CopyOntoItselfIsRefusedAndLeavesTheFile) {
  WriteFile(from_, "content");
  ASSERT_EQ(0, link(from_.c_str(), to_.c_str()));
  EXPECT_EQ(EINVAL, FileSystemUtils::InternalCopyFile(Path(from_), Path(from_)));
  EXPECT_EQ(EINVAL, FileSystemUtils::InternalCopyFile(Path(from_), Path(to_)));
  EXPECT_EQ("content", ReadFile(from_));
}

TEST_F(FileSystemUtilsTest, CopyOfWhatIsNoFileIsRefused) {
  ASSERT_EQ(0, mkfifo(from_.c_str(), 0600));
  EXPECT_EQ(EISDIR, FileSystemUtils::InternalCopyFile(Path(folder_.Path()), Path(to_)));
  EXPECT_EQ(EINVAL, FileSystemUtils::InternalCopyFile(Path(from_), Path(to_)));
  EXPECT_EQ(ENOENT, FileSystemUtils::InternalCopyFile(Path(folder_ / "missing"), Path(to_)));
  EXPECT_FALSE(Exists(to_));
}

TEST_F(FileSystemUtilsTest, FailedCopyToADeviceLeavesTheDevice) {
  WriteFile(from_, "content");
  EXPECT_EQ(ENOSPC, FileSystemUtils::InternalCopyFile(Path(from_), Path("/dev/full")));
  EXPECT_TRUE(Exists("/dev/full"));
}

TEST_F(SmallFileSystemTest, PartialCopyIsRemoved) {
  WriteFile(from_, std::string(100000, 'x'));
  EXPECT_EQ(ENOSPC, FileSystemUtils::InternalCopyFile(Path(from_), Path(small_ + "/to")));
  EXPECT_FALSE(Exists(small_ + "/to"));
}

TEST_F(SmallFileSystemTest, MoveCrossesFileSystems) {
  WriteFile(from_, "content");
  ASSERT_EQ(0, chmod(from_.c_str(), 0640));
  WriteFile(small_ + "/to", "old");
  EXPECT_EQ(0, FileSystemUtils::InternalMoveFile(Path(from_), Path(small_ + "/to")));
  EXPECT_EQ("content", ReadFile(small_ + "/to"));
  EXPECT_EQ(0640U, Mode(small_ + "/to"));
  EXPECT_FALSE(Exists(from_));
}

TEST_F(SmallFileSystemTest, MoveAcrossFileSystemsTakesTheLinkNotItsTarget) {
  ASSERT_EQ(0, symlink("target", from_.c_str()));
  EXPECT_EQ(0, FileSystemUtils::InternalMoveFile(Path(from_), Path(small_ + "/to")));
  EXPECT_EQ("target", std::filesystem::read_symlink(small_ + "/to"));
  EXPECT_FALSE(Exists(from_));
}

TEST_F(SmallFileSystemTest, FailedMoveAcrossFileSystemsLeavesBothSides) {
  const std::string content(100000, 'x');
  WriteFile(from_, content);
  WriteFile(small_ + "/to", "old");
  EXPECT_EQ(ENOSPC, FileSystemUtils::InternalMoveFile(Path(from_), Path(small_ + "/to")));
  EXPECT_EQ(content, ReadFile(from_));
  EXPECT_EQ("old", ReadFile(small_ + "/to"));
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(small_), {})) << "nothing beside";
}

TEST_F(SmallFileSystemTest, ReadOnlyFileSystemGivesNoWritePermission) {
  WriteFile(small_ + "/file", "x");
  ASSERT_EQ(0, mount("none", small_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
  EXPECT_EQ(EFalse, FileSystemUtils::FileWritePerm(Path(small_ + "/file")));
}

TEST_F(FileSystemUtilsTest, CacheRemembersWhatExistsUntilItIsTold) {
  auto* cache = CFileExistsCache::FileExistsCacheInstance();
  EXPECT_EQ(cache, CFileExistsCache::FileExistsCacheInstance());
  WriteFile(from_, "x");
  EXPECT_EQ(1, cache->FileExists(Path(from_)));
  std::filesystem::remove(from_);
  EXPECT_EQ(1, cache->FileExists(Path(from_))) << "from memory";

  int removed = -1;
  cache->RemoveFile(Path(from_), removed);
  EXPECT_EQ(1, removed);
  EXPECT_EQ(0, cache->FileExists(Path(from_)));
  cache->RemoveFile(Path(from_), removed);
  EXPECT_EQ(0, removed);
}

TEST_F(FileSystemUtilsTest, CacheSeesAFileThatAToolHasCreatedMeanwhile) {
  auto* cache = CFileExistsCache::FileExistsCacheInstance();
  EXPECT_EQ(0, cache->FileExists(Path(from_)));
  WriteFile(from_, "x");
  EXPECT_EQ(1, cache->FileExists(Path(from_)));
  int removed = -1;
  cache->RemoveFile(Path(from_), removed);
  EXPECT_EQ(1, removed);
  EXPECT_TRUE(Exists(from_)) << "the file itself is not touched";
}

}  // namespace
}  // namespace featurehost
