#include "featurehost/src/lint/LintCommand.h"

#include <iostream>
#include <string>
#include <vector>

#include "featurehost/src/HostError.h"
#include "featurehost/src/Output.h"
#include "featurehost/src/Text.h"
#include "featurehost/src/lint/LintReport.h"
#include "featurehost/src/lint/Linter.h"
#include "featurehost/src/lint/UnitEnvironment.h"

namespace featurehost::lint {

namespace {

bool IsShown(const Finding& finding, const LintRequest& request) {
  return !request.quiet || SeverityOf(finding.kind) == Severity::kError;
}

void Print(const LintRequest& request, const std::vector<Finding>& findings, Output& output) {
  const Count count = CountOf(findings);
  for (const Finding& finding : findings) {
    if (request.json) {
      output.Write(JsonOf(finding));
    } else if (IsShown(finding, request)) {
      output.Write(TextOf(finding) + "\n");
    }
  }
  if (request.json) {
    output.Write(JsonSummary(request.featureId, count, request.deep));
  } else if (!request.quiet) {
    output.Write(OneLine(request.featureId) + ": " + TextOf(count) + "\n");
  }
}

ExitCode CodeOf(const LintRequest& request, const std::vector<Finding>& findings) {
  const Count count = CountOf(findings);
  const bool bad = count.errors > 0 || (request.strict && count.warnings > 0);
  return bad ? ExitCode::kInstallFailed : ExitCode::kSuccess;
}

}  // namespace

ExitCode RunLint(const LintRequest& request) {
  SurviveClosedPipes();
  Output output(SeparateStandardOutput());
  const UnitEnvironment environment;
  const auto findings = Lint(request.featureId, request.properties, environment);
  Print(request, findings, output);
  return CodeOf(request, findings);
}

void LintBeforeInstall(const LintRequest& request) {
  const UnitEnvironment environment;
  const auto findings = Lint(request.featureId, request.properties, environment);
  for (const Finding& finding : findings) {
    if (IsShown(finding, request)) {
      std::cerr << "featurehost: " << TextOf(finding) << std::endl;
    }
  }
  const Count count = CountOf(findings);
  if (count.errors > 0) {
    throw HostError(ExitCode::kUsage, "the update cannot go well (" + TextOf(count) +
                                          "), nothing was started; --no-lint installs it "
                                          "nevertheless");
  }
}

}  // namespace featurehost::lint
