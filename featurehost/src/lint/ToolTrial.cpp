#include "featurehost/src/lint/ToolTrial.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "featurehost/src/WriteAll.h"

namespace featurehost::lint {

namespace {

using Time = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kStep{2};

/** One stored block of 7 bytes, with 0 for its checksum. */
constexpr std::string_view kDamaged(
    "\x1f\x8b\x08\x00\x00\x00\x00\x00\x00\xff"
    "\x01\x07\x00\xf8\xff"
    "sample\n"
    "\x00\x00\x00\x00\x07\x00\x00\x00",
    30);

/** How a program is to be started: streams to nowhere, default signals, a group of its own. */
class Start {
 public:
  Start() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions_, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    sigset_t all{};
    sigfillset(&all);
    posix_spawnattr_init(&attributes_);
    posix_spawnattr_setsigdefault(&attributes_, &all);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF);
  }
  ~Start() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&actions_);
  }

  Start(const Start&) = delete;
  Start& operator=(const Start&) = delete;

  /** @return the process id, or -1. */
  pid_t Run(const std::string& program, const std::vector<std::string>& arguments) const {
    const std::string name = program.substr(program.rfind('/') + 1);
    std::vector<char*> words{const_cast<char*>(name.c_str())};
    for (const std::string& argument : arguments) {
      words.push_back(const_cast<char*>(argument.c_str()));
    }
    words.push_back(nullptr);
    pid_t process = -1;
    const int error =
        posix_spawnp(&process, program.c_str(), &actions_, &attributes_, words.data(), environ);
    return error == 0 ? process : -1;
  }

 private:
  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
};

bool EndsInTime(pid_t process, std::chrono::milliseconds limit, int& status) {
  const auto end = Time::now() + limit;
  pid_t ended = 0;
  while ((ended = waitpid(process, &status, WNOHANG)) == 0) {
    if (Time::now() >= end) {
      kill(-process, SIGKILL);
      waitpid(process, &status, 0);
      return false;
    }
    std::this_thread::sleep_for(kStep);
  }
  return ended == process;
}

}  // namespace

std::optional<int> TryTool(const std::string& program, const std::vector<std::string>& arguments,
                           std::chrono::milliseconds limit) {
  const pid_t process = Start().Run(program, arguments);
  int status = 0;
  if (process == -1 || !EndsInTime(process, limit, status) || !WIFEXITED(status)) {
    return std::nullopt;
  }
  return WEXITSTATUS(status);
}

std::optional<bool> TryDamagedFile(const std::string& decompressor) {
  // In memory, so that nothing is written; the tool has to inherit it.
  // NOLINTNEXTLINE(android-cloexec-memfd-create)
  const int file = memfd_create("damaged sample", 0);
  if (file == -1) {
    return std::nullopt;
  }
  const bool written = WriteAll(file, kDamaged) == 0;
  const auto code =
      written ? TryTool(decompressor, {"/proc/self/fd/" + std::to_string(file)}) : std::nullopt;
  close(file);
  constexpr int kNotRun = 126;  // and above: the shell could not run it
  return code.has_value() && *code < kNotRun ? std::optional(*code == 0) : std::nullopt;
}

}  // namespace featurehost::lint
