#pragma once

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

namespace support {

/** Open descriptors of this process, with what each refers to. */
std::map<int, std::string> OpenDescriptors();
/**
 * Children of this process, zombies included, in the order of their making: that of their ids
 * begins anew every now and then.
 */
std::vector<pid_t> Children();

}  // namespace support
