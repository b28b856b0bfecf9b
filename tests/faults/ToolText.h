#pragma once

#include <cstddef>
#include <string>

#include "tests/faults/Matrix.h"

namespace faults {

/** Made by a tool when it does its fault. */
inline const std::string kActed = "/tmp/cell/acted";
/** Made by a tool that hangs, with its process id. */
inline const std::string kHung = "/tmp/cell/hung";

/** Shell lines that do the fault; those that end the script do so with what it ends with. */
std::string ActText(Act act, Role role = Role::kNone);

/** A decompressor of its first argument that comes so far and then does the fault. */
std::string DecompressorText(Act act, std::size_t bytes);

}  // namespace faults
