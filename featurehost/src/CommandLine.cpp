#include "featurehost/src/CommandLine.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "featurehost/src/Configuration.h"
#include "featurehost/src/HostError.h"
#include "featurehost/src/Text.h"

namespace featurehost {

namespace {

constexpr const char* kExitCodes =
    "Exit codes: 0 installed (prepared), 1 the install failed, 2 usage or configuration,\n"
    "3 the prepare failed, 4 the module cannot be loaded, 130 aborted.\n"
    "Of lint: 0 no errors, 1 errors, 2 usage or configuration, 130 stopped.\n"
    "Of cleanup: 0 nothing is left, 1 something is left, 2 usage.";

CLI::App* AddCommand(CLI::App& app, Options& options, Options::Command command, const char* name,
                     const char* description) {
  CLI::App* subcommand = app.add_subcommand(name, description);
  subcommand->fallthrough();
  subcommand->callback([&options, command] { options.command = command; });
  return subcommand;
}

void AddConfiguration(CLI::App* command, Options& options) {
  command->add_option("CONFIG", options.configuration, "The configuration file (TOML)")->required();
}

}  // namespace

std::optional<Options> ParseCommandLine(int count, const char* const* arguments) {
  Options options;
  std::string level = "warning";
  CLI::App app("Runs software updates with a feature module.", "featurehost");
  app.footer(kExitCodes);
  app.require_subcommand(0, 1);  // none is told below, in clearer words
  app.set_version_flag("--version", "featurehost " FEATUREHOST_VERSION);
  CLI::App* install = AddCommand(app, options, Options::Command::kInstall, "install",
                                 "Prepare and install the update list of a feature");
  AddConfiguration(install, options);
  install->add_flag("--no-lint", options.noLint,
                    "Do not check the configuration and the unit before");
  AddConfiguration(AddCommand(app, options, Options::Command::kPrepare, "prepare",
                              "Prepare only: check whether everything is there"),
                   options);
  CLI::App* lint = AddCommand(app, options, Options::Command::kLint, "lint",
                              "Check a configuration and the unit before an install");
  AddConfiguration(lint, options);
  lint->add_flag("--deep", options.deep, "Unpack every archive and image and check what is in it");
  lint->add_flag("--strict", options.strict, "Exit with 1 for warnings too");
  AddCommand(app, options, Options::Command::kType, "type", "Print the module's feature type");
  AddCommand(app, options, Options::Command::kCleanUp, "cleanup",
             "Clean up what a killed install has left behind")
      ->add_flag("--dry-run", options.dryRun, "Only tell what is there to be cleaned up");

  app.add_option("--module", options.module,
                 "The feature module (default: libmaincpuloader.so beside this program, then "
                 "the installed one, then on the library path)")
      ->type_name("FILE");
  CLI::Option* feature =
      app.add_option("--feature", options.feature,
                     "The feature's id (default: the only table in the configuration)")
          ->type_name("ID");
  app.add_option("--log-level", level, "What the log shows (default: warning)")
      ->check(CLI::IsMember({"error", "warning", "info", "interface"}));
  app.add_option("--log-file", options.logFile, "Append the log to a file as well")
      ->type_name("FILE");
  app.add_flag("--json", options.json,
               "Print every event (lint: finding) as a JSON object on a line of its own");
  app.add_flag("--quiet", options.quiet, "Show errors only");

  try {
    app.parse(count, arguments);
  } catch (const CLI::Success& wish) {
    app.exit(wish, std::cout, std::cerr);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    throw HostError(ExitCode::kUsage, OneLine(error.what()) + "; see featurehost --help");
  }
  if (app.get_subcommands().empty()) {
    throw HostError(ExitCode::kUsage,
                    "no command given; say install, prepare, lint, type or cleanup");
  }
  if (feature->count() > 0) {
    CheckFeatureId(options.feature, "--feature: ");
  }
  options.logLevel = *LevelOf(level);
  return options;
}

}  // namespace featurehost
