#include "SWLInfra/src/ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void SetDefaultDispositions() {
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (int number = 1; number < NSIG; ++number) {
    // Fails for the signals that cannot be caught, which are at their default anyway.
    sigaction(number, &standard, nullptr);
  }
}

}  // namespace

pid_t ForkWithDefaultSignals() {
  sigset_t everything;
  sigset_t before;
  sigfillset(&everything);
  pthread_sigmask(SIG_SETMASK, &everything, &before);

  const pid_t child = fork();
  if (child == 0) {
    SetDefaultDispositions();
    sigset_t nothing;
    sigemptyset(&nothing);
    pthread_sigmask(SIG_SETMASK, &nothing, nullptr);
    return 0;
  }

  const int saved = errno;
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = saved;
  return child;
}

bool MoveOntoStandard(int descriptor, int standardDescriptor) {
  if (descriptor == standardDescriptor) {
    // dup2 would leave close-on-exec set. It happens when the host runs without standard streams.
    return fcntl(descriptor, F_SETFD, 0) == 0;
  }
  return dup2(descriptor, standardDescriptor) >= 0;
}

pid_t WaitForEnd(pid_t child, int& status) {
  pid_t ended = -1;
  do {
    ended = waitpid(child, &status, 0);
  } while (ended == -1 && errno == EINTR);
  return ended;
}

void CloseEnd(int& descriptor) {
  if (descriptor != -1) {
    close(descriptor);
    descriptor = -1;
  }
}
