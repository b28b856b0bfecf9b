#pragma once

#include <cstdlib>

#include "tests/support/CleanTest.h"

namespace support {

/**
 * The fixture for tests that use /dev/mmcblk0 and /dev/mmcblk1 with the real tools. Skips outside
 * of scripts/sandbox, so that such a test never meets a device of the machine.
 */
class SandboxedTest : public CleanTest {
 protected:
  void SetUp() override {
    CleanTest::SetUp();
    if (getenv("SANDBOX") == nullptr) {
      GTEST_SKIP() << "not run by scripts/sandbox";
    }
  }
};

}  // namespace support
