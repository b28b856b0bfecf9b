#include <unistd.h>

#include "host/FileSystemUtils.h"
#include "host/Logging.h"
#include "tests/featurehost/modules/Feature.h"

/**
 * Forks during the install, as a start of a child whose exec has failed, and lets the copy go on
 * by its property "clone": "return", "post", "log", "property", "subscribe" or "file".
 */
class Clone : public Feature {
 public:
  using Feature::Feature;

 protected:
  void Install() override {
    const std::string how = Property("clone");
    if (fork() == 0) {
      GoOn(how);
      return;
    }
    Feature::Install();
  }

 private:
  void GoOn(const std::string& how) {
    if (how == "post") {
      PostResult(EUserEventInstallResult, EFalse);
    } else if (how == "log") {
      logging::internals::CLogHandle(logging::internals::ILog(), ETrue, logging::categories::Error,
                                     logging::MainCPULoader, "Install", "Clone", 1)
          << "written by the clone\n";
    } else if (how == "property") {
      Property("clone");
    } else if (how == "subscribe") {
      broker_.Subscribe(timer_, this);
    } else if (how == "file") {
      const std::string folder = Property("folder");
      FileSystemUtils::CreateDirectory(Tdes(reinterpret_cast<const TChr*>(folder.c_str())));
    }
    if (how != "return") {
      // Not reached: the host ends a clone in each of its entries.
      static_cast<void>(write(STDERR_FILENO, "the clone lives\n", 16));
    }
  }

  const TEvent timer_{EEventTimer, 0, 1, nullptr};
};

FEATURE_MODULE(Clone)
