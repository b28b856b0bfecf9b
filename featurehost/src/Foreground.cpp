#include "featurehost/src/Foreground.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "featurehost/src/HostError.h"
#include "featurehost/src/ProcessGuard.h"
#include "featurehost/src/StopSignal.h"
#include "featurehost/src/Text.h"

namespace featurehost {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kForcingRequest = 3;
constexpr std::chrono::seconds kPatience{1};  // after the request before it

bool IsIgnored(int number) {
  struct sigaction action {};
  sigaction(number, nullptr, &action);
  return action.sa_handler == SIG_IGN;
}

/** What the front waits for. What the caller had us ignore (nohup) stays ignored. */
sigset_t FrontSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGCHLD);
  sigaddset(&signals, SIGTERM);
  for (const int number : {SIGINT, SIGHUP}) {
    if (!IsIgnored(number)) {
      sigaddset(&signals, number);
    }
  }
  return signals;
}

[[noreturn]] void Work(const std::function<int()>& work, pid_t front, const sigset_t& mask) {
  AdoptProcess();
  setsid();
  HoldStopSignals();
  prctl(PR_SET_PDEATHSIG, kStopSignal);
  if (getppid() != front) {
    _exit(static_cast<int>(ExitCode::kAborted));
  }
  // A tool that asks a question gets an end of file instead of waiting for an answer for ever.
  const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  dup2(nothing, STDIN_FILENO);
  close(nothing);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  std::exit(work());  // NOLINT(concurrency-mt-unsafe): there is one thread
}

/** Take what is pending of them. */
void Forget(const sigset_t& signals) {
  const timespec noTime{};
  while (sigtimedwait(&signals, nullptr, &noTime) > 0) {
  }
}

/** @return how often the user wanted to stop. */
int WaitAndRelay(pid_t child, const sigset_t& signals, const FrontDuties& duties, int& status) {
  int requests = 0;
  auto latest = Clock::now();
  while (waitpid(child, &status, WNOHANG) != child) {
    const int number = sigwaitinfo(&signals, nullptr);
    if (number <= 0 || number == SIGCHLD) {
      continue;
    }
    // A key that is held down must not force anything.
    if (requests + 1 == kForcingRequest && Clock::now() < latest + kPatience) {
      continue;
    }
    latest = Clock::now();
    ++requests;
    kill(child, requests < kForcingRequest ? kStopSignal : SIGKILL);
    if (requests < kForcingRequest) {
      duties.relayed(requests);
    }
  }
  return requests;
}

}  // namespace

int DoBehindForeground(const std::function<int()>& work, const FrontDuties& duties) {
  const sigset_t signals = FrontSignals();
  sigset_t blocked = signals;
  // Ctrl-Z would stop the front alone and leave an update running that seems to be stopped.
  sigaddset(&blocked, SIGTSTP);
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &blocked, &before);

  const pid_t front = getpid();
  const pid_t child = fork();
  if (child == 0) {
    Work(work, front, before);
  }
  if (child == -1) {
    throw HostError(ExitCode::kModuleNotLoaded,
                    "cannot start a process for the update: " + ErrorText(errno));
  }
  int status = 0;
  const int requests = WaitAndRelay(child, signals, duties, status);
  int code = 0;
  if (WIFEXITED(status)) {
    code = WEXITSTATUS(status);
  } else {
    // Still deaf to further requests, which must not cut off the cleaning up.
    code = requests >= kForcingRequest ? duties.forced() : duties.crashed(WTERMSIG(status));
  }
  Forget(signals);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return code;
}

}  // namespace featurehost
