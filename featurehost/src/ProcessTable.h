#pragma once

#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace featurehost {

/*
 * Numbers of processes are those that /proc shows. A container may see the /proc of its maker,
 * where its processes have other numbers than they know of.
 */

/** A process beyond doubt: its number is given to another one some time after its end. */
struct ProcessName {
  pid_t id = 0;
  unsigned long long start = 0;  ///< clock ticks from the machine's start to its own
};

inline bool operator<(const ProcessName& left, const ProcessName& right) {
  return left.id != right.id ? left.id < right.id : left.start < right.start;
}

/** The name of a running process; its start is 0 when there is no such process. */
ProcessName NameOf(pid_t process);

/** Whether the very process is there and has not ended; one that waits to be reaped has. */
bool IsAlive(const ProcessName& process);

/** The children of this process, also those that wait to be reaped. */
std::set<pid_t> Children();

/** The children of a process that have not ended, and theirs. */
std::vector<ProcessName> DescendantsOf(pid_t process);

/**
 * The processes, without this one, that were started with an entry ("NAME=value") in their
 * environment. Those whose environment this user may not read are not among them.
 */
std::set<ProcessName> ProcessesWith(const std::string& entry);

/** Number and command line, for people. */
std::string DescribeProcess(pid_t process);

/** End a child and reap it. @return how ("ended", "killed"); empty when it is still there. */
std::string EndChild(pid_t child);

/** End a process that is no child. @return as EndChild. */
std::string EndStranger(const ProcessName& process);

}  // namespace featurehost
