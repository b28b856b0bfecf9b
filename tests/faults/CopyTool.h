#pragma once

#include <cstddef>
#include <string>

#include "tests/faults/Matrix.h"

namespace faults {

constexpr std::size_t kRegionOffset = 100;
constexpr std::size_t kRegionSize = 16384;

/** The region that the commands copy. */
std::string Region();
/** A file with the region in it. */
std::string RegionFile();

/**
 * A dd for the commands' arguments that copies so many bytes with the real one, does the fault, and
 * copies the rest, if the fault leaves it the chance.
 */
std::string CopyTool(Act act, Role role, std::size_t bytes);

}  // namespace faults
