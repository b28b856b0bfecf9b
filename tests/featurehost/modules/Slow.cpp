#include <fcntl.h>
#include <unistd.h>

#include "tests/featurehost/modules/Feature.h"

/** Takes a second to be created; makes the file of its property "created" when that begins. */
class Slow : public Feature {
 public:
  Slow(const TFeatureId& featureId, IEventBroker& broker, const IFeatureProperties& properties)
      : Feature(featureId, broker, properties) {
    close(open(Property("created").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    for (int step = 0; step < 100; ++step) {
      usleep(10000);  // a signal ends one step at most
    }
  }
};

FEATURE_MODULE(Slow)
