#include "SWLInfra/src/Pipe.h"

#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include "SWLInfra/src/ChildProcess.h"

CPipe::~CPipe() {
  CloseEnd(iEnds[0]);
  CloseEnd(iEnds[1]);
}

bool CPipe::Open() {
  return pipe2(iEnds, O_CLOEXEC) == 0;
}

void CPipe::SetCapacity(int bytes) {
  fcntl(iEnds[0], F_SETPIPE_SZ, bytes);
}

int CPipe::TakeReadEnd() {
  return std::exchange(iEnds[0], -1);
}
