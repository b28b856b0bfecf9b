#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "featurehost/src/lint/Checks.h"
#include "featurehost/src/lint/Number.h"
#include "featurehost/src/lint/Paths.h"

namespace featurehost::lint {

namespace {

using Type = FileFacts::Type;

const std::string kCard = "/dev/mmcblk1";
const std::string kEndOfLineFolder = "/tmp/eolmountpoint";
const std::string kDevice = "the block device that is meant";

std::string FolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string Joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) {
    all += (all.empty() ? "" : ", ") + text;
  }
  return all;
}

bool IsAmong(const std::string& text, const std::vector<std::string>& texts) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

/** A copy to a path that is not there makes a regular file. */
void CheckMissing(const Subject& subject, const Findings::Place& place, bool isCreated) {
  const bool inDev = place.value.compare(0, 5, "/dev/") == 0;
  if (isCreated && !inDev &&
      subject.environment.Look(FolderOf(place.value)).type == Type::kFolder) {
    subject.findings.Add(Kind::kTargetNotADevice, place,
                         "there is no such device: a regular file is made, which is for "
                         "development",
                         kDevice);
  } else {
    subject.findings.Add(Kind::kTargetMissing, place,
                         isCreated && inDev
                             ? "there is no such device: a regular file takes its place, and "
                               "nothing reaches a card"
                             : "there is no such device, and the item fails",
                         kDevice);
  }
}

/** Whether it is something that can be written; @param isCreated  whether the item makes a file. */
bool CheckType(const Subject& subject, const Findings::Place& place, const FileFacts& target,
               bool isCreated) {
  if (target.type == Type::kMissing) {
    CheckMissing(subject, place, isCreated);
    return false;
  }
  if (target.type == Type::kFolder || target.type == Type::kOther) {
    subject.findings.Add(Kind::kTargetUnusable, place,
                         "this is neither a block device nor a file, and no data is kept there",
                         kDevice);
    return false;
  }
  if (target.type == Type::kFile) {
    subject.findings.Add(Kind::kTargetNotADevice, place,
                         "this is a regular file, which is for development", kDevice);
  }
  return true;
}

void CheckRoom(const Subject& subject, const Findings::Place& place, const FileFacts& target,
               std::uint64_t needed) {
  if (target.type == Type::kBlockDevice && target.size != 0 && needed > target.size) {
    subject.findings.Add(Kind::kTargetTooSmall, place,
                         "the device has " + std::to_string(target.size) + " bytes, and " +
                             std::to_string(needed) + " are needed",
                         "a device that is large enough, or less data");
  }
}

void CheckNotInUse(const Subject& subject, const Findings::Place& place, const FileFacts& target) {
  const auto points = subject.environment.MountPointsOf(place.value);
  if (!points.empty()) {
    subject.findings.Add(
        Kind::kTargetMounted, place,
        "it is mounted (" + Joined(points) + "): what is written beneath a file system destroys it",
        "a device that is not mounted, or unmount it before");
  } else if (target.inUse) {
    subject.findings.Add(Kind::kTargetMounted, place,
                         "something has this device for itself: a mount elsewhere, swap, a volume "
                         "group or an array, which a copy would destroy",
                         "a device that nothing uses");
  }
}

/** A device whose file system the item mounts. */
void CheckMountable(const Subject& subject, const Findings::Place& place,
                    const std::string& folder) {
  const auto points = subject.environment.MountPointsOf(place.value);
  if (IsAmong(subject.environment.MountPointAt(folder), points)) {
    subject.findings.Add(Kind::kTargetMounted, place,
                         "it is mounted at " + folder + " already, so that mounting it fails",
                         "unmount it before");
  } else if (!points.empty()) {
    subject.findings.Add(Kind::kTargetAlsoMounted, place,
                         "it is mounted (" + Joined(points) +
                             "): its files change under whoever uses them, and a read-only mount "
                             "makes the item fail",
                         "unmount it before");
  }
}

void CheckMountPoint(const Subject& subject, const Item& item) {
  const Findings::Place place{item.name, item.Key("mountpoint"),
                              subject.update.Text(item.Key("mountpoint"))};
  if (place.value.empty()) {
    return;
  }
  if (subject.environment.Look(place.value).type != Type::kFolder) {
    subject.findings.Add(Kind::kMountPointMissing, place,
                         "there is no such folder, so that the mount fails",
                         "a folder that exists");
    return;
  }
  const std::string target = subject.update.Text(item.Key("target"));
  const std::string point = subject.environment.MountPointAt(place.value);
  if (!point.empty() && !IsAmong(point, subject.environment.MountPointsOf(target))) {
    subject.findings.Add(Kind::kMountPointInUse, place,
                         "something is mounted there already; the item's mount hides it as long as "
                         "the item runs",
                         "a folder of its own");
  }
}

void CheckArchiveTarget(const Subject& subject, const Item& item, const Findings::Place& place) {
  CheckMountPoint(subject, item);
  if (place.value.empty() || IsDeviceTag(place.value)) {
    return;
  }
  const FileFacts target = subject.environment.Look(place.value);
  if (!CheckType(subject, place, target, false)) {
    return;
  }
  CheckMountable(subject, place, subject.update.Text(item.Key("mountpoint")));
  const SourceFacts& source = subject.sources.Of(subject.update.Text(item.Key("source")));
  if (source.deep != nullptr) {
    CheckRoom(subject, place, target, source.deep->contents);
  } else if (target.size != 0 && source.Unpacked().value_or(0) > target.size) {
    subject.findings.Add(Kind::kArchiveLargerThanTarget, place,
                         "the archive has " + std::to_string(*source.Unpacked()) +
                             " bytes unpacked, the device " + std::to_string(target.size) +
                             "; a full file system is not noticed",
                         "a device that is large enough, or a smaller archive");
  }
}

void CheckImageTarget(const Subject& subject, const Item& item, const Findings::Place& place) {
  if (subject.environment.Look(kCard).type != Type::kBlockDevice) {
    subject.findings.Add(Kind::kCardMissing, {item.name, "", kCard},
                         "the partition table of this card is written after every raw image; "
                         "without it the item fails when everything has been copied",
                         "insert the card");
  }
  if (place.value.empty()) {
    return;
  }
  const FileFacts target = subject.environment.Look(place.value);
  if (CheckType(subject, place, target, true)) {
    CheckNotInUse(subject, place, target);
    const std::string source = SourceKey(item, subject.update, subject.environment);
    CheckRoom(subject, place, target,
              subject.sources.Of(subject.update.Text(source)).Unpacked().value_or(0));
  }
}

void CheckComparedTarget(const Subject& subject, const Item& item, const Findings::Place& place) {
  const bool isWritten = subject.update.Find(ItemKind::kImage, item.prefix) != nullptr;
  if (isWritten || place.value.empty()) {
    return;
  }
  const FileFacts target = subject.environment.Look(place.value);
  if (CheckType(subject, place, target, false)) {
    const Number size = ReadNumber(subject.update.Text(item.Key("targetsize")));
    CheckRoom(subject, place, target, size.value > 0 ? static_cast<std::uint64_t>(size.value) : 0);
  }
}

void CheckFactoryTarget(const Subject& subject, const Item& item, const Findings::Place& place) {
  if (place.value.empty()) {
    return;
  }
  const FileFacts target = subject.environment.Look(place.value);
  if (CheckType(subject, place, target, true)) {
    CheckNotInUse(subject, place, target);
    const Number size = ReadNumber(subject.update.Text(item.Key("size")));
    CheckRoom(subject, place, target, size.value > 0 ? static_cast<std::uint64_t>(size.value) : 0);
  }
}

void CheckEndOfLineTarget(const Subject& subject, const Item& item, const Findings::Place& place) {
  if (subject.environment.Look(kEndOfLineFolder).type != Type::kMissing) {
    subject.findings.Add(Kind::kEolFolderLeft, {item.name, "", kEndOfLineFolder},
                         "it is left over from a run that failed, and the item fails as long as it "
                         "is there",
                         "umount " + kEndOfLineFolder + "; rmdir " + kEndOfLineFolder);
  }
  if (place.value.empty() || IsDeviceTag(place.value)) {
    return;
  }
  const FileFacts target = subject.environment.Look(place.value);
  if (CheckType(subject, place, target, false)) {
    CheckMountable(subject, place, kEndOfLineFolder);
    const Number size = ReadNumber(subject.update.Text(item.Key("size")));
    CheckRoom(subject, place, target, size.value > 0 ? static_cast<std::uint64_t>(size.value) : 0);
  }
}

}  // namespace

void CheckTargets(const Subject& subject) {
  for (const Item& item : subject.update.Items()) {
    const std::string key = item.Key("target");
    const Findings::Place place{item.name, key, subject.update.Text(key)};
    switch (item.kind) {
      case ItemKind::kArchive:
        CheckArchiveTarget(subject, item, place);
        break;
      case ItemKind::kImage:
        CheckImageTarget(subject, item, place);
        break;
      case ItemKind::kCheck:
        CheckComparedTarget(subject, item, place);
        break;
      case ItemKind::kFactoryData:
        CheckFactoryTarget(subject, item, place);
        break;
      case ItemKind::kEndOfLineSettings:
        CheckEndOfLineTarget(subject, item, place);
        break;
    }
  }
}

}  // namespace featurehost::lint
