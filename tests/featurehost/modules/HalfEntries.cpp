#include "host/FeatureModule.h"

/** Has a type but cannot create. */
const char* FeatureType() {
  return "HalfEntries";
}
