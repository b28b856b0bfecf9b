#pragma once

#include <string>

#include "tests/faults/Matrix.h"

namespace faults {

/** Something compressed, and what it is. Made when it is first asked for. */
struct Input {
  std::string plain;
  std::string compressed;
};

/** A tar archive of 1,024,000 bytes: four steps of the archive loader. */
const Input& Archive();
constexpr unsigned kArchivedFiles = 9;
std::string ArchivedName(unsigned number);
std::string ArchivedContent(unsigned number);

/** 1 MiB. */
const Input& Image();
/** 7 MiB: four steps of a check. */
const Input& LargeImage();

/** Make what the cells of a kind need, for all of them. */
void MakeInputOf(Kind kind);

}  // namespace faults
