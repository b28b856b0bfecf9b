#include <csignal>
#include <exception>
#include <fcntl.h>
#include <iostream>
#include <unistd.h>

#include "featurehost/src/CleanUpCommand.h"
#include "featurehost/src/CommandLine.h"
#include "featurehost/src/Configuration.h"
#include "featurehost/src/HostError.h"
#include "featurehost/src/KilledRuns.h"
#include "featurehost/src/Log.h"
#include "featurehost/src/Module.h"
#include "featurehost/src/Run.h"
#include "featurehost/src/RunScope.h"
#include "featurehost/src/Text.h"
#include "featurehost/src/lint/LintCommand.h"

namespace {

using featurehost::ExitCode;
using featurehost::HostError;
using featurehost::Options;

/** Started without standard streams, the first files we open must not take their place. */
void FillStandardStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) == -1) {
      open("/dev/null", O_RDWR);  // the lowest free number, which is this one
    }
  }
}

/** Inherited as ignored, no child could be waited for: no trial, no tool, not the run itself. */
void HearOfChildren() {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigaction(SIGCHLD, &action, nullptr);
}

ExitCode PrintType(const Options& options) {
  const featurehost::Module module(options.module);
  std::cout << featurehost::OneLine(module.Type()) << std::endl;
  return ExitCode::kSuccess;
}

/** What speaks against an install before it is begun. Throws HostError. */
void CheckBeforeInstall(const Options& options, const featurehost::lint::LintRequest& check) {
  featurehost::RefuseBesideOtherRuns(featurehost::ScopeOf({check.featureId, check.properties}));
  if (!options.noLint) {
    featurehost::lint::LintBeforeInstall(check);
  } else if (const std::size_t runs = featurehost::UnjudgedRuns(); runs > 0 && !options.quiet) {
    featurehost::SayUnjudged(runs);
  }
}

ExitCode RunOnFeature(const Options& options) {
  const auto configuration = featurehost::Configuration::Load(options.configuration);
  const TFeatureId& featureId = configuration.Choose(options.feature);
  const featurehost::lint::LintRequest check{featureId,    configuration.Of(featureId),
                                             options.deep, options.strict,
                                             options.json, options.quiet};
  if (options.command == Options::Command::kLint) {
    return featurehost::lint::RunLint(check);
  }
  const auto goal = options.command == Options::Command::kInstall ? featurehost::Goal::kInstall
                                                                  : featurehost::Goal::kPrepare;
  if (goal == featurehost::Goal::kInstall) {
    CheckBeforeInstall(options, check);
  }
  return featurehost::Run({goal, options.module, featureId, configuration.Of(featureId),
                           options.configuration, options.json, options.quiet});
}

ExitCode Obey(const Options& options) {
  auto& log = featurehost::Log::Instance();
  log.SetLevel(options.logLevel);
  log.SetQuiet(options.quiet);
  if (!options.logFile.empty()) {
    log.OpenFile(options.logFile);
  }
  switch (options.command) {
    case Options::Command::kType:
      return PrintType(options);
    case Options::Command::kCleanUp:
      return featurehost::CleanUpKilledRuns({options.dryRun, options.json, options.quiet});
    case Options::Command::kInstall:
    case Options::Command::kPrepare:
    case Options::Command::kLint:
      break;
  }
  return RunOnFeature(options);
}

}  // namespace

int main(int count, char** arguments) {
  FillStandardStreams();
  HearOfChildren();
  try {
    const auto options = featurehost::ParseCommandLine(count, arguments);
    return static_cast<int>(options.has_value() ? Obey(*options) : ExitCode::kSuccess);
  } catch (const HostError& error) {
    std::cerr << "featurehost: " << error.what() << std::endl;
    return static_cast<int>(error.Code());
  } catch (const std::exception& error) {
    std::cerr << "featurehost: " << featurehost::OneLine(error.what()) << std::endl;
    return static_cast<int>(ExitCode::kUsage);
  }
}
