#pragma once

#include <sys/resource.h>
#include <vector>

namespace faults {

/** While it lives, this process has no descriptor left to open. Its children have room. */
class UsedUpDescriptors {
 public:
  UsedUpDescriptors();
  ~UsedUpDescriptors();

  UsedUpDescriptors(const UsedUpDescriptors&) = delete;
  UsedUpDescriptors& operator=(const UsedUpDescriptors&) = delete;

 private:
  rlimit before_{};
  std::vector<int> fillers_;
};

}  // namespace faults
