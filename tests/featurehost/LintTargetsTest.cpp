#include <gmock/gmock.h>
#include <string>
#include <utility>
#include <vector>

#include "featurehost/src/lint/LintReport.h"
#include "tests/featurehost/LintScene.h"

namespace featurehost::lint {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kCard = "/dev/mmcblk1";
constexpr const char* kPartition = "/dev/mmcblk1p2";

/** An image that writes a whole disk, and items behind it. */
struct DiskScene : Scene {
  DiskScene() {
    values["disksource"] = kImage;
    values["disktarget"] = kCard;
    values["disktargetsize"] = std::to_string(kImageSize);
    values["diskchecksum"] = "";
  }

  void List(const std::string& names, const std::string& weights) {
    values["updatelist"] = names;
    values["updateprogresslist"] = weights;
  }

  /** The image writes the disk, and then factory data are copied to a partition. */
  std::vector<Finding> LintPair(const std::string& disk, const std::string& partition) {
    List("disk;factorydata", "90;10");
    values["disktarget"] = disk;
    values["factorydatatarget"] = partition;
    return Lint();
  }
};

TEST(LintTargetsTest, PartitionThatAnEarlierImageMayBringIsAWarning) {
  const std::vector<std::pair<std::string, std::string>> pairs = {
      {"/dev/mmcblk1", "/dev/mmcblk1p4"}, {"/dev/mmcblk0", "/dev/mmcblk0p12"},
      {"/dev/nvme0n1", "/dev/nvme0n1p1"}, {"/dev/loop7", "/dev/loop7p2"},
      {"/dev/sda", "/dev/sda1"},          {"/dev/vdb", "/dev/vdb15"}};
  for (const auto& [disk, partition] : pairs) {
    DiskScene scene;
    scene.unit.AddDevice(disk, 64 * kMib);
    const auto findings = scene.LintPair(disk, partition);
    ASSERT_THAT(IdsOf(findings), ElementsAre("partition-from-image")) << partition;
    EXPECT_EQ(Severity::kWarning, SeverityOf(findings[0].kind));
    EXPECT_EQ("factorydata", findings[0].item);
    EXPECT_EQ("factorydatatarget", findings[0].property);
    EXPECT_EQ(partition, findings[0].value);
    EXPECT_THAT(findings[0].why, HasSubstr("item \"disk\""));
    EXPECT_THAT(findings[0].why, HasSubstr(disk));
  }
}

TEST(LintTargetsTest, WarningTellsWhetherTheUpdateItselfHasTheNewTableRead) {
  DiskScene scene;
  scene.unit.files.erase(kPartition);
  // The command at the end of an image is for this card.
  EXPECT_THAT(scene.LintPair(kCard, kPartition)[0].why, HasSubstr("fdisk"));
  scene.unit.AddDevice("/dev/mmcblk0", 128 * kMib);
  EXPECT_THAT(scene.LintPair("/dev/mmcblk0", "/dev/mmcblk0p3")[0].why,
              HasSubstr("no item makes the kernel read it"));
}

TEST(LintTargetsTest, WarningTellsWhatHappensWithoutThePartition) {
  DiskScene scene;
  scene.unit.files.erase(kPartition);
  EXPECT_THAT(scene.LintPair(kCard, kPartition)[0].why,
              HasSubstr("a regular file takes its place"));
  scene.List("disk;eolsettings", "90;10");
  scene.unit.files.erase("/dev/mmcblk1p3");
  const auto findings = scene.Lint();
  ASSERT_THAT(IdsOf(findings), ElementsAre("partition-from-image"));
  EXPECT_THAT(findings[0].why, HasSubstr("the item fails"));
}

TEST(LintTargetsTest, EveryKindOfItemMayWaitForThePartition) {
  for (const char* item : {"userfs", "rootfs", "checkrootfs", "factorydata", "eolsettings"}) {
    DiskScene scene;
    scene.List(std::string("disk;") + item, "90;10");
    const std::string key = std::string(item == std::string("checkrootfs") ? "rootfs" : item);
    scene.values[key + "target"] = "/dev/mmcblk1p9";
    const auto findings = scene.Lint();
    EXPECT_THAT(IdsOf(findings), Contains("partition-from-image")) << item;
    EXPECT_EQ(0U, CountOf(findings).errors) << item;
  }
}

TEST(LintTargetsTest, DiskIsKnownByItsLinksToo) {
  DiskScene scene;
  scene.unit.AddDevice("/dev/disk/by-id/mmc-card", 128 * kMib);
  scene.unit.links["/dev/disk/by-id/mmc-card"] = kCard;
  scene.unit.files.erase(kPartition);
  EXPECT_THAT(IdsOf(scene.LintPair("/dev/disk/by-id/mmc-card", kPartition)),
              ElementsAre("partition-from-image"));
}

TEST(LintTargetsTest, ItemBeforeTheImageFindsNoPartition) {
  DiskScene scene;
  scene.unit.files.erase(kPartition);
  scene.List("factorydata;disk", "10;90");
  EXPECT_THAT(IdsOf(scene.Lint()), ElementsAre("target-missing"));
  // It is the first of its two turns that fails.
  scene.List("factorydata;disk;factorydata", "10;80;10");
  EXPECT_THAT(IdsOf(scene.Lint()), ElementsAre("item-doubled", "target-missing"));
}

TEST(LintTargetsTest, ImageOfAnotherDiskBringsNoPartition) {
  const std::vector<std::pair<std::string, std::string>> pairs = {
      {"/dev/mmcblk1", "/dev/mmcblk0p3"},
      {"/dev/mmcblk1", "/dev/mmcblk11p3"},
      {"/dev/mmcblk1", "/dev/mmcblk12"},
      {"/dev/sda", "/dev/sdb1"},
      {"/dev/sda", "/dev/sdaa1"},
      {"/dev/nvme0n1", "/dev/nvme0n12p1"},
      {"/dev/loop1", "/dev/loop12"},
      {"/dev/mmcblk1", "/dev/mmcblk1boot0"},
      {"/dev/mmcblk1", "/dev/other/mmcblk1p1"},
      {"/dev/mmcblk1", "/dev/mmcblk1p"}};
  for (const auto& [disk, partition] : pairs) {
    DiskScene scene;
    scene.unit.AddDevice(disk, 64 * kMib);
    EXPECT_THAT(IdsOf(scene.LintPair(disk, partition)), ElementsAre("target-missing"))
        << disk << " " << partition;
  }
}

TEST(LintTargetsTest, OnlyAnImageOnAWholeDiskBringsPartitions) {
  DiskScene missing;
  EXPECT_THAT(IdsOf(missing.LintPair("/dev/sda", "/dev/sda1")),
              ElementsAre("target-missing", "target-missing"));

  DiskScene file;
  file.unit.AddFile("/update/sda", kMib);
  file.unit.files.erase("/update");
  EXPECT_THAT(IdsOf(file.LintPair("/update/sda", "/update/sda1")),
              ElementsAre("target-not-a-device", "target-missing"));

  DiskScene partition;
  partition.unit.AddDevice("/dev/sda1", 64 * kMib);
  partition.unit.files["/dev/sda1"].isPartition = true;
  EXPECT_THAT(IdsOf(partition.LintPair("/dev/sda1", "/dev/sda1p1")), ElementsAre("target-missing"));

  DiskScene data;
  data.unit.files.erase("/dev/mmcblk1p3");
  data.values["factorydatatarget"] = kCard;
  data.List("factorydata;eolsettings", "50;50");
  EXPECT_THAT(IdsOf(data.Lint()), ElementsAre("target-missing"));
}

TEST(LintTargetsTest, PartitionThatIsTooSmallMayBeLargerAfterAnEarlierImage) {
  DiskScene scene;
  scene.unit.AddDevice(kPartition, 4095);
  const auto findings = scene.LintPair(kCard, kPartition);
  ASSERT_THAT(IdsOf(findings), ElementsAre("partition-from-image"));
  EXPECT_THAT(findings[0].why, HasSubstr("has 4095 bytes"));
  EXPECT_THAT(findings[0].why, HasSubstr("4096 are needed"));

  scene.List("factorydata;disk", "10;90");
  EXPECT_THAT(IdsOf(scene.Lint()), ElementsAre("target-too-small"));
}

TEST(LintTargetsTest, NoPartitionIsLargerThanItsDisk) {
  DiskScene scene;
  scene.List("disk;factorydata", "90;10");
  scene.unit.AddDevice(kCard, kImageSize);
  scene.unit.AddDevice(kPartition, kMib);
  scene.unit.AddFile("/update/factory.bin", 4 * std::uint64_t{kImageSize});
  scene.values["factorydatasize"] = std::to_string(kImageSize + 1);
  EXPECT_THAT(IdsOf(scene.Lint()), ElementsAre("size-blocks-host", "target-too-small"));
}

}  // namespace
}  // namespace featurehost::lint
