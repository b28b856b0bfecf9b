#include "featurehost/src/Items.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace featurehost {

Items::Items(const std::string& updateList, const std::string& progressList) {
  std::istringstream names(updateList);
  std::istringstream weights(progressList);
  std::string name;
  std::string weight;
  while (std::getline(names, name, ';') && std::getline(weights, weight, ';')) {
    constexpr long long kLargest = 0x7fffffff;
    const long long share = std::strtoll(weight.c_str(), nullptr, 10);
    items_.emplace_back(name, std::clamp(share, 0LL, kLargest));
    total_ += items_.back().second;
  }
}

std::string Items::At(unsigned percent) const {
  constexpr long long kHundred = 100;
  long long before = 0;
  for (const auto& [name, weight] : items_) {
    before += weight;
    if (before * kHundred > total_ * static_cast<long long>(percent)) {
      return name;
    }
  }
  return items_.empty() ? "" : items_.back().first;
}

std::vector<std::string> Items::Names() const {
  std::vector<std::string> names;
  for (const auto& item : items_) {
    names.push_back(item.first);
  }
  return names;
}

}  // namespace featurehost
