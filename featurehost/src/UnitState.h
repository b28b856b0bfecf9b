#pragma once

#include <set>
#include <sys/types.h>
#include <vector>

#include "featurehost/src/LeftOver.h"
#include "featurehost/src/RunScope.h"
#include "featurehost/src/UnitChanges.h"

namespace featurehost {

/**
 * What a run may change on the unit besides the devices it writes: the children of this process,
 * the mounts, the loop devices under them, and the folder that the end-of-line settings are
 * mounted on.
 *
 * Takes stock when it is made; CleanUp compares and puts back. From its making on, this process
 * also inherits the orphans of its children, so that none of them gets lost.
 */
class UnitState {
 public:
  explicit UnitState(const RunScope& scope);

  /**
   * Undo what was not there before: end and reap children, unmount, detach loop devices, remove
   * the folder if it is empty. Takes seconds at most.
   *
   * @return everything that was found, also what could or should not be cleaned.
   */
  std::vector<LeftOver> CleanUp() const;

  /** What there was when this was made. */
  const UnitStock& Before() const { return changes_.Before(); }

 private:
  std::vector<pid_t> NewChildren() const;
  std::vector<LeftOver> EndChildren() const;

  std::set<pid_t> children_;
  UnitChanges changes_;
};

}  // namespace featurehost
