#include "MainCPULoader/src/DecompressorPace.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

namespace {

/** With so much left the pipe is asked to be narrow, before every read until it is. */
constexpr unsigned long long KNarrowFrom = 256ULL * 1024;
/** With so much left the decompressor is paused if the pipe is not narrow yet. */
constexpr unsigned long long KPauseFrom = 192ULL * 1024;

}  // namespace

int CDecompressorPace::StartCapacity(unsigned long long total) {
  return static_cast<int>(total > KNarrowFrom ? KWorkingCapacity : KPieceSize);
}

CDecompressorPace::CDecompressorPace(const CInputProcess& decompressor)
    : iReadEnd(decompressor.ReadEnd()), iProcessId(decompressor.ProcessId()) {}

CDecompressorPace::~CDecompressorPace() {
  Resume();
}

void CDecompressorPace::BeforeRead(TUint32 wanted, unsigned long long inStep,
                                   unsigned long long left) {
  if (left > KNarrowFrom || iProcessId <= 0) {
    return;
  }
  if (iPipe == EWide) {
    NarrowPipe(inStep, left);
  }
  if (iPipe == ENarrow) {
    if (left == wanted) {
      Resume();
    } else if (left - wanted <= KPieceSize) {
      GuardLastButOne(wanted);
    }
  }
}

void CDecompressorPace::NarrowPipe(unsigned long long inStep, unsigned long long left) {
  const int capacity = fcntl(iReadEnd, F_SETPIPE_SZ, static_cast<int>(KPieceSize));
  if (capacity != -1 || errno != EBUSY) {
    iPipe = capacity == static_cast<int>(KPieceSize) ? ENarrow : EUnknown;
    Resume();
    return;
  }
  // More than one page waits in the pipe, so the next read does not block on the paused child.
  // Not begun when the step might end before the pipe is emptied: the next step is in time.
  if (!iPaused && left <= KPauseFrom && inStep >= KWorkingCapacity) {
    Pause();
  }
}

void CDecompressorPace::GuardLastButOne(TUint32 wanted) {
  if (!iPaused) {
    AwaitData();
    if (Waiting() >= wanted) {
      return;
    }
    // Less than a piece waits and more than a piece is left, so the child has not ended yet.
    Pause();
  }
  while (iPaused && Waiting() == 0) {
    LetWriteOnce();
  }
}

void CDecompressorPace::Pause() {
  Signal(SIGSTOP);
  AwaitStop();
}

void CDecompressorPace::LetWriteOnce() {
  if (!iStopsAfterWrite) {
    // The kernel tells the owner of the read end that data has come, while the writer is still
    // inside its write. With the writer as the owner and this signal it stops there.
    fcntl(iReadEnd, F_SETOWN, iProcessId);
    fcntl(iReadEnd, F_SETSIG, SIGSTOP);
    fcntl(iReadEnd, F_SETFL, O_ASYNC);
    iStopsAfterWrite = true;
  }
  Signal(SIGCONT);
  AwaitStop();
}

void CDecompressorPace::Resume() {
  if (iStopsAfterWrite) {
    fcntl(iReadEnd, F_SETFL, 0);
    fcntl(iReadEnd, F_SETSIG, 0);
    fcntl(iReadEnd, F_SETOWN, 0);
    iStopsAfterWrite = false;
  }
  if (iPaused) {
    Signal(SIGCONT);
    iPaused = false;
  }
}

/** Wait until the child has stopped, or has ended: that it has is left for Read to find out. */
void CDecompressorPace::AwaitStop() {
  siginfo_t report{};
  int result = -1;
  do {
    result = waitid(P_PID, static_cast<id_t>(iProcessId), &report, WSTOPPED | WEXITED | WNOWAIT);
  } while (result == -1 && errno == EINTR);
  iPaused = result == 0 && report.si_code == CLD_STOPPED;
}

void CDecompressorPace::Signal(int number) const {
  // Read may have reaped the child, and its id may be another process's by now. As long as it is
  // our child it keeps its id, also when it has ended.
  siginfo_t report{};
  const int events = WEXITED | WSTOPPED | WNOHANG | WNOWAIT;
  if (waitid(P_PID, static_cast<id_t>(iProcessId), &report, events) == 0) {
    kill(iProcessId, number);
  }
}

void CDecompressorPace::AwaitData() const {
  pollfd readEnd{iReadEnd, POLLIN, 0};
  while (poll(&readEnd, 1, -1) == -1 && errno == EINTR) {
  }
}

TUint32 CDecompressorPace::Waiting() const {
  int count = 0;
  return ioctl(iReadEnd, FIONREAD, &count) == 0 ? static_cast<TUint32>(count) : 0;
}
