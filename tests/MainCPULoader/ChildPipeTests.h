#pragma once

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <linux/sched.h>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "SWLInfra/src/Pipe.h"
#include "SWLInfra/src/Text.h"
#include "tests/support/CleanTest.h"
#include "tests/support/Eventually.h"
#include "tests/support/Expendable.h"
#include "tests/support/PrivateMounts.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/TempDir.h"

/**
 * What the two child pipes have in common, for a traits class with
 *
 *   TPipe                      the class under test
 *   KTool, KSource             "/bin/zcat" and the source file as in the log
 *   KDestructor                its name in the log
 *   KPipeText, KForkText, KWaitText   texts of the failures
 *   KOurMode                   O_RDONLY or O_WRONLY, of the end that the parent keeps
 *   ArgumentToWaitOn(folder)   an argument of Create with which the tool waits
 */
namespace childpipes {

/** Open descriptors of this process that were not among the earlier ones. */
inline std::map<int, std::string> Added(const std::map<int, std::string>& before) {
  std::map<int, std::string> added;
  for (const auto& entry : support::OpenDescriptors()) {
    if (before.count(entry.first) == 0) {
      added.insert(entry);
    }
  }
  return added;
}

/** The only child of this process. */
inline pid_t OnlyChild() {
  const auto children = support::Children();
  EXPECT_EQ(1U, children.size());
  return children.empty() ? -1 : *children.begin();
}

/** Wait, without reaping it, until a child has ended. */
inline void WaitUntilEnded(pid_t child) {
  siginfo_t information{};
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &information, WEXITED | WNOWAIT));
}

inline int Reap(pid_t child) {
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  return status;
}

/** A child that waits for its end. */
inline pid_t IdleChild() {
  const pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  return child;
}

inline void EndChild(pid_t child) {
  kill(child, SIGKILL);
  Reap(child);
}

/** A child with a chosen id, which must be free; -1 where that is not permitted. */
inline pid_t IdleChildWithId(pid_t id) {
  clone_args arguments{};
  arguments.exit_signal = SIGCHLD;
  arguments.set_tid = reinterpret_cast<std::uintptr_t>(&id);
  arguments.set_tid_size = 1;
  const auto child = static_cast<pid_t>(syscall(SYS_clone3, &arguments, sizeof arguments));
  if (child == 0) {
    pause();
    _exit(0);
  }
  return child;
}

/** The value of a line such as "SigBlk:\t0000" in /proc/PID/status. */
inline std::string StatusField(pid_t process, const std::string& name) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string key, value; status >> key && std::getline(status, value);) {
    if (key == name + ":") {
      return value.substr(value.find_first_not_of(" \t"));
    }
  }
  return "";
}

inline void WaitUntilItHasItsProgram(pid_t child) {
  while (StatusField(child, "Name") == StatusField(getpid(), "Name")) {
    usleep(1000);
  }
}

/** The numbers of a process's open descriptors, sorted as texts. */
inline std::set<std::string> DescriptorsOf(pid_t process) {
  std::set<std::string> numbers;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/fd")) {
    numbers.insert(entry.path().filename());
  }
  return numbers;
}

template <typename TTraits>
class ChildPipeTest : public support::CleanTest {
 protected:
  using TPipe = typename TTraits::TPipe;

  bool Create(TPipe& pipe) { return pipe.Create(Bytes(argument_)); }

  /** Start a child that waits, and end it when it has been looked at in its own program. */
  void WithWaitingChild(const std::function<void(pid_t)>& look) {
    TPipe pipe;
    ASSERT_TRUE(pipe.Create(Bytes(TTraits::ArgumentToWaitOn(directory_))));
    const pid_t child = OnlyChild();
    WaitUntilItHasItsProgram(child);
    look(child);
    kill(child, SIGKILL);
  }

  /** Of the pipe behind the one descriptor that Create keeps. */
  int CapacityOnceCreated(TPipe& pipe) {
    const auto before = support::OpenDescriptors();
    EXPECT_TRUE(Create(pipe));
    const auto added = Added(before);
    EXPECT_EQ(1U, added.size());
    return added.empty() ? -1 : fcntl(added.begin()->first, F_GETPIPE_SZ);
  }

  static support::LogSource Log() { return {logging::MainCPULoader, TTraits::KSource}; }

  support::TempDir directory_;
  std::string argument_ = directory_.Path();
};

TYPED_TEST_SUITE_P(ChildPipeTest);

TYPED_TEST_P(ChildPipeTest, ThatWasNeverStartedEndsWithoutAWord) {
  const pid_t other = childpipes::IdleChild();

  { typename TypeParam::TPipe pipe; }

  EXPECT_THAT(support::RecordedLog::Instance().Lines(), testing::IsEmpty());
  EXPECT_EQ(0, waitpid(other, nullptr, WNOHANG)) << "another child of the host was waited for";
  EndChild(other);
}

TYPED_TEST_P(ChildPipeTest, KeepsOneEndWhichNoOtherChildInherits) {
  const auto before = support::OpenDescriptors();
  typename TypeParam::TPipe pipe;

  testing::internal::CaptureStdout();
  ASSERT_TRUE(this->Create(pipe));
  EXPECT_EQ("", testing::internal::GetCapturedStdout()) << "no assertion is broken";

  const auto added = Added(before);
  ASSERT_EQ(1U, added.size());
  const int ours = added.begin()->first;
  EXPECT_EQ(FD_CLOEXEC, fcntl(ours, F_GETFD));
  EXPECT_EQ(TypeParam::KOurMode, fcntl(ours, F_GETFL))
      << "direction, and no flag such as O_NONBLOCK";
}

TYPED_TEST_P(ChildPipeTest, HasTheCapacityThatTheOwnerChose) {
  const int page = static_cast<int>(sysconf(_SC_PAGESIZE));
  for (const auto& [chosen, capacity] : std::map<int, int>{{1, page}, {262144, 262144}}) {
    typename TypeParam::TPipe pipe;
    pipe.SetCapacity(chosen);

    EXPECT_EQ(capacity, this->CapacityOnceCreated(pipe));
  }
}

TYPED_TEST_P(ChildPipeTest, HasTheKernelsCapacityWhenTheOwnerChoseNone) {
  CPipe kernels;
  ASSERT_TRUE(kernels.Open());
  typename TypeParam::TPipe pipe;

  EXPECT_EQ(fcntl(kernels.ReadEnd(), F_GETPIPE_SZ), this->CapacityOnceCreated(pipe));
}

TYPED_TEST_P(ChildPipeTest, ItsChildInheritsTheStandardStreamsOnly) {
  const std::string impossible = support::EnterPrivateMounts();
  if (!impossible.empty()) {
    GTEST_SKIP() << impossible;
  }
  const support::CoveredTool tool =
      support::CoveredTool::WithProgram(TypeParam::KTool, "/bin/busybox");
  support::InExpendableProcess([this] {
    for (const auto& entry : support::OpenDescriptors()) {
      if (entry.first > STDERR_FILENO) {
        fcntl(entry.first, F_SETFD, FD_CLOEXEC);
      }
    }
    this->WithWaitingChild([](pid_t child) {
      // What a tool opens while it starts, such as libraries, it closes again.
      const std::set<std::string> standard = {"0", "1", "2"};
      std::set<std::string> descriptors;
      support::Eventually([&] { return (descriptors = DescriptorsOf(child)) == standard; },
                          std::chrono::seconds(10));
      EXPECT_EQ(standard, descriptors);
    });
  });
}

TYPED_TEST_P(ChildPipeTest, WaitsForItsChildAndReportsEvenANormalEndAsAFailedWait) {
  {
    typename TypeParam::TPipe pipe;
    ASSERT_TRUE(this->Create(pipe));
    EXPECT_EQ(1U, support::Children().size());
    support::RecordedLog::Instance().Clear();
  }

  EXPECT_THAT(
      support::RecordedLog::Instance().Lines(),
      testing::ElementsAre(this->Log().Error(TypeParam::KDestructor, TypeParam::KWaitText)));
}

TYPED_TEST_P(ChildPipeTest, ASecondCreateReportsABrokenAssertionAndStartsAnotherChild) {
  const auto before = support::OpenDescriptors();
  typename TypeParam::TPipe pipe;
  ASSERT_TRUE(this->Create(pipe));
  const pid_t first = OnlyChild();
  const auto firstEnd = Added(before);

  testing::internal::CaptureStdout();
  EXPECT_TRUE(this->Create(pipe));
  const std::string printed = testing::internal::GetCapturedStdout();

  EXPECT_THAT(printed, testing::MatchesRegex("\nAssertion failed \\(iProcessId == 0\\) in file " +
                                             std::string(TypeParam::KSource) + ", line [0-9]+\n"));
  EXPECT_EQ(2U, support::Children().size());
  EXPECT_EQ(2U, Added(before).size());

  // The first child and our end of its pipe are nobody's any more.
  ASSERT_EQ(1U, firstEnd.size());
  close(firstEnd.begin()->first);
  Reap(first);
}

TYPED_TEST_P(ChildPipeTest, AFailedPipeIsReportedAndLeavesNothing) {
  {
    typename TypeParam::TPipe pipe;
    const support::NoMoreDescriptors limit;
    EXPECT_FALSE(this->Create(pipe));
  }

  EXPECT_THAT(support::RecordedLog::Instance().Lines(),
              testing::ElementsAre(this->Log().Error("Create", TypeParam::KPipeText)));
}

TYPED_TEST_P(ChildPipeTest, AFailedForkIsReportedAndNothingIsWaitedForInTheEnd) {
  support::InExpendableProcess([this] {
    const pid_t other = IdleChild();
    const auto before = support::OpenDescriptors();
    {
      typename TypeParam::TPipe pipe;
      support::RefuseSystemCall(SYS_clone, EAGAIN);
      EXPECT_FALSE(this->Create(pipe));
    }
    EXPECT_EQ(before, support::OpenDescriptors());
    EXPECT_THAT(support::RecordedLog::Instance().Lines(),
                testing::ElementsAre(this->Log().Error("Create", TypeParam::KForkText)));
    EXPECT_EQ(0, waitpid(other, nullptr, WNOHANG));
    EndChild(other);
  });
}

/**
 * Create in a process that expects its own copy to come back with false; see the two uses. Of the
 * pipe the copy has the parent's end.
 */
template <typename TTraits>
void ExpectThatTheChildComesBack(const std::function<bool(typename TTraits::TPipe&)>& create) {
  constexpr int KCameBack = 42;
  const pid_t self = getpid();
  const auto before = support::OpenDescriptors();
  typename TTraits::TPipe pipe;
  const bool created = create(pipe);
  if (getpid() != self) {
    // Nothing here is the copy's: it must be able to leave without a wait or a line.
    std::destroy_at(&pipe);
    const auto added = Added(before);
    const bool asExpected = !created && support::RecordedLog::Instance().Lines().empty() &&
                            added.size() == 1 &&
                            fcntl(added.begin()->first, F_GETFL) == TTraits::KOurMode;
    _exit(asExpected ? KCameBack : 1);
  }
  EXPECT_TRUE(created);
  const int status = Reap(OnlyChild());
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(KCameBack, WEXITSTATUS(status));
  // Its end is known by now, so the object finds no child.
}

TYPED_TEST_P(ChildPipeTest, AChildWhoseToolCannotRunReturnsFalseIntoItsCaller) {
  const std::string impossible = support::EnterPrivateMounts();
  if (!impossible.empty()) {
    GTEST_SKIP() << impossible;
  }
  const support::CoveredTool tool(TypeParam::KTool, support::CoveredTool::NotExecutable());

  support::InExpendableProcess([this] {
    ExpectThatTheChildComesBack<TypeParam>([this](auto& pipe) { return this->Create(pipe); });
  });
}

TYPED_TEST_P(ChildPipeTest, AChildThatCannotMoveItsEndReturnsFalseIntoItsCaller) {
  support::InExpendableProcess([this] {
    // An end with the number of a missing standard stream would be in its place already.
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
      EXPECT_NE(-1, open("/dev/null", O_RDWR | O_CLOEXEC));
    }
#ifdef SYS_dup2
    support::RefuseSystemCall(SYS_dup2, EBUSY);
#else
    support::RefuseSystemCall(SYS_dup3, EBUSY);
#endif
    ExpectThatTheChildComesBack<TypeParam>([this](auto& pipe) { return this->Create(pipe); });
  });
}

TYPED_TEST_P(ChildPipeTest, StartsItsChildWithDefaultSignalsAndLeavesTheHostsAsTheyAre) {
  const std::string impossible = support::EnterPrivateMounts();
  if (!impossible.empty()) {
    GTEST_SKIP() << impossible;
  }
  const support::CoveredTool tool =
      support::CoveredTool::WithProgram(TypeParam::KTool, "/bin/busybox");
  support::InExpendableProcess([this] {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGHUP, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigprocmask(SIG_SETMASK, &blocked, nullptr);
    const std::string ignored = StatusField(getpid(), "SigIgn");
    const std::string mask = StatusField(getpid(), "SigBlk");

    this->WithWaitingChild([&](pid_t child) {
      EXPECT_EQ("0000000000000000", StatusField(child, "SigIgn"));
      EXPECT_EQ("0000000000000000", StatusField(child, "SigBlk"));
      EXPECT_EQ(ignored, StatusField(getpid(), "SigIgn"));
      EXPECT_EQ(mask, StatusField(getpid(), "SigBlk"));
    });
  });
}

REGISTER_TYPED_TEST_SUITE_P(ChildPipeTest, ThatWasNeverStartedEndsWithoutAWord,
                            KeepsOneEndWhichNoOtherChildInherits, HasTheCapacityThatTheOwnerChose,
                            HasTheKernelsCapacityWhenTheOwnerChoseNone,
                            ItsChildInheritsTheStandardStreamsOnly,
                            WaitsForItsChildAndReportsEvenANormalEndAsAFailedWait,
                            ASecondCreateReportsABrokenAssertionAndStartsAnotherChild,
                            AFailedPipeIsReportedAndLeavesNothing,
                            AFailedForkIsReportedAndNothingIsWaitedForInTheEnd,
                            AChildWhoseToolCannotRunReturnsFalseIntoItsCaller,
                            AChildThatCannotMoveItsEndReturnsFalseIntoItsCaller,
                            StartsItsChildWithDefaultSignalsAndLeavesTheHostsAsTheyAre);

}  // namespace childpipes
