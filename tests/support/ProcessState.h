#pragma once

#include <map>
#include <set>
#include <string>
#include <sys/types.h>

namespace support {

/** Open descriptors of this process, with what each refers to. */
std::map<int, std::string> OpenDescriptors();
/** Children of this process, zombies included. */
std::set<pid_t> Children();

}  // namespace support
