#include "featurehost/src/KilledRuns.h"
#include "featurehost/src/RunScope.h"
#include "featurehost/src/lint/Checks.h"

namespace featurehost::lint {

void CheckOtherRuns(const Subject& subject) {
  // The feature's id is not asked for.
  const RunScope scope = ScopeOf(Properties("", subject.update.Values()));
  const OtherRuns others = subject.environment.RunsBeside(scope);
  for (const std::string& killed : others.killed) {
    subject.findings.Add(Kind::kKilledRun, {"", "", killed},
                         "what it has left is in the way of the next install",
                         "featurehost cleanup, and the install after it");
  }
  if (others.unjudged > 0) {
    subject.findings.Add(Kind::kRunsUnknown, {"", "", "/proc"}, WhyUnjudged(others.unjudged),
                         "mount -t proc proc /proc, or look where they were started");
  }
  for (const std::string& running : others.running) {
    subject.findings.Add(Kind::kOtherInstall, {"", "", "feature '" + running + "'"},
                         "it is being installed on the same targets or mount points now, and both "
                         "would write over each other",
                         "wait for its end, or stop it");
  }
}

}  // namespace featurehost::lint
