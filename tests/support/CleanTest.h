#pragma once

#include <cstddef>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

#include "tests/support/ProcessState.h"

namespace support {

/**
 * The fixture for everything: starts with an empty log and fresh host functions, and fails the test
 * when it leaves a descriptor, a child or a subscription behind that was not there before.
 *
 * Objects under test must be gone when TearDown runs, so make them locals of the test or reset
 * them in the derived fixture's TearDown before calling this one.
 */
class CleanTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /** For tests of a behaviour that leaves something: take it as found from now on. */
  void AcceptWhatIsLeft();

 private:
  std::map<int, std::string> descriptors_;
  std::vector<pid_t> children_;
  std::size_t subscriptions_ = 0;
};

}  // namespace support
