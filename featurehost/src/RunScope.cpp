#include "featurehost/src/RunScope.h"

#include <algorithm>
#include <filesystem>

#include "featurehost/src/Items.h"
#include "featurehost/src/PartitionName.h"
#include "featurehost/src/Paths.h"

namespace featurehost {

namespace {

constexpr const char* kEndOfLineItem = "eolsettings";
constexpr const char* kEndOfLineFolder = "/tmp/eolmountpoint";

bool Holds(const std::vector<std::string>& paths, const std::string& path) {
  return std::any_of(paths.begin(), paths.end(),
                     [&path](const std::string& own) { return Canonical(own) == path; });
}

bool SharesStorage(const std::string& one, const std::string& other) {
  return one == other || IsPartitionOf(one, other) || IsPartitionOf(other, one);
}

}  // namespace

bool RunScope::HasMountPoint(const std::string& path) const {
  return Holds(mountPoints, path) || (!folder.empty() && Canonical(folder) == path);
}

bool RunScope::HasTarget(const std::string& path) const {
  return Holds(targets, path);
}

bool RunScope::Meets(const RunScope& other) const {
  const auto isMountPointThere = [&other](const std::string& point) {
    return other.HasMountPoint(Canonical(point));
  };
  const auto isTargetThere = [&other](const std::string& target) {
    const std::string path = Canonical(target);
    return std::any_of(
        other.targets.begin(), other.targets.end(),
        [&path](const std::string& another) { return SharesStorage(path, Canonical(another)); });
  };
  return std::any_of(mountPoints.begin(), mountPoints.end(), isMountPointThere) ||
         (!folder.empty() && isMountPointThere(folder)) ||
         std::any_of(targets.begin(), targets.end(), isTargetThere);
}

RunScope ScopeOf(const Properties& properties) {
  RunScope scope;
  const Items items{properties.Text("updatelist"), properties.Text("updateprogresslist")};
  for (const std::string& item : items.Names()) {
    const std::string point = properties.Text(item + "mountpoint");
    const std::string target = properties.Text(item + "target");
    if (!point.empty()) {
      scope.mountPoints.push_back(std::filesystem::absolute(point));
    }
    if (!target.empty()) {
      scope.targets.push_back(std::filesystem::absolute(target));
    }
    if (item == kEndOfLineItem) {
      scope.folder = kEndOfLineFolder;
    }
  }
  return scope;
}

}  // namespace featurehost
