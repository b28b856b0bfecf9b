#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "featurehost/src/LeftOver.h"
#include "featurehost/src/RunFolder.h"
#include "featurehost/src/RunNote.h"
#include "featurehost/src/RunScope.h"

namespace featurehost {

/** An install whose host was ended before it could clean up, and what is left of it. */
struct KilledRun {
  RunNote note;
  std::vector<LeftOver> left;  ///< never empty; nothing of it has been touched
};

/**
 * Look for killed installs. Changes nothing on the unit; the notes of those that have left nothing
 * are dropped.
 */
std::vector<KilledRun> KilledRuns();

/** One line that says what is left of a killed install, and what to do about it. */
std::string Describe(const KilledRun& run);

/**
 * What speaks against an install on these, one line for each: installs that are at work on a target
 * or a mount point of them, and what any killed install has left behind.
 */
std::vector<std::string> ObjectionsOfOtherRuns(const RunScope& scope);

/** How many installs are noted that cannot be judged, as /proc is not that of our namespace. */
std::size_t UnjudgedRuns();

/** What that means, for people. */
std::string WhyUnjudged(std::size_t runs);

/** One line on standard error with that, and with what to do about it. */
void SayUnjudged(std::size_t runs);

/** Whether the install that the note is of has ended without cleaning up. */
bool IsKilled(const RunNote& note);

/** What is left of a killed install, as far as it can be seen from here. */
std::vector<LeftOver> LeftOf(const RunNote& note);

/**
 * End what is left of a killed install: end processes, unmount, detach, remove the folder.
 * @return everything that was found, with what was done about it
 */
std::vector<LeftOver> CleanUp(const RunNote& note);

/** Remove the note of a killed install that has left nothing. @return 0, or an errno value. */
int Drop(const RunFolder& folder, const RunNote& note);

/** The notes of installs that are at work now. */
std::vector<RunNote> RunningInstalls();

/**
 * Throws HostError (usage) when an install is at work on a target or a mount point of these.
 * Two at once would write over each other.
 */
void RefuseBesideRunningInstall(const RunScope& scope);

/** Throws HostError (usage) with the first of the ObjectionsOfOtherRuns, if there is one. */
void RefuseBesideOtherRuns(const RunScope& scope);

}  // namespace featurehost
