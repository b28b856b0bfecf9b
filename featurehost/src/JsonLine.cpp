#include "featurehost/src/JsonLine.h"

#include <nlohmann/json.hpp>

namespace featurehost {

std::string JsonLine(const nlohmann::ordered_json& object) {
  return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

nlohmann::ordered_json JsonArray(const std::vector<LeftOver>& leftOvers) {
  auto array = nlohmann::ordered_json::array();
  for (const LeftOver& leftOver : leftOvers) {
    array.push_back({{"kind", KindName(leftOver.kind)},
                     {"what", leftOver.what},
                     {"cleaned", leftOver.cleaned},
                     {"done", leftOver.done}});
  }
  return array;
}

}  // namespace featurehost
