#include "tests/faults/Outsider.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/faults/Children.h"

namespace faults {

namespace {

constexpr std::chrono::milliseconds kLook{5};
constexpr std::chrono::milliseconds kMoment{20};

/** Whether the main thread sleeps in a read, or in one of the calls that wait for a child's end. */
bool HostWaits(bool inRead) {
  const std::string self = std::to_string(getpid());
  std::ifstream file("/proc/" + self + "/task/" + self + "/syscall");
  long number = -1;
  // Of a thread that runs, or would if it got a processor, there is a word instead.
  return file >> number &&
         (inRead ? number == SYS_read : number == SYS_wait4 || number == SYS_waitid);
}

/** A stopped process of our group; -1 when there is none. */
pid_t Stopped() {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    std::ifstream file(entry.path() / "stat");
    std::string text;
    std::getline(file, text);
    char state = '\0';
    pid_t parent = 0;
    pid_t group = 0;
    const auto behindName = text.rfind(')');
    if (behindName != std::string::npos) {
      std::istringstream(text.substr(behindName + 1)) >> state >> parent >> group;
    }
    if (state == 'T' && group == getpgrp()) {
      return std::stoi(name);
    }
  }
  return -1;
}

}  // namespace

void Outsider::Start() {
  thread_ = std::thread([this] {
    while (!finished_) {
      Look();
      std::this_thread::sleep_for(kLook);
    }
  });
}

void Outsider::Finish() {
  finished_ = true;
  if (thread_.joinable()) {
    thread_.join();
  }
}

void Outsider::Look() {
  if (looksForStopped_) {
    stopped_ = Stopped();
  }
  const pid_t stopped = stopped_.exchange(-1);
  if (stopped > 0) {
    std::this_thread::sleep_for(kMoment);
    kill(stopped, SIGCONT);
  }
  if (hungFile_.empty() || !HostWaits(hungIsRead_)) {
    return;
  }
  const pid_t hung = HungTool(hungFile_);
  std::this_thread::sleep_for(kMoment);
  if (hung != -1 && HostWaits(hungIsRead_)) {
    kill(hung, SIGTERM);
    hungFile_.clear();
  }
}

}  // namespace faults
