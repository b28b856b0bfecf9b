#pragma once

#include <map>
#include <string>
#include <vector>

#include "host/FeatureProperties.h"

namespace support {

/** Properties of one feature, set by the test; records which keys were looked up. */
class FakeProperties : public IFeatureProperties {
 public:
  explicit FakeProperties(TFeatureId featureId = "feature") : featureId_(std::move(featureId)) {}

  TBool GetProperty(const TFeatureId& featureId, const std::string& key,
                    std::string& value) const override {
    lookups_.push_back(key);
    const auto entry = values.find(key);
    if (featureId != featureId_ || entry == values.end()) {
      return EFalse;
    }
    value = entry->second;
    return ETrue;
  }

  std::map<std::string, std::string> values;
  const std::vector<std::string>& Lookups() const { return lookups_; }

 private:
  TFeatureId featureId_;
  mutable std::vector<std::string> lookups_;
};

}  // namespace support
