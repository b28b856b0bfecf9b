#include "featurehost/src/Run.h"

#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <unistd.h>

#include "featurehost/src/Broker.h"
#include "featurehost/src/EventLoop.h"
#include "featurehost/src/Foreground.h"
#include "featurehost/src/HostError.h"
#include "featurehost/src/Items.h"
#include "featurehost/src/JsonReport.h"
#include "featurehost/src/Log.h"
#include "featurehost/src/Module.h"
#include "featurehost/src/NotedRun.h"
#include "featurehost/src/Output.h"
#include "featurehost/src/PlainLines.h"
#include "featurehost/src/ProgressBar.h"
#include "featurehost/src/RunNote.h"
#include "featurehost/src/RunScope.h"
#include "featurehost/src/SharedTerminal.h"
#include "featurehost/src/ToolOutput.h"
#include "featurehost/src/UnitState.h"

namespace featurehost {

namespace {

constexpr std::chrono::milliseconds kTick{500};

/** The module is handed a directory of other interfaces, which is empty here. */
class NoInterfaces : public IInterfaceBroker {};

Items ItemsOf(const Properties& properties) {
  return {properties.Text("updatelist"), properties.Text("updateprogresslist")};
}

std::unique_ptr<RunReport> MakeReport(const RunRequest& request, const Properties& properties,
                                      Output& output) {
  if (request.json) {
    return std::make_unique<JsonReport>(output, request.featureId);
  }
  if (request.quiet) {
    return std::make_unique<RunReport>();
  }
  if (output.IsTerminal()) {
    return std::make_unique<ProgressBar>(output, ItemsOf(properties));
  }
  return std::make_unique<PlainLines>(output, ItemsOf(properties));
}

/** Whether a progress bar and standard error meet on a terminal. */
bool SharesTerminal(const RunRequest& request) {
  return !request.json && !request.quiet && isatty(STDOUT_FILENO) == 1 &&
         isatty(STDERR_FILENO) == 1;
}

void Say(const std::string& line) {
  std::cerr << "featurehost: " << line << std::endl;
}

void SayWhatWasLeft(const std::vector<LeftOver>& leftOvers) {
  for (const LeftOver& leftOver : leftOvers) {
    Say("left behind: " + Describe(leftOver) + ": " + leftOver.done);
  }
}

/** The feature's life: it is gone, and what it wrote is flushed, when this returns. */
Outcome HostFeature(const RunRequest& request, const Properties& properties, const Module& module,
                    RunReport& report, const std::function<void()>& tick) {
  EventLoop loop;
  Broker broker(loop);
  NoInterfaces interfaces;
  UpdateController controller(loop, broker, request.featureId, request.goal, report);
  loop.Every(kTick, tick);
  const std::size_t ours = broker.SubscriptionCount();

  auto feature = module.Create(request.featureId, interfaces, broker, properties);
  Outcome outcome = controller.Run();
  if (request.goal == Goal::kInstall) {
    sync();
  }
  feature.reset();

  if (broker.SubscriptionCount() != ours) {
    Log::Instance().Host(Level::kError, "HostFeature",
                         "the module left " + std::to_string(broker.SubscriptionCount() - ours) +
                             " subscriptions behind");
  }
  return outcome;
}

/** As HostFeature, with the terminal shared out if there is one for all. */
Outcome HostOnTerminal(const RunRequest& request, const Properties& properties, RunReport& report,
                       ToolOutput* tools) {
  const Module module(request.module);
  std::optional<SharedTerminal> terminal;
  if (tools != nullptr) {
    terminal.emplace(report, *tools);
  }
  return HostFeature(request, properties, module, report, [&] {
    if (terminal.has_value()) {
      terminal->Tick();
    }
    report.Tick();
  });
}

ExitCode RunInThisProcess(const RunRequest& request, const Properties& properties,
                          ToolOutput* tools, NotedRun* note) {
  if (note != nullptr) {
    note->AddWorker();
  }
  Output output(SeparateStandardOutput());
  const UnitState unit(ScopeOf(properties));
  const auto report = MakeReport(request, properties, output);

  Outcome outcome{ExitCode::kAborted, "", std::nullopt, {}};
  try {
    outcome = HostOnTerminal(request, properties, *report, tools);
  } catch (const HostError& error) {
    outcome = {error.Code(), error.what(), std::nullopt, {}};
  }

  const auto leftOvers = unit.CleanUp();
  if (!leftOvers.empty()) {
    report->MakeRoom();
    SayWhatWasLeft(leftOvers);
    report->LeftBehind(leftOvers);
  }
  if (note != nullptr) {
    note->Settle(leftOvers);  // here, as the front may have been killed
  }
  report->Result(outcome);
  if (outcome.code != ExitCode::kSuccess) {
    Say(outcome.text);
  }
  return outcome.code;
}

}  // namespace

ExitCode Run(const RunRequest& request) {
  SurviveClosedPipes();
  const Properties properties(request.featureId, request.properties);
  const RunScope scope = ScopeOf(properties);
  const UnitState unit(scope);
  std::optional<NotedRun> note;
  if (request.goal == Goal::kInstall) {
    note.emplace(NewNote(request.featureId, request.configuration, scope, unit.Before()));
  }
  ToolOutput tools;
  const bool sharesTerminal = SharesTerminal(request);
  const bool keepsToolOutput = sharesTerminal && tools.Open();

  const auto cleanUp = [&] {
    const auto leftOvers = unit.CleanUp();
    SayWhatWasLeft(leftOvers);
    if (note.has_value()) {
      note->Settle(leftOvers);
    }
  };
  FrontDuties duties;
  duties.relayed = [&](int number) {
    if (request.quiet) {
      return;
    }
    std::cerr << (sharesTerminal ? kEraseLine : "");
    if (number == 1) {
      Say("stopping as soon as the module can; once more stops waiting for it");
    } else {
      Say("not waiting for the module; if a tool holds it, once more ends the run by force");
    }
  };
  duties.forced = [&] {
    std::cerr << tools.TakeRest();
    cleanUp();
    Say("ended by force; nothing is known to be installed");
    return static_cast<int>(ExitCode::kAborted);
  };
  duties.held = [&](pid_t process) {
    std::cerr << tools.TakeRest();
    cleanUp();
    Say("process " + std::to_string(process) +
        " does not end, not even when killed, and nothing is known to be installed; once it has "
        "ended, run featurehost cleanup");
    return static_cast<int>(ExitCode::kAborted);
  };
  duties.crashed = [&](int signal) {
    std::cerr << tools.TakeRest();
    cleanUp();
    const char* name = strsignal(signal);  // NOLINT(concurrency-mt-unsafe): there is one thread
    Say("the module brought the run down with signal " + std::to_string(signal) + " (" + name +
        "); nothing is known to be installed");
    return static_cast<int>(request.goal == Goal::kInstall ? ExitCode::kInstallFailed
                                                           : ExitCode::kPrepareFailed);
  };
  const auto work = [&] {
    return static_cast<int>(RunInThisProcess(request, properties,
                                             keepsToolOutput ? &tools : nullptr,
                                             note.has_value() ? &*note : nullptr));
  };
  const int code = DoBehindForeground(work, duties);
  if (note.has_value()) {
    note->LeaveAsItIs();  // settled, by the one process or the other
  }
  return static_cast<ExitCode>(code);
}

}  // namespace featurehost
