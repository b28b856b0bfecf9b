#include "tests/faults/FactoryDataCell.h"

#include <fstream>

#include "tests/faults/CopyTool.h"
#include "tests/faults/ToolText.h"
#include "tests/support/TempDir.h"

namespace faults {

namespace {

const std::string kTarget = kPlace + "/target";
const std::string kDisk = kPlace + "/disk";

constexpr std::size_t kPage = 4096;

std::size_t BytesUntil(Moment moment) {
  constexpr std::size_t kBytes[] = {0, 1, kRegionSize / 2, kRegionSize - 1, kRegionSize};
  return kBytes[static_cast<std::size_t>(moment)];
}

}  // namespace

void FactoryDataCell::LayOut() {
  support::WriteFile(source_, RegionFile());
  properties_.values = {{"updatelist", "factorydata"},
                        {"updateprogresslist", "100"},
                        {"factorydatasource", source_},
                        {"factorydatatarget", kTarget},
                        {"factorydataoffset", std::to_string(kRegionOffset)},
                        {"factorydatasize", std::to_string(kRegionSize)}};
  if (TheAct() == Act::kDiskFull) {
    MakeFullDisk();
  } else if (IsDoneByTools() && TheMoment() != Moment::kAfterEnd) {
    tools_.Add("dd", CopyTool(TheAct(), TheRole(), BytesUntil(TheMoment())));
  }
}

/** Of the four pages that the data needs there is room for none, one, two or three. */
void FactoryDataCell::MakeFullDisk() {
  const std::size_t room = static_cast<std::size_t>(TheMoment()) * kPage;
  support::Shell("mkdir " + kDisk + " && mount -t tmpfs -o size=1m none " + kDisk +
                 " && head -c $((1048576 - " + std::to_string(room) + ")) /dev/zero >" + kDisk +
                 "/filler && : >" + kActed);
  properties_.values["factorydatatarget"] = kDisk + "/target";
}

void FactoryDataCell::CommandComes(int /*number*/) {
  Reach(Moment::kStart);
}

bool FactoryDataCell::IsDoneByTools() const {
  switch (TheAct()) {
    case Act::kAbort:
    case Act::kCall:
    case Act::kNoDescriptors:
    case Act::kClockBack:
      return false;
    default:
      return true;
  }
}

bool FactoryDataCell::TargetIsRight() const {
  std::ifstream file(kTarget, std::ios::binary);
  return file.good() && support::ReadFile(kTarget) == Region();
}

}  // namespace faults
