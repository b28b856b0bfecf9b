#include "featurehost/src/Foreground.h"

#include <algorithm>
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
constexpr std::chrono::seconds kPatience{1};       // after the request before it
constexpr std::chrono::seconds kLastPatience{10};  // with one that has been killed

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

/** How the work ended, or did not. */
struct End {
  bool isForced = false;  // the user wanted to stop for the third time
  bool isThere = true;
  int status = 0;  // of wait
};

/** Wait for a signal, but not beyond a point in time. */
void AwaitSignal(const sigset_t& signals, Clock::time_point limit) {
  const auto left = std::max<Clock::duration>(limit - Clock::now(), Clock::duration::zero());
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
  const std::chrono::nanoseconds rest = left - seconds;
  const timespec time{static_cast<time_t>(seconds.count()), static_cast<long>(rest.count())};
  sigtimedwait(&signals, nullptr, &time);
}

/** Kill the child. Requests to stop are not heard any more. */
End Force(pid_t child, const sigset_t& signals) {
  End end{true};
  const auto limit = Clock::now() + kLastPatience;
  kill(child, SIGKILL);
  while ((end.isThere = waitpid(child, &end.status, WNOHANG) != child) && Clock::now() < limit) {
    AwaitSignal(signals, limit);
  }
  return end;
}

End WaitAndRelay(pid_t child, const sigset_t& signals, const FrontDuties& duties) {
  End end;
  int requests = 0;
  auto latest = Clock::now();
  while ((end.isThere = waitpid(child, &end.status, WNOHANG) != child)) {
    const int number = sigwaitinfo(&signals, nullptr);
    if (number <= 0 || number == SIGCHLD) {
      continue;
    }
    if (requests + 1 == kForcingRequest) {
      // A key that is held down must not force anything.
      if (Clock::now() < latest + kPatience) {
        continue;
      }
      return Force(child, signals);
    }
    latest = Clock::now();
    ++requests;
    kill(child, kStopSignal);
    duties.relayed(requests);
  }
  return end;
}

int CodeOf(const End& end, pid_t child, const FrontDuties& duties) {
  if (end.isThere) {
    return duties.held(child);
  }
  if (WIFEXITED(end.status)) {
    return WEXITSTATUS(end.status);
  }
  return end.isForced ? duties.forced() : duties.crashed(WTERMSIG(end.status));
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
  // Deaf to further requests from then on: they must not cut off the cleaning up, nor put the end
  // by a signal in the place of the code.
  return CodeOf(WaitAndRelay(child, signals, duties), child, duties);
}

}  // namespace featurehost
