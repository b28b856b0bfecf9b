#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "host/Event.h"

namespace featurehost {

/** One event of a run, as the reports show it. */
struct RunEvent {
  TUint32 code;  ///< a TUserEventCode
  std::string feature;
  std::optional<unsigned> percent;
  std::optional<bool> success;
  std::chrono::milliseconds elapsed;  ///< since the run began
};

}  // namespace featurehost
