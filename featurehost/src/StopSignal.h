#pragma once

#include <csignal>

namespace featurehost {

/**
 * By this signal the front tells the run that the user wants to stop. Not SIGTERM: that may reach
 * both processes at once (killall), and would count twice.
 */
constexpr int kStopSignal = SIGUSR1;

/**
 * For the run's process, from its beginning: remember a stop signal that comes when no loop is
 * there to serve it, and leave SIGTERM and SIGINT to the front.
 */
void HoldStopSignals();

/** Whether a stop signal has come that no loop has served. */
bool StopWanted();

}  // namespace featurehost
