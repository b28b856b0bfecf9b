#pragma once

#include <string>

namespace featurehost {

/**
 * Whether a name is that of a partition on the disk: "sda1" on "sda", "mmcblk0p1" on "mmcblk0".
 * Names or whole paths; nobody is asked whether there are such devices.
 */
bool IsPartitionOf(const std::string& name, const std::string& disk);

}  // namespace featurehost
