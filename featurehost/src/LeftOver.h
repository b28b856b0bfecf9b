#pragma once

#include <string>

namespace featurehost {

/** Something that a run left behind on the unit. */
struct LeftOver {
  enum class Kind { kProcess, kMount, kLoopDevice, kFolder, kNote };

  Kind kind;
  std::string what;  ///< names it, with its details
  bool cleaned;
  std::string done;  ///< what was done about it, or why nothing was; empty when nothing was tried
  bool foreign = false;  ///< perhaps not the run's: told, and left alone
};

/** A process that was to be ended; @param how  that went ("killed"), empty when it is still there.
 */
LeftOver LeftProcess(const std::string& what, const std::string& how);

/** "process", "mount", "loop device", "folder" or "note". */
const char* KindName(LeftOver::Kind kind);

/** Kind and name, as people read it. */
std::string Describe(const LeftOver& leftOver);

}  // namespace featurehost
