#include "featurehost/src/ProcessTable.h"

#include <algorithm>
#include <cctype>
#include <csignal>
#include <dirent.h>
#include <filesystem>
#include <iterator>
#include <memory>
#include <sstream>
#include <sys/wait.h>
#include <system_error>

#include "featurehost/src/Paths.h"
#include "featurehost/src/Text.h"
#include "featurehost/src/WaitUntil.h"

namespace featurehost {

namespace {

struct FolderCloser {
  void operator()(DIR* folder) const { closedir(folder); }
};

struct ProcessStatus {
  char state = 'X';
  pid_t parent = 0;
  unsigned long long start = 0;
};

/** From /proc/PID/stat, behind the name, which may hold any character. */
ProcessStatus StatusOf(pid_t process) {
  constexpr int kBetweenParentAndStart = 17;
  const std::string text = ReadText("/proc/" + std::to_string(process) + "/stat");
  const auto nameEnd = text.rfind(')');
  ProcessStatus status;
  if (nameEnd != std::string::npos) {
    std::istringstream fields(text.substr(nameEnd + 1));
    fields >> status.state >> status.parent;
    std::string skipped;
    for (int field = 0; field < kBetweenParentAndStart; ++field) {
      fields >> skipped;
    }
    fields >> status.start;
  }
  return status;
}

/** -1 when /proc does not show it. */
pid_t ThisProcess() {
  std::error_code none;
  const auto self = std::filesystem::read_symlink("/proc/self", none);
  return none ? -1 : std::stoi(self.string());
}

/** The numbers of a process, from the process namespace that /proc shows to its own. */
std::vector<pid_t> NumbersOf(pid_t process) {
  std::istringstream status(ReadText("/proc/" + std::to_string(process) + "/status"));
  const std::string field = "NSpid:";
  std::vector<pid_t> numbers;
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field, 0) == 0) {
      std::istringstream values(line.substr(field.length()));
      numbers.assign(std::istream_iterator<pid_t>(values), {});
    }
  }
  return numbers;
}

/** The number that a process has for this one, and so for kill and waitpid. */
pid_t NumberHere(pid_t process) {
  const auto own = NumbersOf(ThisProcess());
  const auto numbers = NumbersOf(process);
  return own.empty() || numbers.size() < own.size() ? process : numbers[own.size() - 1];
}

std::set<pid_t> AllProcesses() {
  std::set<pid_t> processes;
  const std::unique_ptr<DIR, FolderCloser> folder(opendir("/proc"));
  if (folder == nullptr) {
    return processes;
  }
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
  while (const dirent* entry = readdir(folder.get())) {
    const std::string name(static_cast<const char*>(entry->d_name));
    if (std::isdigit(static_cast<unsigned char>(name[0])) != 0) {
      processes.insert(std::stoi(name));
    }
  }
  return processes;
}

/** By the number that the child has here. */
bool Reap(pid_t child) {
  return waitpid(child, nullptr, WNOHANG) != 0;
}

/** By the number that the process has here. */
std::string End(pid_t process, const std::function<bool()>& isGone) {
  kill(process, SIGTERM);
  if (WaitUntil(isGone)) {
    return "ended";
  }
  kill(process, SIGKILL);
  return WaitUntil(isGone) ? "killed" : "";
}

}  // namespace

ProcessName NameOf(pid_t process) {
  return {process, StatusOf(process).start};
}

bool IsAlive(const ProcessName& process) {
  const ProcessStatus status = StatusOf(process.id);
  return status.start == process.start && status.state != 'Z' && status.state != 'X';
}

std::set<pid_t> Children() {
  std::set<pid_t> children;
  const pid_t parent = ThisProcess();
  for (const pid_t process : AllProcesses()) {
    if (StatusOf(process).parent == parent) {
      children.insert(process);
    }
  }
  return children;
}

std::vector<ProcessName> DescendantsOf(pid_t process) {
  std::vector<ProcessName> found;
  std::set<pid_t> family{process};
  for (bool isLarger = true; isLarger;) {
    isLarger = false;
    for (const pid_t candidate : AllProcesses()) {
      const ProcessName name = NameOf(candidate);
      if (family.count(StatusOf(candidate).parent) > 0 && IsAlive(name) &&
          family.insert(candidate).second) {
        found.push_back(name);
        isLarger = true;
      }
    }
  }
  return found;
}

std::set<ProcessName> ProcessesWith(const std::string& entry) {
  std::set<ProcessName> found;
  for (const pid_t process : AllProcesses()) {
    // The name comes first: should the number change hands in between, it fits no process.
    const ProcessName name = NameOf(process);
    const std::string environment =
        '\0' + ReadText("/proc/" + std::to_string(process) + "/environ") + '\0';
    if (process != ThisProcess() && environment.find('\0' + entry + '\0') != std::string::npos &&
        IsAlive(name)) {
      found.insert(name);
    }
  }
  return found;
}

std::string DescribeProcess(pid_t process) {
  const std::string processId = std::to_string(process);
  std::string command = ReadText("/proc/" + processId + "/cmdline");
  if (command.empty()) {
    command = ReadText("/proc/" + processId + "/comm");
  }
  while (!command.empty() && (command.back() == '\0' || command.back() == '\n')) {
    command.pop_back();
  }
  std::replace(command.begin(), command.end(), '\0', ' ');
  return processId + " (" + OneLine(command) + ")";
}

std::string EndChild(pid_t child) {
  const pid_t number = NumberHere(child);
  return Reap(number) ? "had ended; reaped" : End(number, [number] { return Reap(number); });
}

std::string EndStranger(const ProcessName& process) {
  // The number comes first: found alive afterwards, it is that of the very process.
  const pid_t number = NumberHere(process.id);
  const auto isGone = [&process] { return !IsAlive(process); };
  return isGone() ? "had ended" : End(number, isGone);
}

}  // namespace featurehost
