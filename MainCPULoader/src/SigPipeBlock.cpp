#include "MainCPULoader/src/SigPipeBlock.h"

#include <cerrno>
#include <ctime>

namespace {

sigset_t OnlySigPipe() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGPIPE);
  return set;
}

bool SigPipePending() {
  sigset_t pending;
  sigpending(&pending);
  return sigismember(&pending, SIGPIPE) == 1;
}

}  // namespace

CSigPipeBlock::CSigPipeBlock() : iWasPending(SigPipePending()) {
  const sigset_t sigPipe = OnlySigPipe();
  pthread_sigmask(SIG_BLOCK, &sigPipe, &iBefore);
}

CSigPipeBlock::~CSigPipeBlock() {
  const int saved = errno;
  if (!iWasPending && SigPipePending()) {
    const sigset_t sigPipe = OnlySigPipe();
    const timespec atOnce{};
    sigtimedwait(&sigPipe, nullptr, &atOnce);
  }
  pthread_sigmask(SIG_SETMASK, &iBefore, nullptr);
  errno = saved;
}
