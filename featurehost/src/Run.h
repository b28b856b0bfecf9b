#pragma once

#include <string>

#include "featurehost/src/ExitCode.h"
#include "featurehost/src/Properties.h"
#include "featurehost/src/UpdateController.h"

namespace featurehost {

/** What to run, and how to show it. */
struct RunRequest {
  Goal goal;
  std::string module;  ///< path; empty for the standard one
  TFeatureId featureId;
  Properties::Values properties;
  std::string configuration;  ///< path of the file, for the note of the run
  bool json;
  bool quiet;
};

/**
 * Host the feature from loading the module to unloading it, and leave the unit tidy.
 *
 * Nothing is shown as done before the file systems are flushed and the module is gone. Throws
 * HostError when the module cannot be loaded, or when another install is at work on the same
 * targets; nothing has been started then.
 */
ExitCode Run(const RunRequest& request);

}  // namespace featurehost
