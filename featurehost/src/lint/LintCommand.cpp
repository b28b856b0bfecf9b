#include "featurehost/src/lint/LintCommand.h"

#include <csignal>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "featurehost/src/HostError.h"
#include "featurehost/src/Output.h"
#include "featurehost/src/Text.h"
#include "featurehost/src/lint/Deep.h"
#include "featurehost/src/lint/DeepProgress.h"
#include "featurehost/src/lint/LintReport.h"
#include "featurehost/src/lint/Linter.h"
#include "featurehost/src/lint/UnitEnvironment.h"

namespace featurehost::lint {

namespace {

volatile std::sig_atomic_t stopWanted = 0;

void RememberStop(int /*signal*/) {
  stopWanted = 1;
}

/** Ctrl-C and its like end the work between two pieces; the bar is taken off the terminal then. */
void HearStopSignals() {
  struct sigaction action {};
  action.sa_handler = RememberStop;
  action.sa_flags = SA_RESTART;
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction before {};
    sigaction(number, nullptr, &before);
    if (before.sa_handler != SIG_IGN) {
      sigaction(number, &action, nullptr);
    }
  }
}

std::optional<DeepFactsByPath> LookDeep(const LintRequest& request, const Environment& environment,
                                        Output& output) {
  HearStopSignals();
  const auto jobs = WhatToUnpack(request.properties, environment);
  DeepProgress progress(output, jobs, output.IsTerminal() && !request.json && !request.quiet);
  return UnpackAll(jobs, [&progress](std::uint64_t bytes) {
    progress.Show(bytes);
    return stopWanted == 0;
  });
}

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
  return bad ? ExitCode::kLintErrors : ExitCode::kSuccess;
}

}  // namespace

ExitCode RunLint(const LintRequest& request) {
  SurviveClosedPipes();
  Output output(SeparateStandardOutput());
  const UnitEnvironment environment;
  DeepFactsByPath deep;
  if (request.deep) {
    auto facts = LookDeep(request, environment, output);
    if (!facts.has_value()) {
      throw HostError(ExitCode::kAborted, "stopped; not everything has been checked");
    }
    deep = std::move(*facts);
  }
  const auto findings = Lint(request.featureId, request.properties, environment, deep);
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
