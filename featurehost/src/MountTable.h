#pragma once

#include <string>
#include <utility>
#include <vector>

namespace featurehost {

/** What tells one mount from another: the kernel's number for it, and the mount point. */
using MountName = std::pair<std::string, std::string>;

/** A mount of this mount namespace. */
struct Mount {
  MountName name;
  std::string device;  ///< major and minor number, "7:0"
  std::string source;

  const std::string& Point() const { return name.second; }
};

/** All of them, in the kernel's order: the latest last. */
std::vector<Mount> Mounts();

}  // namespace featurehost
