#include "tests/support/ProcessState.h"

#include <climits>
#include <dirent.h>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

namespace support {

std::map<int, std::string> OpenDescriptors() {
  std::map<int, std::string> descriptors;
  DIR* directory = opendir("/proc/self/fd");
  if (directory == nullptr) {
    ADD_FAILURE() << "cannot list /proc/self/fd";
    return descriptors;
  }
  while (const dirent* entry = readdir(directory)) {
    const std::string name = entry->d_name;
    if (name == "." || name == ".." || std::stoi(name) == dirfd(directory)) {
      continue;
    }
    char target[PATH_MAX] = {};
    if (readlink(("/proc/self/fd/" + name).c_str(), target, sizeof target - 1) >= 0) {
      descriptors[std::stoi(name)] = target;
    }
  }
  closedir(directory);
  return descriptors;
}

std::vector<pid_t> Children() {
  const std::string self = std::to_string(getpid());
  std::ifstream list("/proc/self/task/" + self + "/children");
  EXPECT_TRUE(list.good()) << "cannot list the children of this process";
  std::vector<pid_t> children;
  for (pid_t child = 0; list >> child;) {
    children.push_back(child);
  }
  return children;
}

}  // namespace support
