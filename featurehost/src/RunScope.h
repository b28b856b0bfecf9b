#pragma once

#include <string>
#include <vector>

#include "featurehost/src/Properties.h"

namespace featurehost {

/** The places of the unit that a run works on. */
struct RunScope {
  std::vector<std::string> mountPoints;
  std::string folder;  ///< also a mount point, made and removed by the run; empty: there is none
  std::vector<std::string> targets;  ///< what it writes to or mounts: devices, or files

  /** Whether it is a mount point of the run, or its folder; the path is one without links. */
  bool HasMountPoint(const std::string& path) const;
  /** Whether it is one of the targets; the path is one without links. */
  bool HasTarget(const std::string& path) const;
  /** Whether two runs, at the same time, would be in each other's way. */
  bool Meets(const RunScope& other) const;
};

/** What the items in a feature's update list work on; relative paths are those of this moment. */
RunScope ScopeOf(const Properties& properties);

}  // namespace featurehost
