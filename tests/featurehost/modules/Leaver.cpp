#include <cstdlib>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/featurehost/modules/Feature.h"

/**
 * Leaves behind what its properties tell: a child that runs "command", a mount on "amountpoint",
 * the folder "/tmp/eolmountpoint", a subscription. Ends as "end" tells: "success", "failure",
 * "crash" or "never". Does not acknowledge an abort if "acknowledge" is "no".
 */
class Leaver : public Feature {
 public:
  using Feature::Feature;

 protected:
  void Install() override {
    const std::string command = Property("command");
    const std::string point = Property("amountpoint");
    if (!command.empty() && fork() == 0) {
      execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
      _exit(1);
    }
    if (!point.empty()) {
      mount("left", point.c_str(), "tmpfs", 0, nullptr);
    }
    if (Property("folder") == "yes") {
      mkdir("/tmp/eolmountpoint", 0755);
    }
    if (Property("subscription") == "yes") {
      broker_.Subscribe(filter_, this);
    }
    PostProgress(50);
    End(Property("end"));
  }

  void Abort() override {
    if (Property("acknowledge") != "no") {
      Feature::Abort();
    }
  }

 private:
  void End(const std::string& end) {
    if (end == "crash") {
      abort();
    }
    if (end != "never") {
      PostResult(EUserEventInstallResult, end == "success" ? ETrue : EFalse);
    }
  }

  const TEvent filter_{EEventUser, 999, 0, nullptr};
};

FEATURE_MODULE(Leaver)
