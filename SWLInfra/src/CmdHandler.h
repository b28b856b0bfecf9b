#pragma once

#include "host/Types.h"

/** Runs the unit's tools through the shell. Static helpers, no state. */
class ICmdHandler {
 public:
  ICmdHandler() = delete;

  /**
   * Run a complete shell command line with /bin/sh and wait for it.
   *
   * Blocks the calling thread for the command's whole run; there is no time limit and no retry.
   * Every outcome but a normal exit with 0 is logged.
   *
   * @param aCommand  NUL-terminated; handed to the shell unchanged.
   * @return the exit code of a command that ran to its end. Also 0 when it was killed, was
   *         stopped or could not be started: only an exit code counts as a failure.
   */
  static int SystemCmd(const TChr* aCommand);
};
