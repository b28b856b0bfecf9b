#pragma once

#include <map>
#include <set>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "featurehost/src/LeftOver.h"

namespace featurehost {

/**
 * What a run may change on the unit besides the devices it writes: the children of this process,
 * the mounts, and the folder that the end-of-line settings are mounted on.
 *
 * Takes stock when it is made; CleanUp compares and puts back. From its making on, this process
 * also inherits the orphans of its children, so that none of them gets lost.
 */
class UnitState {
 public:
  /**
   * @param ownMountPoints  where the run mounts; what is mounted elsewhere is not its doing.
   * @param folder          the folder that the run makes and removes, also one of its mount points;
   *                        empty when it has none.
   */
  UnitState(std::vector<std::string> ownMountPoints, std::string folder);

  /**
   * Undo what was not there before: end and reap children, unmount, remove the folder if it is
   * empty. Takes seconds at most.
   *
   * @return everything that was found, also what could or should not be cleaned.
   */
  std::vector<LeftOver> CleanUp() const;

 private:
  struct Mount {
    std::string point;
    std::string source;
  };
  using MountName = std::pair<std::string, std::string>;  // mount id and mount point

  static std::set<pid_t> Children();
  static std::vector<std::pair<MountName, Mount>> Mounts();

  std::vector<pid_t> NewChildren() const;
  void EndChildren(std::vector<LeftOver>& found) const;
  void Unmount(std::vector<LeftOver>& found) const;
  void RemoveFolder(std::vector<LeftOver>& found) const;
  bool IsOwnMountPoint(const std::string& point) const;

  std::vector<std::string> ownMountPoints_;
  std::string folder_;
  std::set<pid_t> children_;
  std::set<MountName> mounts_;
  bool makesFolder_;  // there is one to be made and removed, and it was not there before
};

}  // namespace featurehost
