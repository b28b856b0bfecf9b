#include "SWLInfra/src/ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
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

std::string ProcFile(pid_t process, const char* name) {
  return "/proc/" + std::to_string(process) + "/" + name;
}

/** Until its exec a child runs the host's program, and shows the host's handlers as its own. */
bool RunsTheHostsProgram(pid_t child) {
  struct stat own {};
  struct stat childs {};
  return stat("/proc/self/exe", &own) == 0 && stat(ProcFile(child, "exe").c_str(), &childs) == 0 &&
         own.st_dev == childs.st_dev && own.st_ino == childs.st_ino;
}

/** Find out for which signals a process has something else than the default action. */
bool ReadHandledSignals(pid_t process, std::uint64_t& signals) {
  FILE* status = std::fopen(ProcFile(process, "status").c_str(), "re");
  if (status == nullptr) {
    return false;
  }
  int found = 0;
  signals = 0;
  char line[256];
  while (std::fgets(line, sizeof line, status) != nullptr) {
    if (std::strncmp(line, "SigIgn:", 7) == 0 || std::strncmp(line, "SigCgt:", 7) == 0) {
      signals |= std::strtoull(line + 7, nullptr, 16);
      ++found;
    }
  }
  static_cast<void>(std::fclose(status));
  return found == 2;
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

bool WouldDieOf(pid_t child, int signal) {
  // Looked at first: once the child has its own program it keeps it.
  if (RunsTheHostsProgram(child)) {
    return true;
  }
  std::uint64_t handled = 0;
  return ReadHandledSignals(child, handled) && (handled >> (signal - 1) & 1U) == 0;
}

void CloseEnd(int& descriptor) {
  if (descriptor != -1) {
    close(descriptor);
    descriptor = -1;
  }
}
