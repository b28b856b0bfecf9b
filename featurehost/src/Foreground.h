#pragma once

#include <functional>
#include <sys/types.h>

namespace featurehost {

/** What the front does besides waiting. */
struct FrontDuties {
  /** The user wants to stop, for the first time (1) or the second. */
  std::function<void(int request)> relayed;
  /** The user wanted to stop for the third time, and the work was killed; the result is the code.
   */
  std::function<int()> forced;
  /** As forced, but the process is still there: the kernel does not let it end. */
  std::function<int(pid_t process)> held;
  /** The work was ended by a signal; the result is the exit code. */
  std::function<int(int signal)> crashed;
};

/**
 * Do the work in a child process with a session of its own, while this process stays in front of
 * the user: it hands SIGINT, SIGTERM and SIGHUP on to the child as the stop signal and waits.
 *
 * Ctrl-C goes to everything that the terminal has in its foreground. It would kill the tools of a
 * running update before the module could stop them, and a killed command counts as done. And
 * system(3) makes its process ignore SIGINT, so that the host itself would miss it.
 *
 * A tool that hangs may hold the child in the module for ever, where it hears of nothing. So the
 * third request, a second or more after the one before it, kills the child. One that waits inside
 * of the kernel, for a device that does not answer, may not end then either; after ten seconds it
 * is left behind. When the front is gone, the child gets the stop signal as well.
 *
 * How the work ended is settled when this returns, and the process is expected to end: the requests
 * stay blocked.
 *
 * SIGCHLD must not be ignored.
 *
 * @param work  runs in the child; its result is the child's exit code, and this function's.
 */
int DoBehindForeground(const std::function<int()>& work, const FrontDuties& duties);

}  // namespace featurehost
