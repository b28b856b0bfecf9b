#include "tests/featurehost/modules/Feature.h"

/** Posts every percentage from inside its own delivery, then the result. */
class Poster : public Feature {
 public:
  using Feature::Feature;

 protected:
  void Install() override {
    for (unsigned percent = 0; percent <= 100; ++percent) {
      PostProgress(percent);
    }
    Feature::Install();
  }
};

FEATURE_MODULE(Poster)
