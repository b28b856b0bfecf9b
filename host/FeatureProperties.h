#pragma once

#include <string>

#include "host/Types.h"

/** The host's configuration, read-only: text values by feature and key. */
class IFeatureProperties {
 public:
  virtual ~IFeatureProperties() = default;

  /**
   * Look a property up. Called on the event thread, during prepare only.
   *
   * @param value  receives the text when the feature has the key; untouched otherwise.
   * @return ETrue when the feature's configuration holds the key, also with an empty text.
   */
  virtual TBool GetProperty(const TFeatureId& featureId, const std::string& key,
                            std::string& value) const = 0;
};
