#pragma once

#include "featurehost/src/lint/Environment.h"
#include "featurehost/src/lint/Findings.h"
#include "featurehost/src/lint/Sources.h"
#include "featurehost/src/lint/Update.h"

namespace featurehost::lint {

/** What the groups of checks work with. */
struct Subject {
  const Update& update;
  const Environment& environment;
  Sources& sources;
  Findings& findings;
};

/** The update list, and that every item has a weight. */
void CheckLists(const Subject& subject);
void CheckWeights(const Subject& subject);
/** That the properties of the items are there, and that there are no others. */
void CheckProperties(const Subject& subject);
/** Offsets and sizes of factory data and end-of-line settings. */
void CheckNumbers(const Subject& subject);
/** The size that images and image checks name. */
void CheckTargetSizes(const Subject& subject);
void CheckBlockSizes(const Subject& subject);
/** How paths get through the shell, and whether the commands fit into their buffers. */
void CheckPaths(const Subject& subject);
/** The files that are read. */
void CheckSources(const Subject& subject);
/** What is written, and where it is mounted. */
void CheckTargets(const Subject& subject);
/** The tools that the items run. */
void CheckTools(const Subject& subject);
/** Installs that are at work on the same targets, and what killed ones have left. */
void CheckOtherRuns(const Subject& subject);

}  // namespace featurehost::lint
