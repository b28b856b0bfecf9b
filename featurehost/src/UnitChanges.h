#pragma once

#include <set>
#include <string>
#include <vector>

#include "featurehost/src/LeftOver.h"
#include "featurehost/src/LoopDevices.h"
#include "featurehost/src/MountTable.h"
#include "featurehost/src/RunScope.h"

namespace featurehost {

/** What there was on the unit before a run began, to tell what is the run's afterwards. */
struct UnitStock {
  std::set<MountName> mounts;
  std::set<std::string> loopDevices;  ///< those in use, as major and minor number, "7:0"
  bool folder = false;                ///< whether the run's own folder was there
};

UnitStock TakeStock(const RunScope& scope);

/**
 * The mounts, loop devices and the folder that a run has added to the unit.
 *
 * Holds no more than what it was told; the unit is looked at anew in every call.
 */
class UnitChanges {
 public:
  UnitChanges(RunScope scope, UnitStock before);

  /** What is there now that was not before, without touching it. */
  std::vector<LeftOver> Find() const;

  /** New mounts at places that are none of the run's. */
  std::vector<LeftOver> FindForeignMounts() const;

  /** Unmount, detach, remove the folder if it is empty. Takes seconds at most. */
  std::vector<LeftOver> CleanUp() const;

  const UnitStock& Before() const { return before_; }

 private:
  std::vector<Mount> NewMounts() const;  // the latest first: they may lie on each other
  std::vector<LoopDevice> NewLoopDevices() const;
  bool HasNewFolder() const;

  RunScope scope_;
  UnitStock before_;
};

}  // namespace featurehost
