#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <string>
#include <thread>
#include <unistd.h>

#include "tests/support/CleanTest.h"
#include "tests/support/SystemCalls.h"

namespace {

using support::SystemCalls;
using testing::ElementsAre;
using testing::IsEmpty;

class SystemCallsTest : public support::CleanTest {
 protected:
  void SetUp() override {
    CleanTest::SetUp();
    nothing_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
  }

  void TearDown() override {
    SystemCalls::Instance().Reset();
    close(nothing_);
    CleanTest::TearDown();
  }

  ssize_t Read() const { return read(nothing_, nullptr, 0); }
  static void SignalNobody() { kill(getpid(), 0); }
  template <typename TBody>
  static void OnAnotherThread(const TBody& body) {
    std::thread(body).join();
  }

 private:
  int nothing_ = -1;
};

TEST_F(SystemCallsTest, FailsTheNextCallOfAName) {
  SystemCalls::Instance().Fail("read", EIO);
  EXPECT_EQ(-1, Read());
  EXPECT_EQ(EIO, errno);
  EXPECT_EQ(0, Read());
  EXPECT_EQ(1, SystemCalls::Instance().Failed());
}

// The helpers of a test stand outside of the code under test.
TEST_F(SystemCallsTest, TheFailureIsNotSpentOnACallOfAnotherThread) {
  SystemCalls::Instance().Fail("read", EIO);
  ssize_t elsewhere = -1;
  OnAnotherThread([&] { elsewhere = Read(); });
  EXPECT_EQ(0, elsewhere);
  EXPECT_EQ(-1, Read());
}

TEST_F(SystemCallsTest, ACallOfAnotherThreadDoesNotUseUpThoseThatPass) {
  SystemCalls::Instance().Fail("read", EIO, 1);
  OnAnotherThread([&] { Read(); });
  EXPECT_EQ(0, Read());
  EXPECT_EQ(-1, Read());
}

TEST_F(SystemCallsTest, RecordsTheCallsOfTheMainThreadOnly) {
  int seen = 0;
  SystemCalls::Instance().onCall = [&](const std::string&) { ++seen; };
  OnAnotherThread([] { SignalNobody(); });
  EXPECT_THAT(SystemCalls::Instance().Calls(), IsEmpty());
  EXPECT_EQ(0, seen);

  SignalNobody();
  EXPECT_THAT(SystemCalls::Instance().Calls(),
              ElementsAre("kill " + std::to_string(getpid()) + " 0"));
  EXPECT_EQ(1, seen);
}

}  // namespace
