#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "SWLInfra/src/ChildProcess.h"
#include "tests/support/CleanTest.h"
#include "tests/support/Eventually.h"
#include "tests/support/Expendable.h"
#include "tests/support/PrivateMounts.h"

namespace {

/** Gives every signal back its disposition, and the thread its mask. */
class SignalState {
 public:
  SignalState() {
    for (int number = 1; number < NSIG; ++number) {
      known_[number] = sigaction(number, nullptr, &actions_[number]) == 0;
    }
    pthread_sigmask(SIG_SETMASK, nullptr, &mask_);
  }
  ~SignalState() {
    for (int number = 1; number < NSIG; ++number) {
      if (known_[number]) {
        sigaction(number, &actions_[number], nullptr);
      }
    }
    pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
  }

  SignalState(const SignalState&) = delete;
  SignalState& operator=(const SignalState&) = delete;

 private:
  struct sigaction actions_[NSIG] = {};
  bool known_[NSIG] = {};
  sigset_t mask_{};
};

std::atomic<int> handled{0};

void Handle(int /*signal*/) {
  ++handled;
}

constexpr int KSomeSignals = 5;
int toldAfterSomeSignals = -1;

/** Handles a signal, and closes a descriptor once there were some. */
void HandleAndTell(int /*signal*/) {
  if (++handled == KSomeSignals) {
    close(toldAfterSomeSignals);
  }
}

void SetHandler(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  ASSERT_EQ(0, sigaction(signal, &action, nullptr));
}

void Block(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) {
    sigaddset(&set, signal);
  }
  ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &set, nullptr));
}

/** The value of a line such as "SigBlk:" in the text of a process's status file. */
std::string Field(const std::string& status, const std::string& name) {
  std::istringstream lines(status);
  for (std::string word; lines >> word;) {
    if (word == name + ":") {
      lines >> word;
      return word;
    }
  }
  return "no " + name;
}

class ChildProcessTest : public support::CleanTest {
 protected:
  /** What a child that has become another program says of itself. */
  static std::string StatusOfAChild() {
    int pipeEnds[2] = {-1, -1};
    EXPECT_EQ(0, pipe2(pipeEnds, O_CLOEXEC));
    const pid_t child = ForkWithDefaultSignals();
    if (child == 0) {
      if (MoveOntoStandard(pipeEnds[1], STDOUT_FILENO)) {
        execlp("cat", "cat", "/proc/self/status", static_cast<char*>(nullptr));
      }
      _exit(99);
    }
    CloseEnd(pipeEnds[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t count = 0; (count = read(pipeEnds[0], buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<std::size_t>(count));
    }
    CloseEnd(pipeEnds[0]);
    int status = -1;
    EXPECT_EQ(child, WaitForEnd(child, status));
    EXPECT_EQ(0, status);
    return text;
  }

  const SignalState before_;
};

constexpr const char* KNoSignals = "0000000000000000";

TEST_F(ChildProcessTest, AChildStartsWithDefaultDispositionsAndAnEmptyMaskWhateverTheHostHasSet) {
  SetHandler(SIGPIPE, SIG_IGN);
  SetHandler(SIGHUP, SIG_IGN);
  SetHandler(SIGRTMAX, SIG_IGN);
  SetHandler(SIGTERM, Handle);
  SetHandler(SIGUSR1, Handle);
  Block({SIGPIPE, SIGTERM, SIGUSR1, SIGCHLD, SIGRTMIN});

  const std::string status = StatusOfAChild();

  EXPECT_EQ(KNoSignals, Field(status, "SigBlk"));
  EXPECT_EQ(KNoSignals, Field(status, "SigIgn"));
  EXPECT_EQ(KNoSignals, Field(status, "SigCgt"));
}

TEST_F(ChildProcessTest, TheBranchOfTheChildHasNoHandlersEvenBeforeItBecomesAnotherProgram) {
  SetHandler(SIGTERM, Handle);
  SetHandler(SIGPIPE, SIG_IGN);
  Block({SIGTERM});

  const pid_t child = ForkWithDefaultSignals();
  if (child == 0) {
    raise(SIGTERM);
    _exit(0);
  }

  int status = 0;
  EXPECT_EQ(child, WaitForEnd(child, status));
  EXPECT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(SIGTERM, WTERMSIG(status));
}

TEST_F(ChildProcessTest, TheHostKeepsItsDispositionsAndItsMask) {
  SetHandler(SIGPIPE, SIG_IGN);
  SetHandler(SIGUSR1, Handle);
  Block({SIGUSR2, SIGCHLD});
  sigset_t maskBefore;
  pthread_sigmask(SIG_SETMASK, nullptr, &maskBefore);

  StatusOfAChild();

  struct sigaction action {};
  sigaction(SIGPIPE, nullptr, &action);
  EXPECT_EQ(SIG_IGN, action.sa_handler);
  sigaction(SIGUSR1, nullptr, &action);
  EXPECT_EQ(&Handle, action.sa_handler);
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  for (int number = 1; number < NSIG; ++number) {
    EXPECT_EQ(sigismember(&maskBefore, number), sigismember(&mask, number)) << number;
  }
}

TEST_F(ChildProcessTest, AForkThatFailsSaysWhyAndRestoresTheMask) {
  // In a process of its own, because the limit that makes fork fail cannot be taken back.
  const pid_t helper = fork();
  if (helper == 0) {
    const uid_t nobody = 65534;
    const rlimit none{0, 0};
    sigset_t mask;
    sigemptyset(&mask);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    if (setrlimit(RLIMIT_NPROC, &none) != 0 || (geteuid() == 0 && setuid(nobody) != 0)) {
      _exit(10);
    }
    errno = 0;
    const pid_t child = ForkWithDefaultSignals();
    const int error = errno;
    if (child == 0) {
      _exit(0);
    }
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    _exit(child != -1 ? 11 : error != EAGAIN ? 12 : sigismember(&mask, SIGTERM) != 0 ? 13 : 42);
  }
  int status = 0;
  ASSERT_EQ(helper, WaitForEnd(helper, status));
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(42, WEXITSTATUS(status)) << "10: no limit, 11: forked, 12: errno, 13: mask";
}

TEST_F(ChildProcessTest, WaitingGoesOnWhenSignalsInterruptIt) {
  int pipeEnds[2] = {-1, -1};
  ASSERT_EQ(0, pipe2(pipeEnds, O_CLOEXEC));
  SetHandler(SIGALRM, HandleAndTell);
  handled = 0;
  toldAfterSomeSignals = pipeEnds[1];
  // Ends when the pipe does, and so after the signals, however long it takes until they come.
  const pid_t child = ForkWithDefaultSignals();
  if (child == 0) {
    close(pipeEnds[1]);
    char none = 0;
    _exit(read(pipeEnds[0], &none, 1) == 0 ? 7 : 99);
  }
  close(pipeEnds[0]);
  const itimerval often{{0, 10 * 1000}, {0, 10 * 1000}};
  const itimerval never{};
  setitimer(ITIMER_REAL, &often, nullptr);

  int status = 0;
  const pid_t ended = WaitForEnd(child, status);

  setitimer(ITIMER_REAL, &never, nullptr);
  if (handled < KSomeSignals) {
    close(pipeEnds[1]);
  }
  EXPECT_EQ(child, ended);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(7, WEXITSTATUS(status));
  EXPECT_GE(handled, KSomeSignals);
}

TEST_F(ChildProcessTest, WaitingForSomethingThatIsNoChildFails) {
  int status = 0;
  EXPECT_EQ(-1, WaitForEnd(getpid(), status));
  EXPECT_EQ(ECHILD, errno);
}

/** A child that goes on as this program until it is ended. */
pid_t IdleChild() {
  const pid_t child = ForkWithDefaultSignals();
  if (child == 0) {
    pause();
    _exit(0);
  }
  return child;
}

void EndChild(pid_t child) {
  int status = 0;
  kill(child, SIGKILL);
  EXPECT_EQ(child, WaitForEnd(child, status));
}

TEST_F(ChildProcessTest, AProcessThatIsGoneDiesOfNothing) {
  const pid_t child = IdleChild();
  EXPECT_TRUE(WouldDieOf(child, SIGUSR1)) << "it runs this program";
  EndChild(child);

  EXPECT_FALSE(WouldDieOf(child, SIGUSR1));
}

TEST_F(ChildProcessTest, WithoutProcThereIsNoTellingWhatAChildWouldDieOf) {
  const std::string impossible = support::EnterPrivateMounts();
  if (!impossible.empty()) {
    GTEST_SKIP() << impossible;
  }
  support::InExpendableProcess([] {
    const pid_t child = IdleChild();
    EXPECT_TRUE(WouldDieOf(child, SIGUSR1)) << "it runs this program";
    ASSERT_EQ(0, unshare(CLONE_NEWNS));
    ASSERT_EQ(0, mount("none", "/proc", "tmpfs", 0, nullptr));

    EXPECT_FALSE(WouldDieOf(child, SIGUSR1));
    EndChild(child);
  });
}

TEST_F(ChildProcessTest, AProgramOnAnotherFileSystemIsNotTheHosts) {
  const int file = memfd_create("sleep", MFD_CLOEXEC);
  ASSERT_NE(-1, file);
  const std::string program = support::ReadFile("/bin/sleep");
  ASSERT_EQ(static_cast<ssize_t>(program.length()), write(file, program.data(), program.length()));
  const std::string path = "/proc/self/fd/" + std::to_string(file);

  const pid_t child = ForkWithDefaultSignals();
  if (child == 0) {
    std::signal(SIGUSR1, SIG_IGN);  // stays so in another program
    execl(path.c_str(), "sleep", "1000", static_cast<char*>(nullptr));
    _exit(99);
  }
  close(file);

  EXPECT_TRUE(support::Eventually([&] { return !WouldDieOf(child, SIGUSR1); }));
  for (const int unhandled : {SIGHUP, SIGUSR2}) {
    EXPECT_TRUE(WouldDieOf(child, unhandled));
  }
  EndChild(child);
}

TEST_F(ChildProcessTest, AMovedDescriptorIsInheritedAndItsOriginalIsNot) {
  int pipeEnds[2] = {-1, -1};
  ASSERT_EQ(0, pipe2(pipeEnds, O_CLOEXEC));
  const int place = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100);
  ASSERT_GE(place, 100);

  EXPECT_TRUE(MoveOntoStandard(pipeEnds[1], place));

  EXPECT_EQ(0, fcntl(place, F_GETFD));
  EXPECT_EQ(FD_CLOEXEC, fcntl(pipeEnds[1], F_GETFD));
  EXPECT_EQ(1, write(place, "x", 1));
  char byte = 0;
  EXPECT_EQ(1, read(pipeEnds[0], &byte, 1));
  close(place);
  CloseEnd(pipeEnds[0]);
  CloseEnd(pipeEnds[1]);
}

TEST_F(ChildProcessTest, ADescriptorThatIsInPlaceAlreadyIsOnlyMadeInheritable) {
  int pipeEnds[2] = {-1, -1};
  ASSERT_EQ(0, pipe2(pipeEnds, O_CLOEXEC));

  EXPECT_TRUE(MoveOntoStandard(pipeEnds[1], pipeEnds[1]));

  EXPECT_EQ(0, fcntl(pipeEnds[1], F_GETFD));
  CloseEnd(pipeEnds[0]);
  CloseEnd(pipeEnds[1]);
}

TEST_F(ChildProcessTest, ADescriptorThatIsNoneCannotBeMoved) {
  const int place = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100);
  ASSERT_GE(place, 100);
  EXPECT_FALSE(MoveOntoStandard(-1, place));
  EXPECT_FALSE(MoveOntoStandard(-1, -1));
  close(place);
}

TEST_F(ChildProcessTest, AClosedEndIsForgotten) {
  int pipeEnds[2] = {-1, -1};
  ASSERT_EQ(0, pipe2(pipeEnds, O_CLOEXEC));
  const int number = pipeEnds[0];

  CloseEnd(pipeEnds[0]);
  CloseEnd(pipeEnds[1]);

  EXPECT_EQ(-1, pipeEnds[0]);
  EXPECT_EQ(-1, fcntl(number, F_GETFD));
  errno = 0;
  CloseEnd(pipeEnds[0]);
  EXPECT_EQ(-1, pipeEnds[0]);
  EXPECT_EQ(0, errno) << "there was nothing to close";
}

}  // namespace
