#include "featurehost/src/lint/Linter.h"

#include "featurehost/src/lint/Checks.h"

namespace featurehost::lint {

std::vector<Finding> Lint(const TFeatureId& featureId, const Properties::Values& values,
                          const Environment& environment, const DeepFactsByPath& deep) {
  const Update update(values);
  Sources sources(environment, deep);
  Findings findings(featureId);
  const Subject subject{update, environment, sources, findings};
  for (const auto check :
       {CheckOtherRuns, CheckLists, CheckWeights, CheckProperties, CheckNumbers, CheckTargetSizes,
        CheckBlockSizes, CheckPaths, CheckSources, CheckTargets, CheckTools}) {
    check(subject);
  }
  return findings.Take();
}

}  // namespace featurehost::lint
