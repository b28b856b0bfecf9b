#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <malloc.h>
#include <unistd.h>

#include "featurehost/src/Module.h"
#include "tests/lifecycle/LiveHost.h"
#include "tests/lifecycle/WholeListTest.h"
#include "tests/support/HostFakes.h"
#include "tests/support/ProcessState.h"
#include "tests/support/SystemCalls.h"

namespace {

using lifecycle::LiveHost;

/** What must not grow with the number of runs. */
struct Held {
  std::size_t heapKiB = 0;  // taken from the allocator, freed or not returned
  std::size_t residentKiB = 0;
  std::size_t descriptors = 0;
  std::size_t children = 0;
  std::size_t mounts = 0;
};

std::size_t Lines(const char* file) {
  std::ifstream lines(file);
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line);) {
    ++count;
  }
  return count;
}

std::size_t ResidentKiB() {
  std::size_t ignored = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> ignored >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024;
}

Held HeldNow() {
  const auto heap = mallinfo2();
  return {(heap.uordblks + heap.hblkhd) / 1024, ResidentKiB(), support::OpenDescriptors().size(),
          support::Children().size(), Lines("/proc/self/mountinfo")};
}

std::size_t NumberFrom(const char* variable, std::size_t standard) {
  const char* text = getenv(variable);  // NOLINT(concurrency-mt-unsafe): there is one thread
  return text == nullptr ? standard : std::strtoul(text, nullptr, 10);
}

void PrintRow(const std::string& label, const Held& held) {
  std::cout << "| " << std::setw(12) << label << " | " << std::setw(8) << held.heapKiB << " | "
            << std::setw(12) << held.residentKiB << " | " << std::setw(11) << held.descriptors
            << " | " << std::setw(8) << held.children << " | " << std::setw(6) << held.mounts
            << " |" << std::endl;
}

/**
 * Complete updates one after another in one process. How many is set from outside: scripts/soak
 * asks for many, the everyday run for a few.
 */
class SoakTest : public lifecycle::WholeListTest {
 protected:
  std::string Sizes() const override { return "--files 20 --archive-mib 1 --image-mib 1"; }

  void Install() {
    {
      const support::FakeProperties properties = properties_;
      LiveHost host(properties);
      host.StartInstall();
      host.ServeUntil("204");
      EXPECT_EQ("204 1", host.Events().back());
    }
    // The records of the test kit grow by design, those of the properties too.
    support::RecordedLog::Instance().Clear();
    support::SystemCalls::Instance().Forget();
    support::HostFakes::Instance().Forget();
  }

  /** Install so often, and show now and then what is held. */
  void InstallTimes(std::size_t times, const std::string& label) {
    for (std::size_t run = 1; run <= times && !HasFailure(); ++run) {
      Install();
      if (run == times || run % std::max<std::size_t>(times / 20, 1) == 0) {
        PrintRow(label + " " + std::to_string(run), HeldNow());
      }
    }
  }

  static void ExpectNothingMoreHeld(const Held& before) {
    const Held after = HeldNow();
    EXPECT_EQ(before.descriptors, after.descriptors);
    EXPECT_EQ(0U, after.children);
    EXPECT_EQ(before.mounts, after.mounts);
#ifndef __SANITIZE_ADDRESS__
    // The allocator's caches and the test kit's buffers fill up during the first runs, and then
    // stay. Over a thousand runs this finds a quarter of a KiB that each leaves.
    EXPECT_LE(after.heapKiB, before.heapKiB + 256);
#endif
  }
};

TEST_F(SoakTest, RunAfterRunHoldsNoMoreThanTheFirstOnes) {
  {
    const featurehost::Module keepsItLoaded(MODULE_PATH);
    InstallTimes(2, "warm-up");
    const Held before = HeldNow();
    InstallTimes(NumberFrom("SOAK_RUNS", 4), "run");
    ExpectNothingMoreHeld(before);
  }
  InstallTimes(1, "unloaded");
  const Held before = HeldNow();
  InstallTimes(NumberFrom("SOAK_RELOADS", 3), "reload");
  ExpectNothingMoreHeld(before);
  ExpectEverythingWritten();
}

}  // namespace
