#pragma once

#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "featurehost/src/lint/Finding.h"

namespace featurehost::lint {

/** Collects findings. What two items share, such as a property or a tool, is found once. */
class Findings {
 public:
  explicit Findings(std::string feature) : feature_(std::move(feature)) {}

  /** What a finding is about. */
  struct Place {
    std::string item;
    std::string property;
    std::string value;
  };

  void Add(Kind kind, const Place& place, std::string why, std::string instead) {
    if (known_.emplace(kind, place.property, place.value).second) {
      all_.push_back({kind, feature_, place.item, place.property, place.value, std::move(why),
                      std::move(instead)});
    }
  }

  std::vector<Finding> Take() { return std::move(all_); }

 private:
  std::string feature_;
  std::vector<Finding> all_;
  std::set<std::tuple<Kind, std::string, std::string>> known_;
};

}  // namespace featurehost::lint
