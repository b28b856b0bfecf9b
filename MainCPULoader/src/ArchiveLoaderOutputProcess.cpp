#include "MainCPULoader/src/ArchiveLoaderOutputProcess.h"

#include <fcntl.h>
#include <unistd.h>

#include "MainCPULoader/src/SigPipeBlock.h"
#include "SWLInfra/src/Assert.h"
#include "SWLInfra/src/ChildProcess.h"
#include "SWLInfra/src/Log.h"

namespace {

constexpr const char* KSource = "MainCPULoader/src/ArchiveLoaderOutputProcess";
constexpr CLog KLog(logging::MainCPULoader, KSource);

}  // namespace

bool CArchiveLoaderOutputProcess::Create(const TChr* directory) {
  SoftAssert(iProcessId == 0, "iProcessId == 0", KSource);

  if (pipe(iPipe) == -1) {
    KLog.Error("Create", "Failed to create CArchiveLoaderOutputProcess pipe");
    CloseEnd(iPipe[0]);
    return false;
  }
  fcntl(iPipe[0], F_SETFD, FD_CLOEXEC);
  fcntl(iPipe[1], F_SETFD, FD_CLOEXEC);
  if (iCapacity > 0) {
    fcntl(iPipe[1], F_SETPIPE_SZ, iCapacity);
  }

  iProcessId = ForkWithDefaultSignals();
  if (iProcessId == 0) {
    if (MoveOntoStandard(iPipe[0], STDIN_FILENO)) {
      execl("/bin/tar", "tar", "x", "-C", directory, static_cast<char*>(nullptr));
    }
    // The copy goes on in the caller's code; ending it is the host's business.
    CloseEnd(iPipe[0]);
    return false;
  }

  CloseEnd(iPipe[0]);
  if (iProcessId == -1) {
    KLog.Error("Create", "Failed to fork CArchiveLoaderOutputProcess");
    CloseEnd(iPipe[1]);
    return false;
  }
  return true;
}

bool CArchiveLoaderOutputProcess::Write(const char* buffer, int length) {
  const CSigPipeBlock noSigPipe;
  int remaining = length;
  while (remaining > 0) {
    const ssize_t count =
        write(iPipe[1], buffer + (length - remaining), static_cast<size_t>(remaining));
    if (count < 0) {
      return false;
    }
    if (count == 0) {
      // The child has stopped taking data; that counts as written.
      return true;
    }
    remaining -= static_cast<int>(count);
  }
  return true;
}

CArchiveLoaderOutputProcess::~CArchiveLoaderOutputProcess() {
  if (iProcessId <= 0) {
    return;
  }

  CloseEnd(iPipe[1]);
  int status = 0;
  const pid_t ended = WaitForEnd(iProcessId, status);
  if (ended != 0) {
    // Also after a normal reap, whose result is the child's id; readers of the log know it.
    KLog.Error("~CArchiveLoaderOutputProcess",
               "ArchiveLoaderOutputProcess Process waitpid /bin/tar failed.");
  } else if ((status & 0x7f) != 0) {
    KLog.Error("~CArchiveLoaderOutputProcess",
               "ArchiveLoaderOutputProcess Process /bin/tar failed.");
  }
}
