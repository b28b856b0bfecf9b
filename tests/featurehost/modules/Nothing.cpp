#include "host/FeatureModule.h"

const char* FeatureType() {
  return "Nothing";
}

/** Creates no feature. */
IFeatureModule2* FeatureCreate2(const TFeatureId& /*featureId*/, IInterfaceBroker& /*interfaces*/,
                                IEventBroker& /*broker*/,
                                const IFeatureProperties& /*properties*/) {
  return nullptr;
}
