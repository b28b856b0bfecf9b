#include "featurehost/src/UnitState.h"

#include <sys/prctl.h>

#include "featurehost/src/ProcessTable.h"

namespace featurehost {

namespace {

constexpr int kGenerations = 8;  // orphans of orphans: each round may bring new children

void Append(std::vector<LeftOver>& all, const std::vector<LeftOver>& more) {
  all.insert(all.end(), more.begin(), more.end());
}

/** Those of a process that does not end: they stay its own, and never become ours. */
std::vector<LeftOver> EndDescendants(pid_t process) {
  std::vector<LeftOver> found;
  for (const ProcessName& descendant : DescendantsOf(process)) {
    const std::string what = DescribeProcess(descendant.id);
    found.push_back(LeftProcess(what, EndStranger(descendant)));
  }
  return found;
}

}  // namespace

UnitState::UnitState(const RunScope& scope)
    : children_(Children()), changes_(scope, TakeStock(scope)) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
}

std::vector<LeftOver> UnitState::CleanUp() const {
  // In this order: a process holds its mounts, and a mount its folder.
  std::vector<LeftOver> found = EndChildren();
  Append(found, changes_.FindForeignMounts());
  Append(found, changes_.CleanUp());
  return found;
}

std::vector<pid_t> UnitState::NewChildren() const {
  std::vector<pid_t> fresh;
  for (const pid_t child : Children()) {
    if (children_.count(child) == 0) {
      fresh.push_back(child);
    }
  }
  return fresh;
}

std::vector<LeftOver> UnitState::EndChildren() const {
  std::vector<LeftOver> found;
  std::set<pid_t> stuck;
  for (int round = 0; round < kGenerations; ++round) {
    bool ended = false;
    for (const pid_t child : NewChildren()) {
      if (stuck.count(child) > 0) {
        continue;
      }
      const std::string what = DescribeProcess(child);
      const std::string how = EndChild(child);
      ended = true;
      found.push_back(LeftProcess(what, how));
      if (how.empty()) {
        stuck.insert(child);
        Append(found, EndDescendants(child));
      }
    }
    if (!ended) {
      break;
    }
  }
  return found;
}

}  // namespace featurehost
