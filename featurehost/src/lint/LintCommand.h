#pragma once

#include "featurehost/src/ExitCode.h"
#include "featurehost/src/Properties.h"
#include "host/Types.h"

namespace featurehost::lint {

/** What to check, and how to show it. */
struct LintRequest {
  TFeatureId featureId;
  Properties::Values properties;
  bool deep;    ///< unpack every archive and image
  bool strict;  ///< warnings count as errors
  bool json;
  bool quiet;  ///< errors only
};

/** Check and print what was found on standard output. Writes nothing else anywhere. */
ExitCode RunLint(const LintRequest& request);

/**
 * What an install does before it starts anything: the quick checks, their findings on standard
 * error. Throws HostError when there are errors.
 */
void LintBeforeInstall(const LintRequest& request);

}  // namespace featurehost::lint
