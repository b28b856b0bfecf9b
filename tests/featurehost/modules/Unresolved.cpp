#include "tests/featurehost/modules/Feature.h"

/** Needs a function that the host does not have. */
void NotInTheHostContract();

class Unresolved : public Feature {
 public:
  using Feature::Feature;

 protected:
  void Install() override { NotInTheHostContract(); }
};

FEATURE_MODULE(Unresolved)
