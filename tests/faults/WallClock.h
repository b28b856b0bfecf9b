#pragma once

namespace faults {

/** From now on the wall clock of this process (not the machine's) is a day behind. */
void SetWallClockBack();

}  // namespace faults
