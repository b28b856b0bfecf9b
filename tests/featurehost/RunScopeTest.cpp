#include <filesystem>
#include <gmock/gmock.h>
#include <unistd.h>

#include "featurehost/src/RunScope.h"
#include "tests/featurehost/HostTest.h"

namespace featurehost {
namespace {

using testing::ElementsAre;

using RunScopeTest = HostTest;

RunScope Targets(const std::string& target) {
  return {{}, "", {target}};
}

TEST_F(RunScopeTest, ComesFromTheItemsOfTheUpdateList) {
  const Properties properties("maincpu", {{"updatelist", "userfs;rootfs;eolsettings"},
                                          {"updateprogresslist", "1;1;1"},
                                          {"userfsmountpoint", "/mnt"},
                                          {"userfstarget", "/dev/a"},
                                          {"rootfstarget", "/dev/b"},
                                          {"othertarget", "/dev/c"},
                                          {"othermountpoint", "/other"}});
  const RunScope scope = ScopeOf(properties);
  EXPECT_THAT(scope.mountPoints, ElementsAre("/mnt"));
  EXPECT_THAT(scope.targets, ElementsAre("/dev/a", "/dev/b"));
  EXPECT_EQ("/tmp/eolmountpoint", scope.folder);
}

TEST_F(RunScopeTest, RelativePathsAreThoseOfTheRunsFolder) {
  const Properties properties("maincpu", {{"updatelist", "userfs"},
                                          {"updateprogresslist", "1"},
                                          {"userfsmountpoint", "mnt"},
                                          {"userfstarget", "card"}});
  const RunScope scope = ScopeOf(properties);
  const std::string here = std::filesystem::current_path().string() + "/";
  EXPECT_THAT(scope.mountPoints, ElementsAre(here + "mnt"));
  EXPECT_THAT(scope.targets, ElementsAre(here + "card"));
}

TEST_F(RunScopeTest, FolderBelongsToEndOfLineSettingsAlone) {
  const Properties properties("maincpu", {{"updatelist", "rootfs"}, {"updateprogresslist", "1"}});
  EXPECT_EQ("", ScopeOf(properties).folder);
}

TEST_F(RunScopeTest, RunsMeetOnATargetUnderWhateverName) {
  support::WriteFile(folder_ / "card", "");
  ASSERT_EQ(0, symlink((folder_ / "card").c_str(), (folder_ / "link").c_str()));
  EXPECT_TRUE(Targets(folder_ / "card").Meets(Targets(folder_ / "link")));
  EXPECT_FALSE(Targets(folder_ / "card").Meets(Targets(folder_ / "other")));
}

TEST_F(RunScopeTest, RunsMeetOnADiskAndItsPartitionButNotOnTwoPartitions) {
  EXPECT_TRUE(Targets("/dev/mmcblk7").Meets(Targets("/dev/mmcblk7p2")));
  EXPECT_TRUE(Targets("/dev/mmcblk7p2").Meets(Targets("/dev/mmcblk7")));
  EXPECT_TRUE(Targets("/dev/xyz").Meets(Targets("/dev/xyz12")));
  EXPECT_FALSE(Targets("/dev/mmcblk7p1").Meets(Targets("/dev/mmcblk7p2")));
  EXPECT_FALSE(Targets("/dev/mmcblk7p1").Meets(Targets("/dev/mmcblk7p10")));
  EXPECT_FALSE(Targets("/dev/mmcblk7").Meets(Targets("/dev/mmcblk70")));
}

TEST_F(RunScopeTest, RunsMeetOnAMountPointAndOnTheFolder) {
  const RunScope userfs{{"/mnt/userfs"}, "", {}};
  const RunScope eol{{}, "/tmp/eol", {}};
  EXPECT_TRUE(userfs.Meets({{"/mnt/../mnt/userfs/"}, "", {}}));
  EXPECT_TRUE(eol.Meets(eol));
  EXPECT_FALSE(userfs.Meets(eol));
  EXPECT_FALSE(RunScope{}.Meets(RunScope{}));
}

}  // namespace
}  // namespace featurehost
