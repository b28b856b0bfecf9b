#pragma once

#include <vector>

#include "featurehost/src/Properties.h"
#include "featurehost/src/lint/DeepFacts.h"
#include "featurehost/src/lint/Environment.h"
#include "featurehost/src/lint/Finding.h"
#include "host/Types.h"

namespace featurehost::lint {

/**
 * Check the configuration of a feature. Takes any text, throws nothing of its own, and learns of
 * files, devices and tools through the environment alone.
 *
 * @param deep  what was learnt by unpacking archives and images, by path; without it their sizes
 *              are what their trailers say.
 * @return the findings, in the order of the groups of checks.
 */
std::vector<Finding> Lint(const TFeatureId& featureId, const Properties::Values& values,
                          const Environment& environment, const DeepFactsByPath& deep = {});

}  // namespace featurehost::lint
