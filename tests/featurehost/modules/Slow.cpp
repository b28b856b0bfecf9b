#include <fcntl.h>
#include <unistd.h>

#include "tests/featurehost/modules/Feature.h"

/**
 * Makes the file of its property "created" when it begins to be created, which takes until someone
 * removes the file, two minutes at most.
 */
class Slow : public Feature {
 public:
  Slow(const TFeatureId& featureId, IEventBroker& broker, const IFeatureProperties& properties)
      : Feature(featureId, broker, properties) {
    const std::string created = Property("created");
    close(open(created.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    for (int step = 0; step < 12000 && access(created.c_str(), F_OK) == 0; ++step) {
      usleep(10000);  // a signal ends one step at most
    }
  }
};

FEATURE_MODULE(Slow)
