#include "tests/faults/CopyTool.h"

#include "tests/faults/ToolText.h"
#include "tests/support/TempDir.h"

namespace faults {

std::string RegionFile() {
  return support::RandomBytes(kRegionOffset + kRegionSize + 1000);
}

std::string Region() {
  return RegionFile().substr(kRegionOffset, kRegionSize);
}

std::string CopyTool(Act act, Role role, std::size_t bytes) {
  if (act == Act::kExitLate) {
    return "/bin/dd \"$@\" || exit\n" + ActText(act, role);
  }
  const std::string count = std::to_string(bytes);
  return "/bin/dd \"$1\" \"$2\" bs=1 \"$4\" count=" + count + " 2>/dev/null || exit\n" +
         ActText(act, role) + "exec /bin/dd \"$1\" \"$2\" bs=1 skip=$((${4#skip=} + " + count +
         ")) seek=" + count + " conv=notrunc count=$((${5#count=} - " + count + "))";
}

}  // namespace faults
