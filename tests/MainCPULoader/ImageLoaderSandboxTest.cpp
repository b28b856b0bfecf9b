#include <gmock/gmock.h>
#include <optional>

#include "MainCPULoader/src/ImageLoader.h"
#include "tests/support/DeliverDue.h"
#include "tests/support/Eventually.h"
#include "tests/support/FakeBroker.h"
#include "tests/support/FakeCallback.h"
#include "tests/support/FakeProperties.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/SandboxedTest.h"
#include "tests/support/TempDir.h"

namespace {

using support::RecordedLog;
using testing::IsEmpty;

constexpr std::size_t KMiB = 1024 * 1024;

/** With the real zcat, dd and fdisk, on cards that are images. */
class ImageLoaderSandboxTest : public support::SandboxedTest {
 protected:
  ImageLoaderSandboxTest() {
    properties_.values = {{"imgsource", image_}, {"imgblocksize", "32k"}, {"imgchecksum", "abc"}};
  }
  void TearDown() override {
    loader_.reset();
    SandboxedTest::TearDown();
  }

  void Install(const std::string& content, const std::string& target) {
    support::WriteGzip(image_, content);
    properties_.values["imgtarget"] = target;
    properties_.values["imgtargetsize"] = std::to_string(content.length());
    loader_.emplace("img", featureId_, broker_, properties_, callback_);
    ASSERT_EQ(ETrue, loader_->Prepare());
    loader_->Install();
    support::Ticks ticks;
    EXPECT_TRUE(support::Eventually([&] {
      support::DeliverDue(broker_, ticks);
      return callback_.Ended();
    }));
  }

  static std::string Beginning(const std::string& device, std::size_t length) {
    const support::TempDir dir;
    const std::string copy = dir / "beginning";
    support::Shell("head -c " + std::to_string(length) + " " + device + " > " + copy);
    return support::ReadFile(copy);
  }

  support::TempDir dir_;
  std::string image_ = dir_ / "image.gz";
  std::string featureId_ = "feature";
  support::FakeBroker broker_;
  support::FakeProperties properties_;
  support::FakeCallback callback_;
  std::optional<CImageLoader> loader_;
};

TEST_F(ImageLoaderSandboxTest, WritesAnImageOntoAPartitionAndLeavesTheTableAsItWas) {
  const auto content = support::RandomBytes(20 * KMiB + 512);
  const auto rest = std::string(KMiB, 'r');
  support::WriteFile(dir_ / "rest", rest);
  support::Shell("dd if=" + (dir_ / "rest") + " of=/dev/mmcblk1p1 bs=512 seek=40961 2>/dev/null");
  support::Shell("sfdisk --dump /dev/mmcblk1 > " + (dir_ / "before"));

  Install(content, "/dev/mmcblk1p1");

  EXPECT_EQ("Completed 1", callback_.Reports().back());
  EXPECT_THAT(RecordedLog::Instance().Errors(), IsEmpty());
  EXPECT_TRUE(content + rest == Beginning("/dev/mmcblk1p1", content.length() + rest.length()))
      << "and what is behind the image stays";
  support::Shell("sfdisk --dump /dev/mmcblk1 > " + (dir_ / "after"));
  EXPECT_EQ(support::ReadFile(dir_ / "before"), support::ReadFile(dir_ / "after"));
}

TEST_F(ImageLoaderSandboxTest, TheTableOfTheSecondCardIsWrittenWhateverTheTargetIs) {
  support::Shell("dd if=/dev/zero of=/dev/mmcblk1 bs=512 count=1 2>/dev/null");
  const auto content = support::RandomBytes(KMiB);

  Install(content, "/dev/mmcblk0p1");

  EXPECT_EQ("Completed 1", callback_.Reports().back());
  EXPECT_TRUE(content == Beginning("/dev/mmcblk0p1", content.length()));
  const auto first = Beginning("/dev/mmcblk1", 512);
  EXPECT_EQ("\x55\xaa", first.substr(510)) << "fdisk has put a new table where there was none";
}

TEST_F(ImageLoaderSandboxTest, AnImageThatIsTooLargeForItsPartitionFailsAndTheTableIsNotWritten) {
  support::Shell("dd if=/dev/zero of=/dev/mmcblk1 bs=512 count=1 2>/dev/null");

  Install(support::RandomBytes(9 * KMiB), "/dev/mmcblk1p2");

  EXPECT_EQ("Completed 0", callback_.Reports().back());
  EXPECT_TRUE(RecordedLog::Instance().HasText("ImageLoader: Failed to install image: " + image_));
  EXPECT_EQ(std::string(512, '\0'), Beginning("/dev/mmcblk1", 512));
}

TEST_F(ImageLoaderSandboxTest, AUnitWithoutTheSecondCardFailsTheInstallAfterTheCopy) {
  support::Shell("rm /dev/mmcblk1");
  const auto content = support::RandomBytes(KMiB);

  Install(content, "/dev/mmcblk0p1");

  EXPECT_EQ("Completed 0", callback_.Reports().back());
  EXPECT_TRUE(RecordedLog::Instance().HasText("fdisk: failed to write partition table: 1"));
  EXPECT_TRUE(content == Beginning("/dev/mmcblk0p1", content.length()));
}

}  // namespace
