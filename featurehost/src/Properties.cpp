#include "featurehost/src/Properties.h"

#include <utility>

#include "featurehost/src/ProcessGuard.h"

namespace featurehost {

Properties::Properties(TFeatureId featureId, Values values)
    : featureId_(std::move(featureId)), values_(std::move(values)) {}

TBool Properties::GetProperty(const TFeatureId& featureId, const std::string& key,
                              std::string& value) const {
  EndClone();
  const auto entry = values_.find(key);
  if (featureId != featureId_ || entry == values_.end()) {
    return EFalse;
  }
  value = entry->second;
  return ETrue;
}

std::string Properties::Text(const std::string& key) const {
  const auto entry = values_.find(key);
  return entry == values_.end() ? "" : entry->second;
}

}  // namespace featurehost
