#include "tests/faults/UsedUpDescriptors.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/ProcessState.h"

namespace faults {

UsedUpDescriptors::UsedUpDescriptors() {
  EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &before_));
  const auto highest = static_cast<rlim_t>(support::OpenDescriptors().rbegin()->first);
  const rlimit lowered{highest + 1, before_.rlim_max};
  EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &lowered));
  int filler = -1;
  while ((filler = open("/dev/null", O_RDONLY | O_CLOEXEC)) != -1) {
    fillers_.push_back(filler);
  }
  EXPECT_EQ(EMFILE, errno);
}

UsedUpDescriptors::~UsedUpDescriptors() {
  for (const int filler : fillers_) {
    close(filler);
  }
  EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &before_));
}

}  // namespace faults
