#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tests/faults/Matrix.h"

namespace faults {

/**
 * What must come of one fault at one moment of one item. Read from a word of the table:
 *
 *   S    the install succeeds, and the target holds what it should
 *   s    the install reports success, but the target does not hold everything: nobody noticed
 *   F    the install fails
 *   B    it fails, and then succeeds
 *   A    the abort is acknowledged; SA: after a success
 *   G    the abort is acknowledged, and the item may go on to a success until the feature ends
 *   -r   not run, for the reason r
 *
 * Behind "/": what the module leaves to the host, in this order: m a mount, p a process (each), f
 * an empty folder; x a folder that holds something, which the host only names. Behind "+": how many
 * descriptors of its own the module leaves open.
 */
struct Expectation {
  bool run = true;
  char reason = '\0';
  /** The events after the first prepare result, without progress; equal ones as one. */
  std::vector<std::string> results;
  /** Whether these may be met by a run that also succeeds. */
  bool maySucceedToo = false;
  /** Whether the target holds what it should; not known: not looked at. */
  std::optional<bool> targetIsRight;
  std::string left;
  std::size_t descriptorsLeft = 0;

  static Expectation Of(const Row& row, Kind kind, Moment moment);
};

}  // namespace faults
