#include "SWLInfra/src/CmdHandler.h"

#include <cstdlib>

#include "SWLInfra/src/Log.h"

namespace {

constexpr CLog KLog(logging::SWLInfra, "SWLInfra/src/CmdHandler");

// The fields of a wait status, in its POSIX encoding.
constexpr int KSignalMask = 0x7f;
constexpr int KLowByteMask = 0xff;
constexpr int KStopped = 0x7f;

int HighByte(int status) {
  return (status & 0xff00) >> 8;
}

}  // namespace

int ICmdHandler::SystemCmd(const TChr* aCommand) {
  // The shell line is this operation's purpose: its callers build fixed commands.
  // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
  const int status = std::system(reinterpret_cast<const char*>(aCommand));
  const int signal = status & KSignalMask;

  if (signal == 0) {
    const int exitCode = HighByte(status);
    if (exitCode != 0) {
      KLog.Error("SystemCmd", "'", aCommand, "' exited, result=", exitCode);
    }
    return exitCode;
  }

  // From here on the caller is told 0: a command that did not run to its end is not a failure.
  if (signal != KStopped) {
    KLog.Error("SystemCmd", "'", aCommand, "' killed by signal ", signal);
  } else if ((status & KLowByteMask) == KStopped) {
    KLog.Error("SystemCmd", "'", aCommand, "' stopped by signal ", HighByte(status));
  } else {
    KLog.Error("SystemCmd", "failed to spawn '", aCommand, "', sysres=", status);
  }
  return 0;
}
