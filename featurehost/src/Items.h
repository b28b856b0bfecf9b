#pragma once

#include <string>
#include <utility>
#include <vector>

namespace featurehost {

/** The items of an update list with their shares, to tell which one a percentage belongs to. */
class Items {
 public:
  Items(const std::string& updateList, const std::string& progressList);

  /** The item that is at work at an overall percentage; empty when there is none. */
  std::string At(unsigned percent) const;
  std::vector<std::string> Names() const;

 private:
  std::vector<std::pair<std::string, long long>> items_;  // names and weights
  long long total_ = 0;
};

}  // namespace featurehost
