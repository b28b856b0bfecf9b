#include "featurehost/src/UnitChanges.h"

#include <algorithm>
#include <cerrno>
#include <sys/mount.h>
#include <unistd.h>
#include <utility>

#include "featurehost/src/Paths.h"
#include "featurehost/src/Text.h"
#include "featurehost/src/WaitUntil.h"

namespace featurehost {

namespace {

LeftOver LeftMount(const Mount& mount) {
  return {LeftOver::Kind::kMount, OneLine(mount.Point() + " (" + mount.source + ")"), false, ""};
}

LeftOver LeftLoopDevice(const LoopDevice& loop) {
  return {LeftOver::Kind::kLoopDevice, OneLine(loop.node + " (" + loop.file + ")"), false, ""};
}

LeftOver LeftFolder(const std::string& folder) {
  return {LeftOver::Kind::kFolder, folder, false, ""};
}

bool IsMounted(const LoopDevice& loop) {
  const auto mounts = Mounts();
  return std::any_of(mounts.begin(), mounts.end(),
                     [&loop](const Mount& mount) { return mount.device == loop.device; });
}

bool IsThere(const Mount& mount) {
  const auto mounts = Mounts();
  return std::any_of(mounts.begin(), mounts.end(),
                     [&mount](const Mount& other) { return other.name == mount.name; });
}

LeftOver Unmount(const Mount& mount) {
  LeftOver leftOver = LeftMount(mount);
  int error = 0;
  const auto isDone = [&mount, &error] {
    if (!IsThere(mount)) {
      error = 0;  // gone by itself: what lies beneath it is not ours
      return true;
    }
    error = umount2(mount.Point().c_str(), UMOUNT_NOFOLLOW) == 0 ? 0 : errno;
    return error != EBUSY;
  };
  leftOver.cleaned = WaitUntil(isDone) && error == 0;
  leftOver.done = leftOver.cleaned ? "unmounted" : "cannot be unmounted: " + ErrorText(error);
  return leftOver;
}

LeftOver LetGo(const LoopDevice& loop) {
  LeftOver leftOver = LeftLoopDevice(loop);
  if (!IsAttached(loop)) {
    leftOver.cleaned = true;
    leftOver.done = "let go with its mount";
  } else if (IsMounted(loop)) {
    // Detached now, it would vanish at some later time that nobody would tell.
    leftOver.done = "cannot be detached: still mounted";
  } else {
    const int error = Detach(loop);
    leftOver.cleaned = error == 0;
    leftOver.done = leftOver.cleaned ? "detached" : "cannot be detached: " + ErrorText(error);
  }
  return leftOver;
}

LeftOver RemoveFolder(const std::string& folder) {
  LeftOver leftOver = LeftFolder(folder);
  const int error = rmdir(folder.c_str()) == 0 ? 0 : errno;
  leftOver.cleaned = error == 0;
  leftOver.done = leftOver.cleaned ? "removed" : "cannot be removed: " + ErrorText(error);
  return leftOver;
}

}  // namespace

UnitStock TakeStock(const RunScope& scope) {
  UnitStock stock;
  for (const Mount& mount : Mounts()) {
    stock.mounts.insert(mount.name);
  }
  for (const LoopDevice& loop : LoopDevices()) {
    stock.loopDevices.insert(loop.device);
  }
  stock.folder = !scope.folder.empty() && Exists(scope.folder);
  return stock;
}

UnitChanges::UnitChanges(RunScope scope, UnitStock before)
    : scope_(std::move(scope)), before_(std::move(before)) {}

std::vector<LeftOver> UnitChanges::Find() const {
  std::vector<LeftOver> found;
  for (const Mount& mount : NewMounts()) {
    if (scope_.HasMountPoint(mount.Point())) {
      found.push_back(LeftMount(mount));
    }
  }
  for (const LoopDevice& loop : NewLoopDevices()) {
    found.push_back(LeftLoopDevice(loop));
  }
  if (HasNewFolder()) {
    found.push_back(LeftFolder(scope_.folder));
  }
  return found;
}

std::vector<LeftOver> UnitChanges::FindForeignMounts() const {
  std::vector<LeftOver> found;
  for (const Mount& mount : NewMounts()) {
    if (!scope_.HasMountPoint(mount.Point())) {
      found.push_back(LeftMount(mount));
      found.back().done = "not at a mount point of this feature; left as it is";
      found.back().foreign = true;
    }
  }
  return found;
}

std::vector<LeftOver> UnitChanges::CleanUp() const {
  std::vector<LeftOver> found;
  // Looked for now: which of them are the run's shows in its mounts.
  const auto loops = NewLoopDevices();
  for (const Mount& mount : NewMounts()) {
    if (scope_.HasMountPoint(mount.Point())) {
      found.push_back(Unmount(mount));
    }
  }
  for (const LoopDevice& loop : loops) {
    found.push_back(LetGo(loop));
  }
  if (HasNewFolder()) {
    found.push_back(RemoveFolder(scope_.folder));
  }
  return found;
}

std::vector<Mount> UnitChanges::NewMounts() const {
  std::vector<Mount> fresh;
  for (const Mount& mount : Mounts()) {
    if (before_.mounts.count(mount.name) == 0) {
      fresh.push_back(mount);
    }
  }
  std::reverse(fresh.begin(), fresh.end());
  return fresh;
}

std::vector<LoopDevice> UnitChanges::NewLoopDevices() const {
  const auto mounts = NewMounts();
  const auto isOurs = [&](const LoopDevice& loop) {
    return (scope_.HasTarget(loop.file) && HasFileFromHere(loop)) ||
           std::any_of(mounts.begin(), mounts.end(), [&](const Mount& mount) {
             return mount.device == loop.device && scope_.HasMountPoint(mount.Point());
           });
  };
  std::vector<LoopDevice> fresh;
  for (const LoopDevice& loop : LoopDevices()) {
    if (before_.loopDevices.count(loop.device) == 0 && isOurs(loop)) {
      fresh.push_back(loop);
    }
  }
  return fresh;
}

bool UnitChanges::HasNewFolder() const {
  return !scope_.folder.empty() && !before_.folder && Exists(scope_.folder);
}

}  // namespace featurehost
