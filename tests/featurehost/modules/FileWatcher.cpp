#include <fcntl.h>
#include <unistd.h>

#include "tests/featurehost/modules/Feature.h"

/**
 * Subscribes to the regular file of its property "file", reads one byte for each event, and stays
 * subscribed at its end. A second later it reports whether it has been left in peace.
 */
class FileWatcher : public Feature {
 public:
  using Feature::Feature;

  ~FileWatcher() override {
    broker_.Unsubscribe(readable_, this);
    broker_.Unsubscribe(timer_, this);
    close(file_);
  }

 protected:
  void Install() override {
    file_ = open(Property("file").c_str(), O_RDONLY | O_CLOEXEC);
    readable_ = {EEventDescriptor, static_cast<TUint32>(file_), 0, nullptr};
    broker_.Subscribe(readable_, this);
  }

  void Other(const TEvent& event) override {
    if (event.iType == EEventTimer) {
      PostResult(EUserEventInstallResult, eventsAtEnd_ < 50 ? ETrue : EFalse);
      return;
    }
    char byte = 0;
    if (read(file_, &byte, 1) == 0 && eventsAtEnd_++ == 0) {
      broker_.Subscribe(timer_, this);
    }
  }

 private:
  int file_ = -1;
  int eventsAtEnd_ = 0;
  TEvent readable_{};
  const TEvent timer_{EEventTimer, 0, 1000, nullptr};
};

FEATURE_MODULE(FileWatcher)
