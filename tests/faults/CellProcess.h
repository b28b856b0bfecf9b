#pragma once

#include <functional>
#include <string>

namespace faults {

/** How a cell's process ended. */
struct Verdict {
  bool passed = false;
  std::string why;  // what failed, with what was printed on standard error; empty after a pass
};

/**
 * Run a body with expectations in a process, a process group and a mount namespace of its own, with
 * an empty /tmp. A crash, a sanitizer's report, a failed expectation and taking longer than the
 * limit are failures. Nothing of it is left behind. Needs support::EnterPrivateMounts.
 */
Verdict RunInCellProcess(const std::function<void()>& body);

}  // namespace faults
