#include "featurehost/src/StopSignal.h"

#include <initializer_list>

namespace featurehost {

namespace {

volatile std::sig_atomic_t wanted = 0;

void Remember(int number) {
  if (number == kStopSignal) {
    wanted = 1;
  }
}

}  // namespace

void HoldStopSignals() {
  // Handlers, as SIG_IGN would be inherited by the tools.
  struct sigaction action {};
  action.sa_handler = Remember;
  action.sa_flags = SA_RESTART;
  for (const int number : {kStopSignal, SIGTERM, SIGINT}) {
    struct sigaction before {};
    sigaction(number, nullptr, &before);
    if (before.sa_handler != SIG_IGN) {
      sigaction(number, &action, nullptr);
    }
  }
}

bool StopWanted() {
  return wanted != 0;
}

}  // namespace featurehost
