#pragma once

#include <string>

namespace featurehost {

/** Something that a run left behind on the unit. */
struct LeftOver {
  enum class Kind { kProcess, kMount, kFolder };

  Kind kind;
  std::string what;  ///< names it, with its details
  bool cleaned;
  std::string done;  ///< what was done about it, or why nothing was
};

/** "process", "mount" or "folder". */
const char* KindName(LeftOver::Kind kind);

}  // namespace featurehost
