#pragma once

#include <optional>
#include <string>
#include <vector>

#include "featurehost/src/ProcessTable.h"
#include "featurehost/src/RunScope.h"
#include "featurehost/src/UnitChanges.h"

namespace featurehost {

/**
 * What an install notes down about itself before it starts anything, for whoever comes after it
 * should it be killed.
 */
struct RunNote {
  /** Random; every process that the run starts carries it in its environment. */
  std::string id;
  std::string boot;                    ///< the kernel's id of this start of the machine
  std::string processSpace;            ///< the namespace in which the process numbers mean anything
  std::string mountSpace;              ///< and the mounts
  std::vector<ProcessName> processes;  ///< of the host itself, the front first
  std::string feature;
  std::string configuration;  ///< path as it was given
  RunScope scope;
  UnitStock before;
};

/** The note of an install by this process, from here and now on. */
RunNote NewNote(const std::string& feature, const std::string& configuration, const RunScope& scope,
                const UnitStock& before);

/** The entry that a run's processes have in their environment. */
std::string EnvironmentEntry(const RunNote& note);

/** Let every process that this one starts from now on carry the note's id. */
void MarkChildren(const RunNote& note);

/**
 * Whether /proc is there, and tells of the processes that our numbers mean. Without it no note can
 * be judged: none is of an earlier start, nothing of any can be seen.
 */
bool HasOwnProc();

/** Whether the note is of before the machine's last start. */
bool IsOfEarlierBoot(const RunNote& note);

/** Whether the run's processes can be seen, and judged, from here. */
bool SeesProcessesOf(const RunNote& note);

/** Whether the run's mounts can be. */
bool SeesMountsOf(const RunNote& note);

/** The process of the host that wrote it; nothing when it has gone, or cannot be seen. */
std::optional<pid_t> RunningProcess(const RunNote& note);

std::string ToText(const RunNote& note);

/** @return nothing when the text is no complete note. */
std::optional<RunNote> ParseNote(const std::string& text);

}  // namespace featurehost
