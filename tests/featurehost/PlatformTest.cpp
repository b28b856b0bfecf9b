#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <sys/time.h>

#include "host/Platform.h"
#include "tests/featurehost/HostTest.h"

namespace featurehost {
namespace {

using Clock = std::chrono::steady_clock;
using testing::Ge;
using testing::Le;

using PlatformTest = HostTest;

volatile sig_atomic_t alarms = 0;

TEST_F(PlatformTest, SleepsForMicroseconds) {
  const auto start = Clock::now();
  platSleep(20000);
  const auto slept = Clock::now() - start;
  EXPECT_THAT(slept, Ge(std::chrono::microseconds(20000)));
  EXPECT_THAT(slept, Le(std::chrono::seconds(5)));
}

TEST_F(PlatformTest, SleepGoesOnAfterSignals) {
  alarms = 0;
  struct sigaction action {};
  action.sa_handler = [](int) { alarms = alarms + 1; };
  struct sigaction before {};
  sigaction(SIGALRM, &action, &before);
  const itimerval often{{0, 5000}, {0, 5000}};
  setitimer(ITIMER_REAL, &often, nullptr);

  const auto start = Clock::now();
  platSleep(100000);
  const auto slept = Clock::now() - start;

  const itimerval never{};
  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &before, nullptr);
  EXPECT_THAT(alarms, Ge(1));
  EXPECT_THAT(slept, Ge(std::chrono::microseconds(100000)));
}

TEST_F(PlatformTest, SafecopyCutsAndAlwaysTerminates) {
  char field[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
  platSafecopy(field, "abcdefgh", 4);
  EXPECT_STREQ("abc", field);
  EXPECT_EQ('x', field[4]);
}

TEST_F(PlatformTest, SafecopyLeavesTheRestOfTheField) {
  char field[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
  platSafecopy(field, "ab", 8);
  EXPECT_STREQ("ab", field);
  EXPECT_EQ('x', field[3]);
}

TEST_F(PlatformTest, SafecopyOfNothingWritesNothing) {
  char field[2] = {'x', 'x'};
  platSafecopy(field, "ab", 0);
  EXPECT_EQ('x', field[0]);
  platSafecopy(field, "ab", 1);
  EXPECT_EQ('\0', field[0]);
  EXPECT_EQ('x', field[1]);
}

}  // namespace
}  // namespace featurehost
