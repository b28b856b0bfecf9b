#include <cerrno>
#include <csignal>
#include <cstring>
#include <unistd.h>

/**
 * A Ctrl-C at the very end of a featurehost that is started with this library preloaded. Not of its
 * worker, which leads a session of its own, and not of the tools.
 */
__attribute__((destructor)) static void Interrupt() {
  if (std::strcmp(program_invocation_short_name, "featurehost") == 0 && getsid(0) != getpid()) {
    static_cast<void>(raise(SIGINT));
  }
}
