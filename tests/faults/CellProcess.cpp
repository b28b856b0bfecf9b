#include "tests/faults/CellProcess.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "featurehost/src/ProcessGuard.h"
#include "tests/support/RecordedLog.h"
#include "tests/support/TempDir.h"

namespace faults {

namespace {

constexpr unsigned kSeconds = 60;
constexpr int kExpectationsFailed = 99;
constexpr std::size_t kShownAtMost = 4000;

void HavePlaceOfOwn() {
  // LeakSanitizer reads it when a leak is found, by its path, and the project may lie in /tmp.
  const std::string suppressions = KEPT_LEAKS;
  const std::string content = support::ReadFile(suppressions);
  ASSERT_EQ(0, unshare(CLONE_NEWNS)) << std::strerror(errno);
  ASSERT_EQ(0, mount("none", "/tmp", "tmpfs", 0, nullptr)) << std::strerror(errno);
  if (suppressions.rfind("/tmp/", 0) == 0) {
    std::filesystem::create_directories(std::filesystem::path(suppressions).parent_path());
    support::WriteFile(suppressions, content);
  }
  ASSERT_EQ(0, mkdir("/tmp/cell", 0700)) << std::strerror(errno);
}

[[noreturn]] void RunAndEnd(const std::function<void()>& body, int errors) {
  setpgid(0, 0);
  alarm(kSeconds);
  dup2(errors, STDERR_FILENO);
  featurehost::AdoptProcess();
  HavePlaceOfOwn();
  if (!testing::Test::HasFailure()) {
    body();
  }
  if (testing::Test::HasFailure()) {
    for (const std::string& text : support::RecordedLog::Instance().Texts()) {
      std::fprintf(stderr, "log: %s\n", text.c_str());
    }
  }
  // Not _exit: the leak check runs at the end.
  std::exit(testing::Test::HasFailure() ? kExpectationsFailed : 0);  // NOLINT
}

std::string HowItEnded(int status) {
  if (WIFSIGNALED(status)) {
    const int number = WTERMSIG(status);
    return number == SIGALRM ? "took longer than " + std::to_string(kSeconds) + " s"
                             : "died of signal " + std::to_string(number);
  }
  const int code = WEXITSTATUS(status);
  if (code == 0) {
    return "";
  }
  return code == kExpectationsFailed ? "expectations failed, see above"
                                     : "ended with " + std::to_string(code);
}

bool IsSanitizerReport(const std::string& text) {
  return text.find("Sanitizer") != std::string::npos ||
         text.find("runtime error:") != std::string::npos;
}

}  // namespace

Verdict RunInCellProcess(const std::function<void()>& body) {
  const support::TempDir folder;
  const std::string errorFile = folder / "errors";
  const int errors = open(errorFile.c_str(), O_CREAT | O_RDWR | O_APPEND | O_CLOEXEC, 0600);
  std::fflush(nullptr);
  const pid_t cell = fork();
  if (cell == 0) {
    RunAndEnd(body, errors);
  }
  int status = 0;
  while (waitpid(cell, &status, 0) == -1 && errno == EINTR) {
  }
  kill(-cell, SIGKILL);
  close(errors);

  const std::string printed = support::ReadFile(errorFile);
  Verdict verdict{false, HowItEnded(status)};
  if (verdict.why.empty() && IsSanitizerReport(printed)) {
    verdict.why = "a sanitizer's report";
  }
  verdict.passed = verdict.why.empty();
  if (!verdict.passed) {
    verdict.why += "\n" + printed.substr(0, kShownAtMost);
  }
  return verdict;
}

}  // namespace faults
