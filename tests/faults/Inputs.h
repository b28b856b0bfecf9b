#pragma once

#include <string>

namespace faults {

/** Something compressed, and what it is. Made once; ask before a cell's process begins. */
struct Input {
  std::string plain;
  std::string compressed;
};

/** A tar archive of 1,024,000 bytes: four steps of the archive loader. */
const Input& Archive();
/** 1 MiB. */
const Input& Image();
/** 7 MiB: four steps of a check. */
const Input& LargeImage();

}  // namespace faults
