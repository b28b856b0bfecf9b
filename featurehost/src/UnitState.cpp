#include "featurehost/src/UnitState.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "featurehost/src/Text.h"

namespace featurehost {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kGrace{2000};
constexpr milliseconds kStep{10};
constexpr int kGenerations = 8;  // orphans of orphans: each round may bring new children

bool WaitUntil(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kGrace;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) {
      return false;
    }
    std::this_thread::sleep_for(kStep);
  }
  return true;
}

std::string ReadText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

struct FolderCloser {
  void operator()(DIR* folder) const { closedir(folder); }
};

/** State and parent from /proc/PID/stat, behind the name, which may hold any character. */
struct ProcessStatus {
  char state = '?';
  pid_t parent = 0;
};

ProcessStatus StatusOf(const std::string& processId) {
  const std::string text = ReadText("/proc/" + processId + "/stat");
  const auto nameEnd = text.rfind(')');
  ProcessStatus status;
  if (nameEnd != std::string::npos) {
    std::istringstream(text.substr(nameEnd + 1)) >> status.state >> status.parent;
  }
  return status;
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

bool Reap(pid_t child) {
  return waitpid(child, nullptr, WNOHANG) != 0;
}

/** How a child was ended; empty when it is still there. */
std::string EndChild(pid_t child) {
  if (Reap(child)) {
    return "had ended; reaped";
  }
  kill(child, SIGTERM);
  if (WaitUntil([child] { return Reap(child); })) {
    return "ended";
  }
  kill(child, SIGKILL);
  if (WaitUntil([child] { return Reap(child); })) {
    return "killed";
  }
  return "";
}

/** Mount points in the kernel's table have blanks and the like as octal escapes. */
std::string Unescape(const std::string& text) {
  constexpr int kOctal = 8;
  std::string plain;
  for (std::size_t index = 0; index < text.size(); ++index) {
    if (text[index] == '\\' && index + 3 < text.size()) {
      plain += static_cast<char>(std::stoi(text.substr(index + 1, 3), nullptr, kOctal));
      index += 3;
    } else {
      plain += text[index];
    }
  }
  return plain;
}

bool Exists(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

std::string Canonical(const std::string& path) {
  std::error_code error;
  const auto canonical = std::filesystem::weakly_canonical(path, error);
  const std::string text = error ? path : canonical.string();
  return text.size() > 1 && text.back() == '/' ? text.substr(0, text.size() - 1) : text;
}

}  // namespace

const char* KindName(LeftOver::Kind kind) {
  switch (kind) {
    case LeftOver::Kind::kProcess:
      return "process";
    case LeftOver::Kind::kMount:
      return "mount";
    case LeftOver::Kind::kFolder:
      return "folder";
  }
  return "";
}

UnitState::UnitState(std::vector<std::string> ownMountPoints, std::string folder)
    : ownMountPoints_(std::move(ownMountPoints)),
      folder_(std::move(folder)),
      children_(Children()),
      makesFolder_(!folder_.empty() && !Exists(folder_)) {
  if (!folder_.empty()) {
    ownMountPoints_.push_back(folder_);
  }
  for (const auto& mount : Mounts()) {
    mounts_.insert(mount.first);
  }
  prctl(PR_SET_CHILD_SUBREAPER, 1);
}

std::vector<LeftOver> UnitState::CleanUp() const {
  std::vector<LeftOver> found;
  // In this order: a process holds its mounts, and a mount its folder.
  EndChildren(found);
  Unmount(found);
  RemoveFolder(found);
  return found;
}

std::set<pid_t> UnitState::Children() {
  std::set<pid_t> children;
  const std::unique_ptr<DIR, FolderCloser> processes(opendir("/proc"));
  if (processes == nullptr) {
    return children;
  }
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
  while (const dirent* entry = readdir(processes.get())) {
    const std::string name(static_cast<const char*>(entry->d_name));
    if (std::isdigit(static_cast<unsigned char>(name[0])) != 0 &&
        StatusOf(name).parent == getpid()) {
      children.insert(std::stoi(name));
    }
  }
  return children;
}

std::vector<std::pair<UnitState::MountName, UnitState::Mount>> UnitState::Mounts() {
  std::vector<std::pair<MountName, Mount>> mounts;
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string id;
    std::string skipped;
    std::string point;
    fields >> id >> skipped >> skipped >> skipped >> point;
    // Optional fields follow, ended by "-"; then come the type and the source.
    while (fields >> skipped && skipped != "-") {
    }
    std::string source;
    fields >> skipped >> source;
    point = Unescape(point);
    mounts.push_back({{id, point}, {point, Unescape(source)}});
  }
  return mounts;
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

void UnitState::EndChildren(std::vector<LeftOver>& found) const {
  std::set<pid_t> stuck;
  for (int round = 0; round < kGenerations; ++round) {
    bool ended = false;
    for (const pid_t child : NewChildren()) {
      if (stuck.count(child) > 0) {
        continue;
      }
      const std::string what = DescribeProcess(child);
      const std::string how = EndChild(child);
      if (how.empty()) {
        stuck.insert(child);
      }
      ended = true;
      found.push_back({LeftOver::Kind::kProcess, what, !how.empty(),
                       how.empty() ? "does not end, not even when killed" : how});
    }
    if (!ended) {
      return;
    }
  }
}

void UnitState::Unmount(std::vector<LeftOver>& found) const {
  auto mounts = Mounts();
  std::reverse(mounts.begin(), mounts.end());  // the latest first: they may lie on each other
  for (const auto& [name, mount] : mounts) {
    if (mounts_.count(name) > 0) {
      continue;
    }
    LeftOver leftOver{LeftOver::Kind::kMount, mount.point + " (" + mount.source + ")", false, ""};
    if (!IsOwnMountPoint(mount.point)) {
      leftOver.done = "not at a mount point of this feature; left as it is";
    } else {
      int error = 0;
      const std::string point = mount.point;
      leftOver.cleaned = WaitUntil([&point, &error] {
                           error = umount2(point.c_str(), UMOUNT_NOFOLLOW) == 0 ? 0 : errno;
                           return error != EBUSY;
                         }) &&
                         error == 0;
      leftOver.done = leftOver.cleaned ? "unmounted" : "cannot be unmounted: " + ErrorText(error);
    }
    leftOver.what = OneLine(leftOver.what);
    found.push_back(leftOver);
  }
}

void UnitState::RemoveFolder(std::vector<LeftOver>& found) const {
  if (!makesFolder_ || !Exists(folder_)) {
    return;
  }
  const int error = rmdir(folder_.c_str()) == 0 ? 0 : errno;
  found.push_back({LeftOver::Kind::kFolder, folder_, error == 0,
                   error == 0 ? "removed" : "cannot be removed: " + ErrorText(error)});
}

bool UnitState::IsOwnMountPoint(const std::string& point) const {
  return std::any_of(ownMountPoints_.begin(), ownMountPoints_.end(),
                     [&point](const std::string& own) { return Canonical(own) == point; });
}

}  // namespace featurehost
