#include "tests/featurehost/modules/Feature.h"

/** Never answers what its property "silent" names: "prepare", "install" or "abort". */
class Silent : public Feature {
 public:
  using Feature::Feature;

 protected:
  void Prepare() override {
    if (Property("silent") != "prepare") {
      Feature::Prepare();
    }
  }
  void Install() override {}
  void Abort() override {
    if (Property("silent") != "abort") {
      Feature::Abort();
    }
  }
};

FEATURE_MODULE(Silent)
