#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "featurehost/src/lint/Linter.h"
#include "tests/featurehost/FakeEnvironment.h"

namespace featurehost::lint {

constexpr std::uint64_t kMib = FakeEnvironment::kMib;
constexpr std::uint32_t kImageSize = 24 * kMib;
inline const std::string kImage = "/update/rootfs.img.gz";
inline const std::string kArchive = "/update/userfs.tar.gz";
inline const std::string kMd5 = "d41d8cd98f00b204e9800998ecf8427e";

/** An update with an item of every kind, and a unit on which it can be installed. */
struct Scene {
  Properties::Values values{
      {"updatelist", "userfs;rootfs;checkrootfs;factorydata;eolsettings"},
      {"updateprogresslist", "60;25;10;3;2"},
      {"userfssource", kArchive},
      {"userfstarget", "/dev/mmcblk0p1"},
      {"userfsmountpoint", "/mnt/userfs"},
      {"userfsfilesystem", "ext3"},
      {"rootfssource", kImage},
      {"rootfstarget", "/dev/mmcblk1p1"},
      {"rootfstargetsize", std::to_string(kImageSize)},
      {"rootfsblocksize", "32k"},
      {"rootfschecksum", kMd5},
      {"factorydatasource", "/update/factory.bin"},
      {"factorydatatarget", "/dev/mmcblk1p2"},
      {"factorydataoffset", "1024"},
      {"factorydatasize", "4096"},
      {"eolsettingssource", "/update/settings.bin"},
      {"eolsettingstarget", "/dev/mmcblk1p3"},
      {"eolsettingstargetfilename", "cfg/eol.bin"},
      {"eolsettingsoffset", "512"},
      {"eolsettingssize", "2048"},
  };
  FakeEnvironment unit;
  DeepFactsByPath deep;

  Scene() {
    unit.AddGzip(kArchive, 10 * kMib, 30 * kMib);
    unit.AddGzip(kImage, 8 * kMib, kImageSize);
    unit.AddFile("/update/factory.bin", 65536);
    unit.AddFile("/update/settings.bin", 16384);
    unit.AddDevice("/dev/mmcblk0p1", 100 * kMib);
    unit.AddDevice("/dev/mmcblk1", 128 * kMib);
    unit.AddDevice("/dev/mmcblk1p1", 32 * kMib);
    unit.AddDevice("/dev/mmcblk1p2", kMib);
    unit.AddDevice("/dev/mmcblk1p3", 8 * kMib);
    unit.AddFolder("/mnt/userfs");
    unit.AddFolder("/update");
  }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  /** As if both compressed files had been unpacked and found good. */
  void UnpackAll() {
    DeepFacts& archive = deep[kArchive];
    archive.unpacked = 30 * kMib;
    archive.members = 1;
    archive.contents = 29 * kMib;
    DeepFacts& image = deep[kImage];
    image.unpacked = kImageSize;
    image.members = 1;
    image.digest = kMd5;
    image.compressedDigest = std::string(32, '0');
  }

  std::vector<Finding> Lint() const { return lint::Lint("maincpu", values, unit, deep); }
};

inline std::vector<std::string> IdsOf(const std::vector<Finding>& findings) {
  std::vector<std::string> ids;
  for (const Finding& finding : findings) {
    ids.emplace_back(IdOf(finding.kind));
  }
  return ids;
}

}  // namespace featurehost::lint
