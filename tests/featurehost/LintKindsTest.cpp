#include <functional>
#include <gmock/gmock.h>
#include <ostream>
#include <set>

#include "tests/featurehost/LintScene.h"
#include "tests/support/TempDir.h"

namespace featurehost::lint {
namespace {

struct KindCase {
  Kind kind;
  std::string item;      // that the finding names
  std::string property;  // likewise
  std::function<void(Scene&)> spoil;
};

void PrintTo(const KindCase& value, std::ostream* stream) {
  *stream << IdOf(value.kind);
}

void OnlyImage(Scene& scene) {
  scene.values["updatelist"] = "rootfs";
  scene.values["updateprogresslist"] = "100";
}

void WithDeep(Scene& scene, const std::string& path, const std::function<void(DeepFacts&)>& spoil) {
  scene.UnpackAll();
  spoil(scene.deep[path]);
}

const std::vector<KindCase>& Cases() {
  static const std::vector<KindCase> cases = {
      {Kind::kListMissing, "", "updateprogresslist",
       [](Scene& s) { s.values.erase("updateprogresslist"); }},
      {Kind::kListEmpty, "", "updatelist",
       [](Scene& s) {
         s.values["updatelist"] = "";
         s.values["updateprogresslist"] = "";
       }},
      {Kind::kItemWithoutWeight, "eolsettings", "updateprogresslist",
       [](Scene& s) { s.values["updateprogresslist"] = "60;25;10;5"; }},
      {Kind::kWeightWithoutItem, "", "updateprogresslist",
       [](Scene& s) { s.values["updateprogresslist"] = "60;25;10;3;2;1"; }},
      {Kind::kItemEmpty, "", "updatelist",
       [](Scene& s) {
         s.values["updatelist"] = "userfs;;rootfs;checkrootfs";
         s.values["updateprogresslist"] = "60;0;30;10";
       }},
      {Kind::kItemDoubled, "rootfs", "",
       [](Scene& s) {
         s.values["updatelist"] = "rootfs;rootfs";
         s.values["updateprogresslist"] = "50;50";
       }},
      {Kind::kItemBlanks, " rootfs", "",
       [](Scene& s) {
         s.values = {{"updatelist", " rootfs"},         {"updateprogresslist", "100"},
                     {" rootfssource", kImage},         {" rootfstarget", "/dev/mmcblk1p1"},
                     {" rootfstargetsize", "25165824"}, {" rootfschecksum", ""}};
       }},
      {Kind::kCheckWithoutName, "check", "",
       [](Scene& s) {
         s.values["updatelist"] = "userfs;check";
         s.values["updateprogresslist"] = "60;40";
       }},
      {Kind::kCheckWithoutImage, "checkrootfs", "",
       [](Scene& s) {
         s.values["updatelist"] = "checkrootfs;rootfs";
         s.values["updateprogresslist"] = "60;40";
       }},
      {Kind::kTooManyItems, "", "updatelist",
       [](Scene& s) {
         constexpr int kCount = 65536;
         std::string list = "factorydata";
         std::string weights = "100";
         for (int index = 1; index < kCount; ++index) {
           list += ";factorydata";
           weights += ";0";
         }
         s.values["updatelist"] = list;
         s.values["updateprogresslist"] = weights;
       }},
      {Kind::kWeightNotANumber, "rootfs", "updateprogresslist",
       [](Scene& s) { s.values["updateprogresslist"] = "60;25%;10;3;2"; }},
      {Kind::kWeightNegative, "rootfs", "updateprogresslist",
       [](Scene& s) { s.values["updateprogresslist"] = "60;-25;10;3;2"; }},
      {Kind::kWeightsSum, "", "updateprogresslist",
       [](Scene& s) { s.values["updateprogresslist"] = "60;25;10;3;3"; }},
      {Kind::kPropertyMissing, "rootfs", "rootfschecksum",
       [](Scene& s) { s.values.erase("rootfschecksum"); }},
      {Kind::kPropertyEmpty, "rootfs", "rootfssource",
       [](Scene& s) { s.values["rootfssource"] = ""; }},
      {Kind::kPropertyUnknown, "rootfs", "rootfsblocksise",
       [](Scene& s) { s.values["rootfsblocksise"] = "32k"; }},
      {Kind::kAltSource, "rootfs", "rootfsaltsource",
       [](Scene& s) { s.values["rootfsaltsource"] = "/tmp/try.img.gz"; }},
      {Kind::kNumberUnparsable, "factorydata", "factorydataoffset",
       [](Scene& s) { s.values["factorydataoffset"] = "0x10"; }},
      {Kind::kNumberNegative, "eolsettings", "eolsettingsoffset",
       [](Scene& s) { s.values["eolsettingsoffset"] = "-1"; }},
      {Kind::kNumberTooLarge, "factorydata", "factorydataoffset",
       [](Scene& s) { s.values["factorydataoffset"] = "2147483648"; }},
      {Kind::kSizeZero, "eolsettings", "eolsettingssize",
       [](Scene& s) { s.values["eolsettingssize"] = "0"; }},
      {Kind::kSizeBlocksHost, "factorydata", "factorydatasize",
       [](Scene& s) {
         s.values["factorydatasize"] = "1048577";
         s.unit.AddFile("/update/factory.bin", 4 * kMib);
         s.unit.AddDevice("/dev/mmcblk1p2", 4 * kMib);
       }},
      {Kind::kImageSizeZero, "rootfs", "rootfstargetsize",
       [](Scene& s) {
         OnlyImage(s);
         s.values["rootfstargetsize"] = "";
       }},
      {Kind::kImageOver4Gib, "rootfs", "rootfstargetsize",
       [](Scene& s) {
         OnlyImage(s);
         s.values["rootfstargetsize"] = std::to_string((4096 * kMib) + kImageSize);
       }},
      {Kind::kCheckSizeZero, "checkrootfs", "rootfstargetsize",
       [](Scene& s) { s.values["rootfstargetsize"] = "0"; }},
      {Kind::kCheckSizeTooLarge, "checkrootfs", "rootfstargetsize",
       [](Scene& s) {
         s.UnpackAll();
         s.values["rootfstargetsize"] = std::to_string(kImageSize + 1);
       }},
      {Kind::kTargetSizeDiffers, "rootfs", "rootfstargetsize",
       [](Scene& s) { s.values["rootfstargetsize"] = std::to_string(kImageSize - 1); }},
      {Kind::kBlockSizeBare, "rootfs", "rootfsblocksize",
       [](Scene& s) { s.values["rootfsblocksize"] = "4096"; }},
      {Kind::kBlockSizeMixed, "rootfs", "rootfsblocksize",
       [](Scene& s) { s.values["rootfsblocksize"] = "2x512"; }},
      {Kind::kBlockSizeRefused, "rootfs", "rootfsblocksize",
       [](Scene& s) {
         s.values["rootfsblocksize"] = "32m";
         s.unit.refused.insert("32m");
       }},
      {Kind::kBlockSizeWraps, "rootfs", "rootfsblocksize",
       [](Scene& s) { s.values["rootfsblocksize"] = "4G"; }},
      {Kind::kBlockSizeShortReads, "rootfs", "rootfsblocksize",
       [](Scene& s) { s.values["rootfsblocksize"] = "64k"; }},
      {Kind::kPathShell, "factorydata", "factorydatasource",
       [](Scene& s) {
         s.values["factorydatasource"] = "/update/factory (1).bin";
         s.unit.AddFile("/update/factory (1).bin", 65536);
       }},
      {Kind::kPathOption, "rootfs", "rootfssource",
       [](Scene& s) {
         s.values["rootfssource"] = "-rootfs.img.gz";
         s.unit.AddGzip("-rootfs.img.gz", 8 * kMib, kImageSize);
       }},
      {Kind::kPathRelative, "userfs", "userfssource",
       [](Scene& s) {
         s.values["userfssource"] = "userfs.tar.gz";
         s.unit.AddGzip("userfs.tar.gz", 10 * kMib, 30 * kMib);
       }},
      {Kind::kTargetFileName, "eolsettings", "eolsettingstargetfilename",
       [](Scene& s) { s.values["eolsettingstargetfilename"] = "cfg/../../../etc/passwd"; }},
      {Kind::kCommandTooLong, "userfs", "userfsmountpoint",
       [](Scene& s) {
         // "mount -t ext3 -o ... /dev/mmcblk0p1 " and the folder: 510 bytes.
         const std::string folder = "/" + std::string(510 - 84 - 15 - 1, 'm');
         s.values["userfsmountpoint"] = folder;
         s.unit.AddFolder(folder);
       }},
      {Kind::kSourceMissing, "eolsettings", "eolsettingssource",
       [](Scene& s) { s.unit.files.erase("/update/settings.bin"); }},
      {Kind::kSourceUnusable, "factorydata", "factorydatasource",
       [](Scene& s) { s.unit.files["/update/factory.bin"].readable = false; }},
      {Kind::kRangeBeyondSource, "factorydata", "factorydatasize",
       [](Scene& s) { s.unit.AddFile("/update/factory.bin", 1024 + 4095); }},
      {Kind::kGzipBad, "rootfs", "rootfssource", [](Scene& s) { s.unit.ends[kImage] = {}; }},
      {Kind::kGzipDamaged, "rootfs", "rootfssource",
       [](Scene& s) { WithDeep(s, kImage, [](DeepFacts& f) { f.damage = "crc"; }); }},
      {Kind::kGzipTrailingBytes, "rootfs", "rootfssource",
       [](Scene& s) { WithDeep(s, kImage, [](DeepFacts& f) { f.bytesBehind = true; }); }},
      {Kind::kArchiveTooLarge, "userfs", "userfssource",
       [](Scene& s) {
         s.unit.AddGzip(kArchive, 10 * kMib, 0x80000000);
         s.unit.AddDevice("/dev/mmcblk0p1", 4096 * kMib);
       }},
      {Kind::kArchiveMultiMember, "userfs", "userfssource",
       [](Scene& s) { s.unit.ends[kArchive].inBlocks = true; }},
      {Kind::kArchiveTrailer, "userfs", "userfssource",
       [](Scene& s) { s.unit.ends[kArchive].lastLength = kMib; }},
      {Kind::kTarDamaged, "userfs", "userfssource",
       [](Scene& s) { WithDeep(s, kArchive, [](DeepFacts& f) { f.tarProblem = "empty"; }); }},
      {Kind::kChecksumDiffers, "rootfs", "rootfschecksum",
       [](Scene& s) {
         WithDeep(s, kImage, [](DeepFacts& f) { f.digest = std::string(32, 'a'); });
       }},
      {Kind::kMountPointMissing, "userfs", "userfsmountpoint",
       [](Scene& s) { s.unit.files.erase("/mnt/userfs"); }},
      {Kind::kMountPointInUse, "userfs", "userfsmountpoint",
       [](Scene& s) { s.unit.mounts["/dev/other"] = {"/mnt/userfs"}; }},
      {Kind::kTargetMissing, "rootfs", "rootfstarget",
       [](Scene& s) { s.unit.files.erase("/dev/mmcblk1p1"); }},
      {Kind::kPartitionFromImage, "factorydata", "factorydatatarget",
       [](Scene& s) {
         s.unit.files.erase("/dev/mmcblk1p2");
         s.values["rootfstarget"] = "/dev/mmcblk1";
       }},
      {Kind::kTargetNotADevice, "factorydata", "factorydatatarget",
       [](Scene& s) {
         s.values["factorydatatarget"] = "/update/device";
         s.unit.AddFile("/update/device", 0);
       }},
      {Kind::kTargetUnusable, "factorydata", "factorydatatarget",
       [](Scene& s) { s.unit.files["/dev/mmcblk1p2"].type = FileFacts::Type::kOther; }},
      {Kind::kTargetMounted, "rootfs", "rootfstarget",
       [](Scene& s) { s.unit.mounts["/dev/mmcblk1p1"] = {"/"}; }},
      {Kind::kTargetAlsoMounted, "eolsettings", "eolsettingstarget",
       [](Scene& s) { s.unit.mounts["/dev/mmcblk1p3"] = {"/settings"}; }},
      {Kind::kTargetTooSmall, "rootfs", "rootfstarget",
       [](Scene& s) { s.unit.AddDevice("/dev/mmcblk1p1", kImageSize - 1); }},
      {Kind::kArchiveLargerThanTarget, "userfs", "userfstarget",
       [](Scene& s) { s.unit.AddDevice("/dev/mmcblk0p1", 30 * kMib - 1); }},
      {Kind::kEolFolderLeft, "eolsettings", "",
       [](Scene& s) { s.unit.AddFolder("/tmp/eolmountpoint"); }},
      {Kind::kCardMissing, "rootfs", "", [](Scene& s) { s.unit.files.erase("/dev/mmcblk1"); }},
      {Kind::kToolMissing, "rootfs", "",
       [](Scene& s) { s.unit.tools["fdisk"] = ToolState::kMissing; }},
      {Kind::kToolNotExecutable, "userfs", "",
       [](Scene& s) { s.unit.tools["/bin/tar"] = ToolState::kNotExecutable; }},
      {Kind::kZcatAcceptsDamage, "rootfs", "", [](Scene& s) { s.unit.accepting.insert("zcat"); }},
      {Kind::kKilledRun, "", "", [](Scene& s) { s.unit.others.killed = {"an install"}; }},
      {Kind::kRunsUnknown, "", "", [](Scene& s) { s.unit.others.unjudged = 2; }},
      {Kind::kOtherInstall, "", "", [](Scene& s) { s.unit.others.running = {"other"}; }},
  };
  return cases;
}

TEST(LintTest, GoodUpdateOnAGoodUnitIsClean) {
  EXPECT_THAT(IdsOf(Scene().Lint()), testing::IsEmpty());
  Scene unpacked;
  unpacked.UnpackAll();
  EXPECT_THAT(IdsOf(unpacked.Lint()), testing::IsEmpty());
}

TEST(LintTest, EmptyOffsetIsTheZeroThatIsMeant) {
  Scene scene;
  scene.values["factorydataoffset"] = "";
  EXPECT_THAT(IdsOf(scene.Lint()), testing::IsEmpty());
}

class LintKindTest : public testing::TestWithParam<KindCase> {};

TEST_P(LintKindTest, IsFoundAloneAndExplained) {
  Scene scene;
  GetParam().spoil(scene);
  const auto findings = scene.Lint();
  std::vector<Finding> rest;
  for (const Finding& finding : findings) {
    // A list of so many items has doubled ones.
    if (GetParam().kind != Kind::kTooManyItems || finding.kind != Kind::kItemDoubled) {
      rest.push_back(finding);
    }
  }
  ASSERT_THAT(IdsOf(rest), testing::ElementsAre(IdOf(GetParam().kind)));
  EXPECT_EQ("maincpu", rest[0].feature);
  EXPECT_EQ(GetParam().item, rest[0].item);
  EXPECT_EQ(GetParam().property, rest[0].property);
  EXPECT_NE("", rest[0].why);
  EXPECT_NE("", rest[0].instead);
}

std::string CaseName(const testing::TestParamInfo<KindCase>& info) {
  std::string name = IdOf(info.param.kind);
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(Kinds, LintKindTest, testing::ValuesIn(Cases()), CaseName);

TEST(LintTest, EveryKindHasACaseAndAnEntryInTheReference) {
  const std::string reference = support::ReadFile(LINT_REFERENCE);
  std::set<Kind> covered;
  for (const KindCase& one : Cases()) {
    EXPECT_TRUE(covered.insert(one.kind).second) << IdOf(one.kind) << " has two cases";
  }
  std::set<std::string> ids;
  for (const Kind kind : AllKinds()) {
    const std::string id = IdOf(kind);
    EXPECT_EQ(1U, covered.count(kind)) << id << " has no case";
    EXPECT_TRUE(ids.insert(id).second) << id << " is the id of two kinds";
    const std::string entry = "| `" + id + "` | " + NameOf(SeverityOf(kind)) + " | ";
    EXPECT_THAT(reference, testing::HasSubstr("\n" + entry)) << "docs/lint.md";
  }
  std::size_t entries = 0;
  for (std::size_t at = 0; (at = reference.find("\n| `", at)) != std::string::npos; ++at) {
    ++entries;
  }
  EXPECT_EQ(AllKinds().size(), entries) << "entries in docs/lint.md";
}

}  // namespace
}  // namespace featurehost::lint
