#include "tests/faults/UsedUpDescriptors.h"

#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/ProcessState.h"

namespace faults {

namespace {

/** Shells keep their script at 10 and above, and the host may have started with three only. */
constexpr int kRoomForChildren = 64;

}  // namespace

UsedUpDescriptors::UsedUpDescriptors() {
  EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &before_));
  fillers_.push_back(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, kRoomForChildren));
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
