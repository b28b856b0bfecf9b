#pragma once

#include <string>
#include <vector>

#include "featurehost/src/lint/Finding.h"

namespace featurehost::lint {

/** How much was found. */
struct Count {
  std::size_t errors = 0;
  std::size_t warnings = 0;
};

Count CountOf(const std::vector<Finding>& findings);
/** "2 errors, 1 warning". */
std::string TextOf(const Count& count);

/** A finding as one line of text, without its end. */
std::string TextOf(const Finding& finding);
/** A finding as a JSON object on a line of its own. */
std::string JsonOf(const Finding& finding);
/** What closes the objects: the counts, and whether everything was unpacked. */
std::string JsonSummary(const std::string& feature, const Count& count, bool deep);

}  // namespace featurehost::lint
