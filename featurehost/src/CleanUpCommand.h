#pragma once

#include "featurehost/src/ExitCode.h"

namespace featurehost {

struct CleanUpRequest {
  bool dryRun;  ///< only tell
  bool json;
  bool quiet;
};

/**
 * Clean up after every killed install and tell what was done. Installs that are at work are left
 * alone.
 *
 * @return kSuccess when nothing is left, else kNotCleaned.
 */
ExitCode CleanUpKilledRuns(const CleanUpRequest& request);

}  // namespace featurehost
