#pragma once

namespace featurehost {

/** What the process ends with. Scripts depend on the numbers. */
enum class ExitCode {
  kSuccess = 0,
  kInstallFailed = 1,
  kLintErrors = 1,
  kNotCleaned = 1,  ///< of the clean-up: something is left
  kUsage = 2,
  kPrepareFailed = 3,
  kModuleNotLoaded = 4,
  kAborted = 130,
};

}  // namespace featurehost
