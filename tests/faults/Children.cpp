#include "tests/faults/Children.h"

#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/Eventually.h"
#include "tests/support/ProcessState.h"

namespace faults {

namespace {

std::string NameOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/comm");
  std::string name;
  std::getline(file, name);
  return name;
}

}  // namespace

std::vector<pid_t> ToolsOfThisProcess(bool zcatIsScripted) {
  const std::string own = NameOf(getpid());
  auto children = support::Children();
  for (const pid_t child : children) {
    EXPECT_TRUE(support::Eventually([&] {
      const std::string name = NameOf(child);
      return name != own && (zcatIsScripted || name != "zcat");
    }));
  }
  return children;
}

pid_t HungTool(const std::string& file) {
  pid_t tool = -1;
  std::ifstream(file) >> tool;
  return tool > 0 && NameOf(tool) == "tail" ? tool : -1;
}

bool Sleeps(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text);
  return text.find(") S ") != std::string::npos;
}

bool HasEnded(pid_t child) {
  siginfo_t end{};
  return waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG | WNOWAIT) != 0 ||
         end.si_pid == child;
}

}  // namespace faults
