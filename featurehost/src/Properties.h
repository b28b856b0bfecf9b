#pragma once

#include <map>
#include <string>

#include "host/FeatureProperties.h"

namespace featurehost {

/** The properties of the one feature that this process hosts. */
class Properties : public IFeatureProperties {
 public:
  using Values = std::map<std::string, std::string>;

  Properties(TFeatureId featureId, Values values);

  TBool GetProperty(const TFeatureId& featureId, const std::string& key,
                    std::string& value) const override;

  /** The text of a key, empty when there is none. */
  std::string Text(const std::string& key) const;

 private:
  TFeatureId featureId_;
  Values values_;
};

}  // namespace featurehost
