#include "host/FeatureModule.h"

namespace {

/** Neither subscribes nor says that it is there. */
class Unannounced : public IFeatureModule2 {};

}  // namespace

const char* FeatureType() {
  return "Unannounced";
}

IFeatureModule2* FeatureCreate2(const TFeatureId& /*featureId*/, IInterfaceBroker& /*interfaces*/,
                                IEventBroker& /*broker*/,
                                const IFeatureProperties& /*properties*/) {
  return new Unannounced;
}
