#pragma once

#include <string>
#include <vector>

#include "tests/support/RecordedLog.h"

namespace lifecycle {

/**
 * What the overall percentages must be, worked out from the sizes that the loaders have reported
 * (the controller logs each report) and the weights of the items, without the controller's
 * arithmetic: in exact integers, one report after the other.
 */
std::vector<unsigned> ExpectedPercentages(const std::vector<support::LogLine>& log,
                                          const std::vector<unsigned>& weights);

}  // namespace lifecycle
