#include "tests/faults/SettingsCell.h"

#include <fstream>

#include "tests/faults/CopyTool.h"
#include "tests/faults/ToolText.h"
#include "tests/support/TempDir.h"

namespace faults {

namespace {

const std::string kDevice = kPlace + "/device";
const std::string kMountPoint = "/tmp/eolmountpoint";
const std::string kRealMount = "/bin/mount --bind " + kDevice + " " + kMountPoint;

/** The fault before the work or, of a tool that ends late, behind it. */
std::string Tool(Act act, Role role, const std::string& work) {
  return act == Act::kExitLate ? work + " || exit\n" + ActText(act, role)
                               : ActText(act, role) + work;
}

}  // namespace

void SettingsCell::LayOut() {
  support::Shell("mkdir -p " + kDevice);
  support::WriteFile(source_, RegionFile());
  properties_.values = {{"updatelist", "eolsettings"},
                        {"updateprogresslist", "100"},
                        {"eolsettingssource", source_},
                        {"eolsettingstarget", "/dev/none"},
                        {"eolsettingstargetfilename", "cfg/eol.bin"},
                        {"eolsettingsoffset", std::to_string(kRegionOffset)},
                        {"eolsettingssize", std::to_string(kRegionSize)}};
  folder_ = kMountPoint;
  tools_.Add("mount", "exec " + kRealMount);
  if (TheAct() == Act::kDiskFull) {
    MakeFullDisk();
  } else if (IsDoneByTools()) {
    MakeTool();
  }
}

/** No room for a folder, or none for all of the data. */
void SettingsCell::MakeFullDisk() {
  const std::string limit = TheMoment() == Moment::kFirstStep ? "nr_inodes=1" : "size=4k";
  support::Shell("/bin/mount -t tmpfs -o " + limit + " none " + kDevice + " && : >" + kActed);
}

void SettingsCell::MakeTool() {
  switch (TheMoment()) {
    case Moment::kStart:
      return tools_.Add("mount", Tool(TheAct(), TheRole(), kRealMount));
    case Moment::kFirstStep:
      return tools_.Add("mkdir", "[ \"$1\" = -p ] || exec /bin/mkdir \"$@\"\n" +
                                     Tool(TheAct(), TheRole(), "/bin/mkdir \"$@\""));
    case Moment::kMiddle: {
      const bool copiesSome = TheAct() == Act::kSourceError || TheAct() == Act::kTargetError;
      return tools_.Add("dd", CopyTool(TheAct(), TheRole(), copiesSome ? kRegionSize / 2 : 0));
    }
    case Moment::kLastStep:
      return tools_.Add("umount", Tool(TheAct(), TheRole(), "/bin/umount \"$@\""));
    case Moment::kAfterEnd:
      return;
  }
}

void SettingsCell::CommandComes(int number) {
  Reach(static_cast<Moment>(number - 1));
}

bool SettingsCell::IsDoneByTools() const {
  switch (TheAct()) {
    case Act::kAbort:
    case Act::kCall:
    case Act::kNoDescriptors:
    case Act::kTruncate:
    case Act::kClockBack:
      return false;
    default:
      return true;
  }
}

bool SettingsCell::TargetIsRight() const {
  std::ifstream file(kDevice + "/cfg/eol.bin", std::ios::binary);
  return file.good() && support::ReadFile(kDevice + "/cfg/eol.bin") == Region();
}

}  // namespace faults
