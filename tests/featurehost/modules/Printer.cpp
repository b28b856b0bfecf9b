#include <cstdio>
#include <cstdlib>

#include "host/Logging.h"
#include "tests/featurehost/modules/Feature.h"

/** Prints and lets tools print on standard output and error, and logs an error. */
class Printer : public Feature {
 public:
  using Feature::Feature;

 protected:
  void Install() override {
    PostProgress(10);
    std::printf("printed by the module\n");
    std::fflush(stdout);
    static_cast<void>(std::system("echo tool output; echo tool error >&2"));
    logging::internals::CLogHandle(logging::internals::ILog(), ETrue, logging::categories::Error,
                                   logging::MainCPULoader, "Install", "Printer", 1)
        << "(an error of the module)\n";
    Feature::Install();
  }
};

FEATURE_MODULE(Printer)
