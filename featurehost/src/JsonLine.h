#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "featurehost/src/LeftOver.h"

namespace featurehost {

/**
 * An object as one line of the output. Ids and paths are bytes; what is not UTF-8 is replaced, so
 * that every line can be parsed.
 */
std::string JsonLine(const nlohmann::ordered_json& object);

/** An object for each: kind, what, cleaned, done. */
nlohmann::ordered_json JsonArray(const std::vector<LeftOver>& leftOvers);

}  // namespace featurehost
