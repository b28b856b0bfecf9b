#include <algorithm>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "featurehost/src/ProcessTable.h"
#include "featurehost/src/UnitState.h"
#include "tests/featurehost/HostTest.h"
#include "tests/support/Eventually.h"
#include "tests/support/PrivateMounts.h"

namespace featurehost {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class UnitStateTest : public HostTest {
 protected:
  UnitStateTest() { std::filesystem::create_directory(points_); }

  void TearDown() override {
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    HostTest::TearDown();
  }

  UnitState TakeStock(const std::vector<std::string>& points = {}) const {
    return UnitState({points, folder_ / "eol", {}});
  }

  /** A child that runs a shell line. */
  static pid_t Spawn(const std::string& line) {
    const pid_t child = fork();
    if (child == 0) {
      execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char*>(nullptr));
      _exit(1);
    }
    return child;
  }

  /** Wait until a file is there, 20 s at most. */
  static bool Appears(const std::string& path) {
    for (int tries = 0; tries < 2000 && access(path.c_str(), F_OK) != 0; ++tries) {
      usleep(10000);
    }
    return access(path.c_str(), F_OK) == 0;
  }

  std::string Point(const std::string& name) const {
    std::filesystem::create_directories(points_ + "/" + name);
    return points_ + "/" + name;
  }

  const std::string points_ = std::filesystem::canonical(folder_.Path()).string() + "/points";
};

class UnitStateMountTest : public UnitStateTest {
 protected:
  void SetUp() override {
    const std::string reason = support::EnterPrivateMounts();
    if (!reason.empty()) {
      GTEST_SKIP() << reason;
    }
    UnitStateTest::SetUp();
    ran_ = true;
  }

  void TearDown() override {
    if (ran_) {
      UnitStateTest::TearDown();
    }
  }

  static void Mount(const std::string& point) {
    ASSERT_EQ(0, mount("a source", point.c_str(), "tmpfs", 0, "size=16k"));
  }

  bool ran_ = false;
};

TEST_F(UnitStateTest, NothingNewIsNothingLeft) {
  const pid_t before = Spawn("exec sleep 60");
  const UnitState unit = TakeStock();
  EXPECT_THAT(unit.CleanUp(), IsEmpty());
  EXPECT_EQ(0, kill(before, 0)) << "what was there before is not touched";
  kill(before, SIGKILL);
  waitpid(before, nullptr, 0);
}

TEST_F(UnitStateTest, ChildIsEndedAndReaped) {
  const UnitState unit = TakeStock();
  const pid_t child = Spawn("exec sleep 60");
  // The kernel tells a program's name before it tells its command line.
  ASSERT_TRUE(support::Eventually(
      [&] { return DescribeProcess(child) == std::to_string(child) + " (sleep 60)"; }));

  const auto found = unit.CleanUp();
  ASSERT_THAT(found, SizeIs(1));
  EXPECT_EQ(LeftOver::Kind::kProcess, found[0].kind);
  EXPECT_EQ(std::to_string(child) + " (sleep 60)", found[0].what);
  EXPECT_TRUE(found[0].cleaned);
  EXPECT_EQ("ended", found[0].done);
}

TEST_F(UnitStateTest, ChildThatDoesNotListenIsKilled) {
  const UnitState unit = TakeStock();
  Spawn("trap '' TERM; : >'" + folder_ / "up" + "'; while :; do sleep 1; done");
  ASSERT_TRUE(Appears(folder_ / "up"));

  const auto found = unit.CleanUp();
  ASSERT_FALSE(found.empty());
  EXPECT_TRUE(found[0].cleaned);
  EXPECT_EQ("killed", found[0].done);
}

TEST_F(UnitStateTest, ChildThatHadEndedIsReaped) {
  const UnitState unit = TakeStock();
  const pid_t child = Spawn("exit 0");
  siginfo_t info{};
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT));

  const auto found = unit.CleanUp();
  ASSERT_THAT(found, SizeIs(1));
  EXPECT_TRUE(found[0].cleaned);
  EXPECT_EQ("had ended; reaped", found[0].done);
}

TEST_F(UnitStateTest, OrphansOfChildrenAreEndedToo) {
  const UnitState unit = TakeStock();
  int inherits = 0;
  if (prctl(PR_GET_CHILD_SUBREAPER, &inherits) != 0) {
    GTEST_SKIP() << "a process cannot inherit orphans here (user-mode emulation)";
  }
  Spawn("sleep 61 & echo $! > '" + folder_ / "pid" + "'; mv '" + folder_ / "pid" + "' '" +
        folder_ / "up" + "'; sleep 60");
  ASSERT_TRUE(Appears(folder_ / "up"));

  for (const auto& leftOver : unit.CleanUp()) {
    EXPECT_TRUE(leftOver.cleaned) << leftOver.what;
  }
  const pid_t orphan = std::stoi(support::ReadFile(folder_ / "up"));
  EXPECT_EQ(-1, kill(orphan, 0));
  EXPECT_EQ(ESRCH, errno);
}

TEST_F(UnitStateTest, EmptyFolderIsRemoved) {
  const UnitState unit = TakeStock();
  std::filesystem::create_directory(folder_ / "eol");

  const auto found = unit.CleanUp();
  ASSERT_THAT(found, SizeIs(1));
  EXPECT_EQ(LeftOver::Kind::kFolder, found[0].kind);
  EXPECT_EQ(folder_ / "eol", found[0].what);
  EXPECT_TRUE(found[0].cleaned);
  EXPECT_EQ("removed", found[0].done);
  EXPECT_FALSE(std::filesystem::exists(folder_ / "eol"));
}

TEST_F(UnitStateTest, FolderWithContentIsLeftAndReported) {
  const UnitState unit = TakeStock();
  std::filesystem::create_directory(folder_ / "eol");
  support::WriteFile(folder_ / "eol/file", "x");

  const auto found = unit.CleanUp();
  ASSERT_THAT(found, SizeIs(1));
  EXPECT_FALSE(found[0].cleaned);
  EXPECT_EQ("cannot be removed: Directory not empty", found[0].done);
  EXPECT_TRUE(std::filesystem::exists(folder_ / "eol/file"));
}

TEST_F(UnitStateTest, FolderOfSomeoneElseStays) {
  const UnitState unit(RunScope{});
  std::filesystem::create_directory(folder_ / "eol");
  EXPECT_THAT(unit.CleanUp(), IsEmpty());
  EXPECT_TRUE(std::filesystem::exists(folder_ / "eol"));
}

TEST_F(UnitStateTest, FolderThatWasThereBeforeStays) {
  std::filesystem::create_directory(folder_ / "eol");
  const UnitState unit = TakeStock();
  EXPECT_THAT(unit.CleanUp(), IsEmpty());
  EXPECT_TRUE(std::filesystem::exists(folder_ / "eol"));
}

TEST_F(UnitStateMountTest, OwnMountPointsAreUnmountedTheLatestFirst) {
  const UnitState unit = TakeStock({Point("a") + "/", points_ + "/a/../a/inner"});
  Mount(Point("a"));
  Mount(Point("a/inner"));
  Mount(Point("a/inner"));

  const auto found = unit.CleanUp();
  ASSERT_THAT(found, SizeIs(3));
  EXPECT_EQ(points_ + "/a/inner (a source)", found[0].what);
  EXPECT_EQ(points_ + "/a/inner (a source)", found[1].what);
  EXPECT_EQ(points_ + "/a (a source)", found[2].what);
  for (const auto& leftOver : found) {
    EXPECT_EQ(LeftOver::Kind::kMount, leftOver.kind);
    EXPECT_TRUE(leftOver.cleaned);
    EXPECT_EQ("unmounted", leftOver.done);
  }
  EXPECT_THAT(unit.CleanUp(), IsEmpty());
}

TEST_F(UnitStateMountTest, OtherMountsAreReportedAndLeft) {
  const UnitState unit = TakeStock({Point("own")});
  Mount(Point("with blank"));

  const auto found = unit.CleanUp();
  ASSERT_THAT(found, SizeIs(1));
  EXPECT_EQ(points_ + "/with blank (a source)", found[0].what);
  EXPECT_FALSE(found[0].cleaned);
  EXPECT_EQ("not at a mount point of this feature; left as it is", found[0].done);
  EXPECT_EQ(0, umount(Point("with blank").c_str())) << "still mounted";
}

TEST_F(UnitStateMountTest, MountThatWasThereBeforeStaysAlsoAtAnOwnMountPoint) {
  Mount(Point("own"));
  const UnitState unit = TakeStock({Point("own")});
  EXPECT_THAT(unit.CleanUp(), IsEmpty());
  EXPECT_EQ(0, umount(Point("own").c_str()));
}

TEST_F(UnitStateMountTest, ProcessMountAndFolderAreCleanedInThisOrder) {
  const UnitState unit = TakeStock();
  std::filesystem::create_directory(folder_ / "eol");
  Mount(std::filesystem::canonical(folder_ / "eol"));
  Spawn("cd '" + folder_ / "eol" + "'; : >'" + folder_ / "up" + "'; exec sleep 60");
  ASSERT_TRUE(Appears(folder_ / "up"));

  std::vector<std::string> done;
  for (const auto& leftOver : unit.CleanUp()) {
    done.push_back(std::string(KindName(leftOver.kind)) + " " + leftOver.done);
  }
  EXPECT_THAT(done, ElementsAre("process ended", "mount unmounted", "folder removed"));
}

TEST_F(UnitStateMountTest, MountThatHasGoneMeanwhileIsDoneAndWhatLayBeneathItStays) {
  // Two views of one folder: what is mounted or unmounted in the one is in the other as well.
  const std::string one = Point("one");
  const std::string other = Point("other");
  Mount(one);
  ASSERT_EQ(0, mount(nullptr, one.c_str(), nullptr, MS_SHARED, nullptr));
  ASSERT_EQ(0, mount(one.c_str(), other.c_str(), nullptr, MS_BIND, nullptr));
  Mount(Point("one/inner"));
  const UnitState unit = TakeStock({one + "/inner", other + "/inner"});
  Mount(Point("one/inner"));

  // The first of the two to be unmounted takes the second along.
  const auto found = unit.CleanUp();
  ASSERT_THAT(found, SizeIs(2));
  for (const auto& leftOver : found) {
    EXPECT_TRUE(leftOver.cleaned) << leftOver.what;
    EXPECT_EQ("unmounted", leftOver.done) << leftOver.what;
  }
  EXPECT_EQ(0, umount((other + "/inner").c_str())) << "what was there before is still mounted";
  EXPECT_EQ(0, umount(other.c_str()));
  EXPECT_EQ(0, umount(one.c_str()));
}

TEST_F(UnitStateMountTest, MountThatIsInUseIsReported) {
  const UnitState unit = TakeStock({Point("own")});
  Mount(Point("own"));
  support::WriteFile(Point("own") + "/file", "x");
  FILE* user = fopen((Point("own") + "/file").c_str(), "re");

  const auto found = unit.CleanUp();
  ASSERT_THAT(found, SizeIs(1));
  EXPECT_FALSE(found[0].cleaned);
  EXPECT_EQ("cannot be unmounted: Device or resource busy", found[0].done);
  fclose(user);
  EXPECT_EQ(0, umount(Point("own").c_str()));
}

}  // namespace
}  // namespace featurehost
