#pragma once

#include "host/EventBroker.h"
#include "host/FeatureProperties.h"
#include "host/InterfaceBroker.h"
#include "host/Types.h"

/**
 * A feature, as the host holds it: it can only be ended. Everything else goes through events.
 *
 * The host destroys it on the event thread, outside of any OnEvent, and before it unloads the
 * library. The destructor unsubscribes everything; work that still runs is ended, not waited for.
 */
class IFeatureModule2 {
 public:
  virtual ~IFeatureModule2() = default;
};

extern "C" {

/** The feature type that the host matches against its configuration: a constant string. */
__attribute__((visibility("default"))) const char* FeatureType();

/**
 * Create one feature.
 *
 * The feature has subscribed to its events and has posted EUserEventFeatureCreated when the call
 * returns. The brokers and the properties stay the host's and must outlive the feature; the id
 * is copied. The result is the host's to delete. Never null; failure is not reported.
 */
__attribute__((visibility("default"))) IFeatureModule2* FeatureCreate2(
    const TFeatureId& featureId, IInterfaceBroker& interfaceBroker, IEventBroker& eventBroker,
    const IFeatureProperties& properties);

}  // extern "C"
