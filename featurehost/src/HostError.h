#pragma once

#include <stdexcept>
#include <string>

#include "featurehost/src/ExitCode.h"

namespace featurehost {

/** Why the host cannot go on, as one line for the user, and what the process ends with. */
class HostError : public std::runtime_error {
 public:
  HostError(ExitCode exitCode, const std::string& line)
      : std::runtime_error(line), exitCode_(exitCode) {}

  ExitCode Code() const { return exitCode_; }

 private:
  ExitCode exitCode_;
};

}  // namespace featurehost
