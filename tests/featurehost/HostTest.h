#pragma once

#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

#include "featurehost/src/Log.h"
#include "tests/support/ProcessState.h"
#include "tests/support/TempDir.h"

namespace featurehost {

/** A folder of its own, a log file in it, and a check for left descriptors and children. */
class HostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    descriptors_ = support::OpenDescriptors();
    children_ = support::Children();
    Log::Instance().SetQuiet(true);
    Log::Instance().SetLevel(Level::kInterface);
    Log::Instance().OpenFile(folder_ / "log");
  }

  void TearDown() override {
    Log::Instance().CloseFile();
    EXPECT_EQ(descriptors_, support::OpenDescriptors()) << "descriptors before and after";
    EXPECT_EQ(children_, support::Children()) << "children before and after";
  }

  std::string LogText() const { return support::ReadFile(folder_ / "log"); }

  support::TempDir folder_;

 private:
  std::map<int, std::string> descriptors_;
  std::vector<pid_t> children_;
};

}  // namespace featurehost
