#include "featurehost/src/KilledRuns.h"

#include <iostream>
#include <set>

#include "featurehost/src/HostError.h"
#include "featurehost/src/ProcessTable.h"
#include "featurehost/src/Text.h"
#include "featurehost/src/UnitChanges.h"

namespace featurehost {

namespace {

constexpr int kGenerations = 8;  // what is being ended may start more meanwhile

/** Where to look for what is left: of a run before the machine's last start, the folder alone. */
UnitChanges ChangesOf(const RunNote& note) {
  RunScope scope;
  if (SeesMountsOf(note)) {
    scope = note.scope;
  } else if (IsOfEarlierBoot(note)) {
    scope.folder = note.scope.folder;
  }
  return {scope, note.before};
}

std::set<ProcessName> ProcessesOf(const RunNote& note) {
  return SeesProcessesOf(note) ? ProcessesWith(EnvironmentEntry(note)) : std::set<ProcessName>();
}

std::vector<LeftOver> EndProcesses(const RunNote& note) {
  std::vector<LeftOver> found;
  std::set<ProcessName> stuck;
  for (int round = 0; round < kGenerations; ++round) {
    bool ended = false;
    for (const ProcessName& process : ProcessesOf(note)) {
      if (stuck.count(process) > 0) {
        continue;
      }
      const std::string what = DescribeProcess(process.id);
      const std::string how = EndStranger(process);
      if (how.empty()) {
        stuck.insert(process);
      }
      ended = true;
      found.push_back(LeftProcess(what, how));
    }
    if (!ended) {
      break;
    }
  }
  return found;
}

std::vector<std::string> ObjectionsOfRunningInstalls(const RunScope& scope) {
  std::vector<std::string> objections;
  for (const RunNote& note : RunningInstalls()) {
    if (note.scope.Meets(scope)) {
      objections.push_back("process " + std::to_string(RunningProcess(note).value_or(0)) +
                           " is installing feature '" + OneLine(note.feature) +
                           "' on the same targets; wait for its end, or stop it");
    }
  }
  return objections;
}

void RefuseFor(const std::vector<std::string>& objections) {
  if (!objections.empty()) {
    throw HostError(ExitCode::kUsage, objections.front());
  }
}

}  // namespace

std::vector<KilledRun> KilledRuns() {
  std::vector<KilledRun> killed;
  for (const RunFolder& folder : RunFolder::ForReading()) {
    for (const RunNote& note : folder.Notes()) {
      if (!IsKilled(note)) {
        continue;
      }
      const auto left = LeftOf(note);
      if (left.empty()) {
        Drop(folder, note);
      } else {
        killed.push_back({note, left});
      }
    }
  }
  return killed;
}

std::string Describe(const KilledRun& run) {
  std::string line =
      "an install of feature '" + OneLine(run.note.feature) + "' was killed and has left behind: ";
  for (const LeftOver& leftOver : run.left) {
    line += (&leftOver == &run.left.front() ? "" : ", ") + Describe(leftOver);
  }
  return line + "; run featurehost cleanup";
}

std::size_t UnjudgedRuns() {
  std::size_t count = 0;
  if (!HasOwnProc()) {
    for (const RunFolder& folder : RunFolder::ForReading()) {
      count += folder.Notes().size();
    }
  }
  return count;
}

std::string WhyUnjudged(std::size_t runs) {
  return "cannot tell of the installs that are noted (" + std::to_string(runs) +
         ") whether they are at work or were killed: /proc does not show this process namespace";
}

void SayUnjudged(std::size_t runs) {
  std::cerr << "featurehost: " << WhyUnjudged(runs)
            << " (mount -t proc proc /proc, or look where they were started)" << std::endl;
}

bool IsKilled(const RunNote& note) {
  return IsOfEarlierBoot(note) || (SeesProcessesOf(note) && !RunningProcess(note).has_value());
}

std::vector<LeftOver> CleanUp(const RunNote& note) {
  // In this order: a process holds its mounts, and a mount its folder.
  std::vector<LeftOver> found = EndProcesses(note);
  const auto changes = ChangesOf(note).CleanUp();
  found.insert(found.end(), changes.begin(), changes.end());
  return found;
}

std::vector<LeftOver> LeftOf(const RunNote& note) {
  std::vector<LeftOver> found;
  for (const ProcessName& process : ProcessesOf(note)) {
    found.push_back({LeftOver::Kind::kProcess, DescribeProcess(process.id), false, ""});
  }
  const auto changes = ChangesOf(note).Find();
  found.insert(found.end(), changes.begin(), changes.end());
  return found;
}

int Drop(const RunFolder& folder, const RunNote& note) {
  // One that was made among other mounts is theirs to judge.
  return IsOfEarlierBoot(note) || SeesMountsOf(note) ? folder.Remove(note) : 0;
}

std::vector<RunNote> RunningInstalls() {
  std::vector<RunNote> running;
  for (const RunFolder& folder : RunFolder::ForReading()) {
    for (RunNote& note : folder.Notes()) {
      if (RunningProcess(note).has_value()) {
        running.push_back(std::move(note));
      }
    }
  }
  return running;
}

std::vector<std::string> ObjectionsOfOtherRuns(const RunScope& scope) {
  auto objections = ObjectionsOfRunningInstalls(scope);
  for (const KilledRun& run : KilledRuns()) {
    objections.push_back(Describe(run));
  }
  return objections;
}

void RefuseBesideRunningInstall(const RunScope& scope) {
  RefuseFor(ObjectionsOfRunningInstalls(scope));
}

void RefuseBesideOtherRuns(const RunScope& scope) {
  RefuseFor(ObjectionsOfOtherRuns(scope));
}

}  // namespace featurehost
