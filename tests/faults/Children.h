#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace faults {

/**
 * The children of this process in the order of their making, once each has become a tool (and the
 * shell script that zcat is has become gzip, unless zcat is a scripted one).
 */
std::vector<pid_t> ToolsOfThisProcess(bool zcatIsScripted);

/** The process that a tool has named in the file because it hangs, once it does; -1 before. */
pid_t HungTool(const std::string& file);

/** Whether a process waits for something. */
bool Sleeps(pid_t process);

/** Whether a child has ended; it is not collected. One that was collected has ended, too. */
bool HasEnded(pid_t child);

}  // namespace faults
