#include "MainCPULoader/src/InputProcess.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "SWLInfra/src/Assert.h"
#include "SWLInfra/src/ChildProcess.h"
#include "SWLInfra/src/Log.h"

namespace {

constexpr const char* KSource = "MainCPULoader/src/InputProcess";
constexpr CLog KLog(logging::MainCPULoader, KSource);

}  // namespace

bool CInputProcess::Create(const TChr* file) {
  SoftAssert(iProcessId == 0, "iProcessId == 0", KSource);

  if (pipe(iPipe) == -1) {
    KLog.Error("Create", "Failed to create CInputProcess pipe");
    CloseEnd(iPipe[1]);
    return false;
  }
  fcntl(iPipe[0], F_SETFD, FD_CLOEXEC);
  fcntl(iPipe[1], F_SETFD, FD_CLOEXEC);
  if (iCapacity > 0) {
    fcntl(iPipe[0], F_SETPIPE_SZ, iCapacity);
  }

  iReaped = false;
  iProcessId = ForkWithDefaultSignals();
  if (iProcessId == 0) {
    if (MoveOntoStandard(iPipe[1], STDOUT_FILENO)) {
      execl("/bin/zcat", "zcat", file, static_cast<char*>(nullptr));
    }
    // The copy goes on in the caller's code; ending it is the host's business.
    CloseEnd(iPipe[1]);
    return false;
  }

  CloseEnd(iPipe[1]);
  if (iProcessId == -1) {
    KLog.Error("Create", "Failed to fork CInputProcess");
    CloseEnd(iPipe[0]);
    return false;
  }
  return true;
}

int CInputProcess::Read(char* buffer, int length) {
  ssize_t count = -1;
  do {
    if (!ChildAllowsReading()) {
      KLog.Error("Read", "Input process /bin/zcat exited with non-zero condition.");
      return -1;
    }
    count = read(iPipe[0], buffer, static_cast<size_t>(length));
  } while (count == -1 && (errno == EAGAIN || errno == EINTR));
  return static_cast<int>(count);
}

CInputProcess::~CInputProcess() {
  if (iProcessId <= 0) {
    return;
  }

  CloseEnd(iPipe[0]);
  int status = 0;
  const pid_t ended = iReaped ? -1 : WaitForEnd(iProcessId, status);
  if (ended != 0) {
    // Also after a normal reap, whose result is the child's id; readers of the log know it.
    KLog.Error("~CInputProcess", "InputProcess Process /bin/zcat waitpid failed.");
  } else if ((status & 0x7f) != 0) {
    KLog.Error("~CInputProcess", "InputProcess Process /bin/zcat failed.");
  }
}

bool CInputProcess::ChildAllowsReading() {
  if (iProcessId <= 0 || iReaped) {
    // There is no child of ours; waitpid would take another child of the host.
    return false;
  }
  int status = 0;
  const pid_t ended = waitpid(iProcessId, &status, WNOHANG);
  iReaped = ended == iProcessId;
  return ended != -1 && (!iReaped || status == 0);
}
