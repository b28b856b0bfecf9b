#pragma once

#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/FakeProperties.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/SandboxedTest.h"
#include "tests/support/ScriptedTools.h"
#include "tests/support/TempDir.h"

namespace lifecycle {

/** A complete update of all five kinds of items, with the real tools on the sandbox's cards. */
class WholeListTest : public support::SandboxedTest {
 protected:
  void SetUp() override {
    support::SandboxedTest::SetUp();
    if (IsSkipped()) {
      return;
    }
    support::Shell(std::string(MAKE_SAMPLE_UPDATE) + " " + Sizes() + " --weights '60;25;10;3;2' " +
                   update_);
    support::Shell("mkfs.ext3 -q /dev/mmcblk0p1 && mkfs.ext2 -q /dev/mmcblk1p3");
    ReadProperties();
  }

  /** How large the sample is, as options of the script that makes it. */
  virtual std::string Sizes() const { return "--files 200 --archive-mib 6 --image-mib 14"; }

  /** The properties of the sample's configuration: its lines of the form key = value. */
  void ReadProperties() {
    support::Shell("sed -nE 's/^([a-z]+) *= *\"?([^\"]*)\"?$/\\1 \\2/p' " + update_ +
                   "/update.toml > " + update_ + "/properties");
    std::istringstream lines(support::ReadFile(update_ + "/properties"));
    for (std::string key, value; lines >> key >> value;) {
      properties_.values[key] = value;
    }
    ASSERT_EQ(20U, properties_.values.size());
  }

  /** The image's decompressor pauses for seconds in the middle, so that its copy can be met. */
  void SlowImage() {
    tools_ = std::make_unique<support::ScriptedTools>();
    tools_->Add("zcat", "/bin/zcat \"$1\" | { head -c 1000000; sleep 3; cat; }");
  }

  void ExpectEverythingWritten() const {
    support::Shell("mount -o ro /dev/mmcblk0p1 " + update_ +
                   "/mnt && diff -r --no-dereference -x lost+found " + update_ + "/tree " +
                   update_ + "/mnt && umount " + update_ + "/mnt");
    support::Shell("cmp -n " + properties_.values.at("rootfstargetsize") + " " + update_ +
                   "/rootfs.img /dev/mmcblk1p1");
    support::Shell("cmp -n 4096 -i 1024:0 " + update_ + "/factory.bin /dev/mmcblk1p2");
    support::Shell("mount -o ro /dev/mmcblk1p3 " + update_ + "/mnt && cmp -n 2048 -i 512:0 " +
                   update_ + "/settings.bin " + update_ + "/mnt/cfg/eol.bin && umount " + update_ +
                   "/mnt");
  }

  static std::vector<support::LogLine> Log() { return support::RecordedLog::Instance().Lines(); }

  const std::string update_ =
      std::string(getenv("SANDBOX_DIR") == nullptr ? "" : getenv("SANDBOX_DIR")) + "/update";
  support::FakeProperties properties_;
  std::unique_ptr<support::ScriptedTools> tools_;
};

}  // namespace lifecycle
