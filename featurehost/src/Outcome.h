#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "featurehost/src/ExitCode.h"
#include "featurehost/src/RunEvent.h"

namespace featurehost {

/** How a run ended. */
struct Outcome {
  ExitCode code;
  std::string text;              ///< one line for the user
  std::optional<RunEvent> last;  ///< the event that ended the run; none when the user did
  std::chrono::milliseconds elapsed{0};
};

}  // namespace featurehost
