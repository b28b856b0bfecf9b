#include "tests/support/Expendable.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <gtest/gtest.h>
#include <iterator>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support {

namespace {

constexpr int KExpectationsFailed = 99;
constexpr int KNotPossibleHere = 98;

[[noreturn]] void RunAndEnd(const std::function<void()>& body, unsigned seconds) {
  setpgid(0, 0);
  alarm(seconds);
  body();
  std::fflush(nullptr);
  _exit(testing::Test::HasFailure() ? KExpectationsFailed : 0);
}

}  // namespace

void InExpendableProcess(const std::function<void()>& body, unsigned seconds) {
  std::fflush(nullptr);
  const pid_t copy = fork();
  if (copy == 0) {
    RunAndEnd(body, seconds);
  }
  ASSERT_GT(copy, 0) << "cannot fork";

  // What it leaves is ended before it is collected: until then nobody else can have its number.
  siginfo_t end{};
  while (waitid(P_PID, static_cast<id_t>(copy), &end, WEXITED | WNOWAIT) == -1 && errno == EINTR) {
  }
  kill(-copy, SIGKILL);
  int status = 0;
  pid_t ended = -1;
  do {
    ended = waitpid(copy, &status, 0);
  } while (ended == -1 && errno == EINTR);
  ASSERT_EQ(copy, ended);
  EXPECT_TRUE(WIFEXITED(status)) << "the expendable process died of signal " << WTERMSIG(status);
  if (WEXITSTATUS(status) == KNotPossibleHere) {
    GTEST_SKIP() << "system calls cannot be refused here (no seccomp filters)";
  }
  EXPECT_EQ(0, WEXITSTATUS(status)) << "in the expendable process";
}

void RefuseSystemCall(long number, int error, std::optional<CallArgument> onlyWith) {
  const CallArgument argument = onlyWith.value_or(CallArgument{0, 0});
  const auto lowWord =
      static_cast<unsigned>(offsetof(seccomp_data, args) + argument.index * sizeof(__u64));
  // Without one, the comparison leads to the refusal either way.
  const unsigned char ifOther = onlyWith.has_value() ? 1 : 0;
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, lowWord),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, argument.value, 0, ifOther),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
  ASSERT_EQ(0, prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0));
  const int result = prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
  if (result == -1 && errno == EINVAL) {
    _exit(KNotPossibleHere);  // as under user-mode emulation
  }
  ASSERT_EQ(0, result);
}

NoMoreDescriptors::NoMoreDescriptors() {
  EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &before_));
  // Checked when a descriptor is handed out; those that are open stay.
  const rlimit none{0, before_.rlim_max};
  EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
}

NoMoreDescriptors::~NoMoreDescriptors() {
  EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &before_));
}

}  // namespace support
