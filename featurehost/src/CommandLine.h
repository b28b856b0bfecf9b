#pragma once

#include <optional>
#include <string>

#include "featurehost/src/Log.h"

namespace featurehost {

/** What the user asked for. */
struct Options {
  enum class Command { kInstall, kPrepare, kLint, kType, kCleanUp };

  Command command = Command::kType;
  std::string configuration;  ///< path; of install, prepare and lint
  std::string module;         ///< path; empty for the standard one
  std::string feature;        ///< id; empty for the only one
  Level logLevel = Level::kWarning;
  std::string logFile;  ///< path; empty for none
  bool json = false;
  bool quiet = false;
  bool deep = false;    ///< of lint: unpack every archive and image
  bool strict = false;  ///< of lint: fail for warnings too
  bool noLint = false;  ///< of install: do not check the configuration before
  bool dryRun = false;  ///< of the clean-up
};

/**
 * Read the command line. Throws HostError when it makes no sense.
 * @return nothing when the user asked for help or the version, which has been printed.
 */
std::optional<Options> ParseCommandLine(int count, const char* const* arguments);

}  // namespace featurehost
