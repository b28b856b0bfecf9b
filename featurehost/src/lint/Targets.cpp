#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "featurehost/src/lint/Checks.h"
#include "featurehost/src/lint/Number.h"
#include "featurehost/src/lint/Paths.h"
#include "featurehost/src/lint/WrittenDisks.h"

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

/** What an item writes, mounts or compares. */
struct Target {
  Findings::Place place;
  FileFacts facts;
  const WrittenDisk* disk;  // of a partition: an item before this one writes all of it; else null
};

/** What has to happen between the image and the item that needs one of its partitions. */
std::string WhoReadsTheTable(const WrittenDisk& disk) {
  return disk.path == kCard
             ? "fdisk makes the kernel read it at the end of every raw image"
             : "no item makes the kernel read it: fdisk does so for " + kCard + " alone";
}

/** A partition that is @p now not there, or too small, and that an image may bring. */
void ReportPartitionFromImage(const Subject& subject, const Target& target, const std::string& now,
                              const std::string& otherwise) {
  subject.findings.Add(Kind::kPartitionFromImage, target.place,
                       now + ", but item \"" + target.disk->item + "\" writes the whole of " +
                           target.disk->path +
                           " before, and its image may bring a new partition table (" +
                           WhoReadsTheTable(*target.disk) + "). " + otherwise,
                       "an image with this partition, and a unit whose kernel reads the new table "
                       "in time");
}

/** A copy to a path that is not there makes a regular file. */
void CheckMissing(const Subject& subject, const Target& target, bool isCreated) {
  const std::string& path = target.place.value;
  const bool inDev = path.compare(0, 5, "/dev/") == 0;
  const std::string outcome = isCreated && inDev
                                  ? "a regular file takes its place, and nothing reaches a card"
                                  : "the item fails";
  if (target.disk != nullptr) {
    ReportPartitionFromImage(
        subject, target, "there is no such device yet",
        "The partition must be there at this item's turn, otherwise " + outcome);
  } else if (isCreated && !inDev &&
             subject.environment.Look(FolderOf(path)).type == Type::kFolder) {
    subject.findings.Add(Kind::kTargetNotADevice, target.place,
                         "there is no such device: a regular file is made, which is for "
                         "development",
                         kDevice);
  } else {
    subject.findings.Add(Kind::kTargetMissing, target.place, "there is no such device: " + outcome,
                         kDevice);
  }
}

/** Whether it is something that can be written; @param isCreated  whether the item makes a file. */
bool CheckType(const Subject& subject, const Target& target, bool isCreated) {
  const Type type = target.facts.type;
  if (type == Type::kMissing) {
    CheckMissing(subject, target, isCreated);
    return false;
  }
  if (type == Type::kFolder || type == Type::kOther) {
    subject.findings.Add(Kind::kTargetUnusable, target.place,
                         "this is neither a block device nor a file, and no data is kept there",
                         kDevice);
    return false;
  }
  if (type == Type::kFile) {
    subject.findings.Add(Kind::kTargetNotADevice, target.place,
                         "this is a regular file, which is for development", kDevice);
  }
  return true;
}

void CheckRoom(const Subject& subject, const Target& target, std::uint64_t needed) {
  const std::uint64_t size = target.facts.size;
  if (target.facts.type != Type::kBlockDevice || size == 0 || needed <= size) {
    return;
  }
  const std::string now = "the device has " + std::to_string(size) + " bytes, and " +
                          std::to_string(needed) + " are needed";
  if (target.disk != nullptr && needed <= target.disk->size) {
    ReportPartitionFromImage(subject, target, now,
                             "With the size that it has now, the item does not go well");
  } else {
    subject.findings.Add(Kind::kTargetTooSmall, target.place, now,
                         "a device that is large enough, or less data");
  }
}

void CheckNotInUse(const Subject& subject, const Target& target) {
  const auto points = subject.environment.MountPointsOf(target.place.value);
  if (!points.empty()) {
    subject.findings.Add(
        Kind::kTargetMounted, target.place,
        "it is mounted (" + Joined(points) + "): what is written beneath a file system destroys it",
        "a device that is not mounted, or unmount it before");
  } else if (target.facts.inUse) {
    subject.findings.Add(Kind::kTargetMounted, target.place,
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

void CheckArchiveTarget(const Subject& subject, const Item& item, const Target& target) {
  CheckMountPoint(subject, item);
  if (target.place.value.empty() || IsDeviceTag(target.place.value) ||
      !CheckType(subject, target, false)) {
    return;
  }
  CheckMountable(subject, target.place, subject.update.Text(item.Key("mountpoint")));
  const std::uint64_t room = target.facts.size;
  const SourceFacts& source = subject.sources.Of(subject.update.Text(item.Key("source")));
  if (source.deep != nullptr) {
    CheckRoom(subject, target, source.deep->contents);
  } else if (room != 0 && source.Unpacked().value_or(0) > room) {
    subject.findings.Add(Kind::kArchiveLargerThanTarget, target.place,
                         "the archive has " + std::to_string(*source.Unpacked()) +
                             " bytes unpacked, the device " + std::to_string(room) +
                             "; a full file system is not noticed",
                         "a device that is large enough, or a smaller archive");
  }
}

void CheckImageTarget(const Subject& subject, const Item& item, const Target& target) {
  if (subject.environment.Look(kCard).type != Type::kBlockDevice) {
    subject.findings.Add(Kind::kCardMissing, {item.name, "", kCard},
                         "the partition table of this card is written after every raw image; "
                         "without it the item fails when everything has been copied",
                         "insert the card");
  }
  if (!target.place.value.empty() && CheckType(subject, target, true)) {
    CheckNotInUse(subject, target);
    const std::string source = SourceKey(item, subject.update, subject.environment);
    CheckRoom(subject, target,
              subject.sources.Of(subject.update.Text(source)).Unpacked().value_or(0));
  }
}

/** The number that a property names; 0 for none. */
std::uint64_t Bytes(const Subject& subject, const Item& item, const char* suffix) {
  const Number size = ReadNumber(subject.update.Text(item.Key(suffix)));
  return size.value > 0 ? static_cast<std::uint64_t>(size.value) : 0;
}

void CheckComparedTarget(const Subject& subject, const Item& item, const Target& target) {
  const bool isWritten = subject.update.Find(ItemKind::kImage, item.prefix) != nullptr;
  if (!isWritten && !target.place.value.empty() && CheckType(subject, target, false)) {
    CheckRoom(subject, target, Bytes(subject, item, "targetsize"));
  }
}

void CheckFactoryTarget(const Subject& subject, const Item& item, const Target& target) {
  if (!target.place.value.empty() && CheckType(subject, target, true)) {
    CheckNotInUse(subject, target);
    CheckRoom(subject, target, Bytes(subject, item, "size"));
  }
}

void CheckEndOfLineTarget(const Subject& subject, const Item& item, const Target& target) {
  if (subject.environment.Look(kEndOfLineFolder).type != Type::kMissing) {
    subject.findings.Add(Kind::kEolFolderLeft, {item.name, "", kEndOfLineFolder},
                         "it is left over from a run that failed, and the item fails as long as it "
                         "is there",
                         "umount " + kEndOfLineFolder + "; rmdir " + kEndOfLineFolder);
  }
  if (!target.place.value.empty() && !IsDeviceTag(target.place.value) &&
      CheckType(subject, target, false)) {
    CheckMountable(subject, target.place, kEndOfLineFolder);
    CheckRoom(subject, target, Bytes(subject, item, "size"));
  }
}

void CheckTarget(const Subject& subject, const Item& item, const Target& target) {
  switch (item.kind) {
    case ItemKind::kArchive:
      CheckArchiveTarget(subject, item, target);
      break;
    case ItemKind::kImage:
      CheckImageTarget(subject, item, target);
      break;
    case ItemKind::kCheck:
      CheckComparedTarget(subject, item, target);
      break;
    case ItemKind::kFactoryData:
      CheckFactoryTarget(subject, item, target);
      break;
    case ItemKind::kEndOfLineSettings:
      CheckEndOfLineTarget(subject, item, target);
      break;
  }
}

}  // namespace

void CheckTargets(const Subject& subject) {
  WrittenDisks disks(subject.environment);
  for (const Item& item : subject.update.Items()) {
    const std::string key = item.Key("target");
    const std::string path = subject.update.Text(key);
    const FileFacts facts = subject.environment.Look(path);
    CheckTarget(subject, item, {{item.name, key, path}, facts, disks.Of(path)});
    disks.Add(item, path, facts);
  }
}

}  // namespace featurehost::lint
